// The UDP server beside libuv and two bare select loops: CPU time of the server for each echoed datagram. The load
// keeps a window of datagrams under way, small enough that none is lost.

#include "support/PairedRounds.h"
#include "support/ServerProcess.h"
#include "support/ThisProcess.h"

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDUdpServer.h>

#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>
#include <uv.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace
{

constexpr int kRounds = 15; // and one before them that is not counted
constexpr std::chrono::milliseconds kRoundTime{100};
constexpr std::size_t kDatagramSizes[] = {16, 512, 1400};
constexpr unsigned int kWindow = 32;
constexpr int kEchoTimeoutSeconds = 2;
constexpr std::size_t kServerBufferBytes = 2048;
constexpr int kUvDatagramsPerWait = 32; // what libuv receives at most before it waits again

// The servers. Each receives a datagram into its one buffer and sends it back at once.

class EchoServer : public CQDUdpServer
{
public:
    using CQDUdpServer::CQDUdpServer;

protected:
    void OnDatagramReceived(int socket, const sockaddr* from, unsigned int fromLength, const unsigned char* data,
                            unsigned int length) override
    {
        Require(::sendto(socket, data, length, 0, from, fromLength) == static_cast<ssize_t>(length),
                "our server: send");
    }
};

[[noreturn]] void RunOurServer(unsigned short port, const std::function<void()>& ready)
{
    COutputLogNull log;
    EchoServer server(&log, port, kServerBufferBytes);
    Require(server.StartSocketThread(), "our server");
    ready();
    while (true)
        ::pause();
}

void OnUvAllocate(uv_handle_t*, std::size_t, uv_buf_t* buffer)
{
    static char storage[kServerBufferBytes];
    *buffer = uv_buf_init(storage, sizeof storage);
}

void OnUvReceived(uv_udp_t* server, ssize_t count, const uv_buf_t* buffer, const sockaddr* from, unsigned int)
{
    Require(count >= 0, "libuv: receive");
    if (from == nullptr)
        return; // nothing more is there
    const uv_buf_t echo = uv_buf_init(buffer->base, static_cast<unsigned int>(count));
    Require(uv_udp_try_send(server, &echo, 1, from) == count, "libuv: send");
}

[[noreturn]] void RunUvServer(unsigned short port, const std::function<void()>& ready)
{
    uv_loop_t* loop = uv_default_loop();
    uv_udp_t server;
    sockaddr_in address;
    Require(uv_udp_init(loop, &server) == 0, "libuv: init");
    Require(uv_ip4_addr("0.0.0.0", port, &address) == 0, "libuv: address");
    Require(uv_udp_bind(&server, reinterpret_cast<const sockaddr*>(&address), 0) == 0, "libuv: bind");
    Require(uv_udp_recv_start(&server, OnUvAllocate, OnUvReceived) == 0, "libuv: start");
    ready();
    uv_run(loop, UV_RUN_DEFAULT);
    std::_Exit(1);
}

// Returns false when no datagram is there.
bool EchoOneDatagram(int socket)
{
    static char buffer[kServerBufferBytes];
    sockaddr_in from;
    socklen_t fromLength = sizeof from;
    sockaddr* const fromAddress = reinterpret_cast<sockaddr*>(&from);
    const ssize_t count = ::recvfrom(socket, buffer, sizeof buffer, 0, fromAddress, &fromLength);
    if (count < 0)
        return false;
    Require(::sendto(socket, buffer, static_cast<std::size_t>(count), 0, fromAddress, fromLength) == count,
            "select: send");
    return true;
}

// What is left of our server when everything but the calls is taken away: the pipe that would end the loop stays in the
// set. DatagramsPerWait: 1, as ours has it; more save waits under load, and let a command wait longer.
template<int DatagramsPerWait>
[[noreturn]] void RunSelectServer(unsigned short port, const std::function<void()>& ready)
{
    int ends[2];
    Require(::pipe(ends) == 0, "select: pipe");
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    Require(socket >= 0, "select: socket");
    Require(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "select: bind");
    ready();

    const int largest = std::max(ends[0], socket);
    while (true) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(ends[0], &readable);
        FD_SET(socket, &readable);
        if (::select(largest + 1, &readable, nullptr, nullptr, nullptr) < 0)
            continue;
        if (FD_ISSET(ends[0], &readable))
            std::_Exit(0);
        if (!FD_ISSET(socket, &readable))
            continue;
        for (int i = 0; i < DatagramsPerWait && EchoOneDatagram(socket); ++i) {
        }
    }
}

constexpr std::size_t kKindCount = 4;
constexpr ServerFunction kServers[kKindCount] = {RunOurServer, RunUvServer, RunSelectServer<1>,
                                                 RunSelectServer<kUvDatagramsPerWait>};
constexpr const char* kPeerNames[kKindCount] = {nullptr, "libuv", "bare select", "draining select"};

// Datagrams that one system call sends or receives.
class Batch
{
public:
    explicit Batch(std::size_t datagramBytes) : m_DatagramBytes(datagramBytes), m_Bytes(kWindow * datagramBytes)
    {
        for (unsigned int i = 0; i < kWindow; ++i) {
            m_Vectors[i] = {Get(i), datagramBytes};
            m_Headers[i].msg_hdr.msg_iov = &m_Vectors[i];
            m_Headers[i].msg_hdr.msg_iovlen = 1;
        }
    }

    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    unsigned char* Get(unsigned int i) { return m_Bytes.data() + i * m_DatagramBytes; }

    mmsghdr* GetHeaders() { return m_Headers; }

private:
    const std::size_t m_DatagramBytes;
    std::vector<unsigned char> m_Bytes;
    iovec m_Vectors[kWindow];
    mmsghdr m_Headers[kWindow]{};
};

// The load for one server, made by the calling thread alone, with fewer system calls than a server needs, so that the
// servers never run out of datagrams for long. Datagrams are numbered. A lost one, or an echo that differs, ends the
// program.
class EchoLoad
{
public:
    EchoLoad(unsigned short port, std::size_t size) :
        m_Size(size), m_Socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), m_Out(size), m_In(size + 1)
    {
        for (unsigned int i = 0; i < kWindow; ++i)
            std::memset(m_Out.Get(i), '!', size);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval timeout{kEchoTimeoutSeconds, 0};
        Require(m_Socket >= 0, "load: socket");
        Require(::setsockopt(m_Socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) == 0, "load: SO_RCVTIMEO");
        Require(::connect(m_Socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "load: connect");
    }

    EchoLoad(const EchoLoad&) = delete;
    EchoLoad& operator=(const EchoLoad&) = delete;

    ~EchoLoad() { ::close(m_Socket); }

    // Returns the number of datagrams that went to and fro.
    unsigned long long Run(std::chrono::milliseconds duration)
    {
        const auto end = std::chrono::steady_clock::now() + duration;
        const unsigned long long before = m_Received;
        Send(kWindow);
        while (m_Received < m_Sent) {
            const unsigned int count = Receive();
            if (std::chrono::steady_clock::now() < end)
                Send(count);
        }
        return m_Received - before;
    }

private:
    void Send(unsigned int count)
    {
        for (unsigned int i = 0; i < count; ++i, ++m_Sent)
            std::memcpy(m_Out.Get(i), &m_Sent, sizeof m_Sent);
        Require(::sendmmsg(m_Socket, m_Out.GetHeaders(), count, 0) == static_cast<int>(count), "load: send");
    }

    // Waits for one echo and takes all that are there.
    unsigned int Receive()
    {
        const int count = ::recvmmsg(m_Socket, m_In.GetHeaders(), kWindow, MSG_WAITFORONE, nullptr);
        if (count < 0 && errno == EAGAIN)
            EndForLoss(m_Sent - m_Received);
        Require(count > 0, "load: receive");
        for (unsigned int i = 0; i < static_cast<unsigned int>(count); ++i, ++m_Received)
            CheckEcho(m_In.Get(i), m_In.GetHeaders()[i].msg_len);
        return static_cast<unsigned int>(count);
    }

    void CheckEcho(const unsigned char* echo, std::size_t length)
    {
        Require(length == m_Size, "load: the echo's length differs");
        unsigned long long number;
        std::memcpy(&number, echo, sizeof number);
        if (number > m_Received)
            EndForLoss(number - m_Received);
        Require(number == m_Received, "load: an echo came twice");
        Require(std::memcmp(echo + sizeof number, m_Out.Get(0) + sizeof number, m_Size - sizeof number) == 0,
                "load: the echo differs");
    }

    [[noreturn]] void EndForLoss(unsigned long long lost) const
    {
        std::fprintf(stderr, "load: %llu of %llu datagrams were lost\n", lost, m_Sent);
        std::_Exit(1);
    }

    const std::size_t m_Size;
    const int m_Socket;
    Batch m_Out;
    Batch m_In; // one byte more for each, to see an echo that is too long
    unsigned long long m_Sent{0};
    unsigned long long m_Received{0};
};

ServerCosts<kKindCount> MeasureEcho(std::size_t size)
{
    const auto servers = StartServers(kServers, SOCK_DGRAM);
    std::unique_ptr<EchoLoad> loads[kKindCount];
    for (std::size_t kind = 0; kind < kKindCount; ++kind)
        loads[kind] = std::make_unique<EchoLoad>(servers[kind]->GetPort(), size);
    return MeasureServers(servers, kRounds, [&](std::size_t kind) { return loads[kind]->Run(kRoundTime); });
}

} // namespace

int main()
{
    PinTo(kLoadCore);
    PreferTheLoad();

    std::printf("### UDP echo, server CPU for each datagram\n\n");
    std::printf("%u datagrams under way. Bare select serves one for each wait, as ours does; draining select up to %d, "
                "as libuv does.\n\n",
                kWindow, kUvDatagramsPerWait);
    std::printf("| datagram | ours | libuv | bare select | draining select | ours / libuv | ours / bare select | "
                "ours / draining select |\n|---|---:|---:|---:|---:|---:|---:|---:|\n");
    std::fflush(stdout);
    std::vector<double> ratios[kKindCount];
    for (const std::size_t size : kDatagramSizes) {
        const ServerCosts<kKindCount> costs = MeasureEcho(size);
        std::printf("| %zu B |", size);
        for (const double seconds : costs.m_Seconds)
            std::printf(" %.2f µs |", seconds * 1e6);
        for (std::size_t kind = 1; kind < kKindCount; ++kind) {
            std::printf(" %.2f |", costs.m_Ratio[kind]);
            ratios[kind].push_back(costs.m_Ratio[kind]);
        }
        std::printf("\n");
        std::fflush(stdout);
    }

    std::printf("\n### Summary\n\n| figure | ratio | target |\n|---|---:|---:|\n");
    for (std::size_t kind = 1; kind < kKindCount; ++kind)
        std::printf("| UDP echo against %s, geometric mean | %.2f | none |\n", kPeerNames[kind],
                    GeometricMean(ratios[kind]));
    return 0;
}
