#pragma once

#include "support/ThisProcess.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

// The web server that all contenders fetch from, and the network that they share with nobody else.

constexpr unsigned short kWebPort = 8080; // of the private network
constexpr unsigned short kSilentPort = 8081;
constexpr std::size_t kReplySizes[] = {100, 16384};

inline void WriteSetting(const char* path, const char* text)
{
    std::ofstream file(path);
    file << text << std::flush;
    Require(file.good(), path);
}

// Gives this process and its children a loopback of their own, where they find every port free and the kernel's
// settings are theirs. Some machines pace every connection: then the kernel's timers, not the programs, set the rate.
inline void EnterPrivateNetwork()
{
    const std::string user = "0 " + std::to_string(::getuid()) + " 1";
    if (::getuid() == 0) {
        Require(::unshare(CLONE_NEWNET) == 0, "a network of our own: unshare");
    } else {
        Require(::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0, "a network of our own: unshare");
        WriteSetting("/proc/self/uid_map", user.c_str());
    }
    const int control = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq loopback{};
    std::snprintf(loopback.ifr_name, sizeof loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    Require(::ioctl(control, SIOCSIFFLAGS, &loopback) == 0, "the loopback: ioctl");
    ::close(control);
    WriteSetting("/proc/sys/net/ipv4/tcp_congestion_control", "reno");
    WriteSetting("/proc/sys/net/ipv4/ip_local_port_range", "10000 65000");
}

inline std::string LoopbackUrl(unsigned short port, const std::string& path)
{
    return "http://127.0.0.1:" + std::to_string(port) + "/" + path;
}

inline sockaddr_in LoopbackAddress(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Lets everybody connect and never answers; for the rest of the process.
inline void StartSilentServer()
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = LoopbackAddress(kSilentPort);
    Require(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind");
    Require(::listen(socket, 4096) == 0, "listen");
}

// One nginx process, pinned to a core, from the constructor until the destructor. Its files lie in a folder of its own.
class WebServer
{
public:
    explicit WebServer(int core)
    {
        char folder[] = "/tmp/qd-url-benchmark-XXXXXX";
        Require(::mkdtemp(folder) != nullptr, "mkdtemp");
        m_Folder = folder;
        for (const std::size_t size : kReplySizes)
            std::ofstream(m_Folder + "/" + std::to_string(size)) << std::string(size, 'x');
        WriteConfiguration();
        m_Process = ::fork();
        Require(m_Process >= 0, "fork");
        if (m_Process == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            AllowManyDescriptors(); // all contenders together keep 3000 connections
            PinTo(core);
            ::execlp("nginx", "nginx", "-p", m_Folder.c_str(), "-c", "nginx.conf", "-e", "stderr", nullptr);
            Require(false, "nginx");
        }
        WaitUntilItAnswers();
    }

    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    ~WebServer()
    {
        ::kill(m_Process, SIGKILL);
        ::waitpid(m_Process, nullptr, 0);
        std::filesystem::remove_all(m_Folder);
    }

private:
    // Root, or the user who is root in his own namespace. Nothing that a client can notice stands in the way of 800
    // clients: connections last, none is refused.
    void WriteConfiguration() const
    {
        std::ofstream file(m_Folder + "/nginx.conf");
        file << "user root;\ndaemon off;\nmaster_process off;\npid nginx.pid;\n"
                "events { worker_connections 8192; }\n"
                "http {\n  access_log off;\n  keepalive_timeout 1h;\n  keepalive_requests 1000000000;\n"
                "  open_file_cache max=16;\n";
        for (const char* folder : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
            file << "  " << folder << "_temp_path " << folder << ";\n";
        file << "  server { listen 127.0.0.1:" << kWebPort << " backlog=4096; root " << m_Folder << "; }\n}\n"
             << std::flush;
        Require(file.good(), "nginx.conf");
    }

    static void WaitUntilItAnswers()
    {
        const sockaddr_in address = LoopbackAddress(kWebPort);
        for (int attempt = 0; attempt < 1000; ++attempt) {
            const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const int result = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
            ::close(socket);
            if (result == 0)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        Require(false, "nginx does not answer");
    }

    std::string m_Folder;
    pid_t m_Process{-1};
};
