// Each of the 26 options that an operator can write, by what a server made of it that others wrote. In the order of the
// options' names.
#include "OperatorRequest.h"
#include "RealServers.h"
#include "ScopedVariable.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace
{

using namespace std::string_literals;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kMail = "Subject: alarm\r\n\r\nTank 3 is full.\r\n";

// A listening socket on 127.0.0.1 whose queue is full and which nobody serves: it drops what asks for a connection.
class DeafListener
{
public:
    DeafListener()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        const int listener = AddSocket();
        EXPECT_EQ(::bind(listener, generic, length), 0);
        EXPECT_EQ(::listen(listener, 0), 0);
        EXPECT_EQ(::getsockname(listener, generic, &length), 0);
        m_Port = ntohs(address.sin_port);
        pollfd waiting{};
        do { // a connection that is not there at once will never be
            waiting = {AddSocket(), POLLOUT, 0};
            ::connect(waiting.fd, generic, length);
        } while (::poll(&waiting, 1, 100) == 1);
    }

    DeafListener(const DeafListener&) = delete;
    DeafListener& operator=(const DeafListener&) = delete;

    ~DeafListener()
    {
        for (const int socket : m_Sockets)
            ::close(socket);
    }

    std::string GetUrl() const { return "http://127.0.0.1:" + std::to_string(m_Port) + '/'; }

private:
    int AddSocket()
    {
        m_Sockets.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        return m_Sockets.back();
    }

    std::vector<int> m_Sockets;
    unsigned short m_Port{0};
};

// A UDP socket on 127.0.0.1 that keeps the first datagram and never answers.
class SilentUdpServer
{
public:
    SilentUdpServer() : m_Socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(::bind(m_Socket, generic, length), 0);
        EXPECT_EQ(::getsockname(m_Socket, generic, &length), 0);
        m_Port = ntohs(address.sin_port);
    }

    SilentUdpServer(const SilentUdpServer&) = delete;
    SilentUdpServer& operator=(const SilentUdpServer&) = delete;

    ~SilentUdpServer() { ::close(m_Socket); }

    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_Port); }

    // Empty when nothing has come.
    std::string GetDatagram() const
    {
        std::string datagram(1024, '\0');
        const ssize_t length = ::recv(m_Socket, datagram.data(), datagram.size(), MSG_DONTWAIT);
        datagram.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        return datagram;
    }

private:
    int m_Socket;
    unsigned short m_Port{0};
};

// Microseconds, as libcurl measured them.
long long GetTime(OperatorRequest& request, CURLINFO which)
{
    curl_off_t time = -1;
    EXPECT_EQ(curl_easy_getinfo(request->GetCurlHandle(), which, &time), CURLE_OK);
    return time;
}

// How a server's answer tells the header Authorization.
std::string Authorization(const std::string& value)
{
    return "\nauthorization: " + value;
}

} // namespace

TEST(QDAsyncUrlOptionRows, AnyauthTakesTheStrongestThatTheServerOffers)
{
    const struct
    {
        const char* m_pOffers;
        const char* m_pChosen;
    } cases[] = {
        {"Basic", "Basic dTpw\n"}, // u:p in base 64
        {"Basic,Digest", "Digest username=\"u\""},
        {"Basic,NTLM", "NTLM TlRMTVNTUAAB"},
        {"Basic,Digest,NTLM", "Digest username=\"u\""},
    };

    const NginxServer server;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.m_pOffers);
        OperatorRequest request(server.GetUrl("/choice?"s + row.m_pOffers), "--anyauth");
        request->SetUserPassword("u:p");

        EXPECT_EQ(request->EasyPerform(), CURLE_OK);

        EXPECT_THAT(request->GetReply(), HasSubstr(Authorization(row.m_pChosen)));
    }
}

TEST(QDAsyncUrlOptionRows, AnyauthLogsInByDigest)
{
    const DigestServer server;
    server.WriteFile("f.txt", "welcome");
    OperatorRequest request(server.GetUrl("/f.txt"), "--anyauth");
    request->SetUserPassword("u:p");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetReply(), "welcome");
}

TEST(QDAsyncUrlOptionRows, AnyauthLogsInByBasic)
{
    const NginxServer server;
    server.WriteFile("f.txt", "welcome");
    OperatorRequest request(server.GetUrl("/private/f.txt"), "--anyauth");
    request->SetUserPassword("u:p");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetReply(), "welcome");
}

TEST(QDAsyncUrlOptionRows, AppendLengthensTheFile)
{
    const FtpServer server;
    server.WriteFile("f.txt", "one ");
    OperatorRequest request(server.GetUrl("/f.txt"), "--append");
    request->SetUserPassword("u:p");
    request.Upload("two");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(server.ReadFile("f.txt"), "one two");
    EXPECT_THAT(server.GetPrinted(), AllOf(HasSubstr("APPE f.txt\n"), Not(HasSubstr("STOR"))));
}

// Basic is what libcurl does by itself. What the option adds shows beside another one, which takes its place.
TEST(QDAsyncUrlOptionRows, BasicLogsIn)
{
    const NginxServer server;
    server.WriteFile("f.txt", "welcome");
    OperatorRequest basic(server.GetUrl("/private/f.txt"), "--basic");
    OperatorRequest digest(server.GetUrl("/private/f.txt"), "--digest");
    OperatorRequest both(server.GetUrl("/private/f.txt"), "--digest --basic");
    for (OperatorRequest* request : {&basic, &digest, &both})
        (*request)->SetUserPassword("u:p");

    EXPECT_EQ(basic->EasyPerform(), CURLE_OK);
    EXPECT_EQ(digest->EasyPerform(), CURLE_HTTP_RETURNED_ERROR);
    EXPECT_EQ(both->EasyPerform(), CURLE_OK);

    EXPECT_EQ(basic->GetReply(), "welcome");
    EXPECT_EQ(digest->GetResponseCode(), 401);
    EXPECT_EQ(both->GetReply(), "welcome");
}

TEST(QDAsyncUrlOptionRows, BasicAloneDoesNotLogInByDigest)
{
    const DigestServer server;
    server.WriteFile("f.txt", "welcome");
    OperatorRequest request(server.GetUrl("/f.txt"), "--basic");
    request->SetUserPassword("u:p");

    EXPECT_EQ(request->EasyPerform(), CURLE_HTTP_RETURNED_ERROR);

    EXPECT_EQ(request->GetResponseCode(), 401);
}

TEST(QDAsyncUrlOptionRows, CiphersAreTheOnesThatTheClientOffers)
{
    const CertificateAuthority authority;
    const NginxServer server(&authority);
    for (const auto* cipher : {"ECDHE-ECDSA-AES128-GCM-SHA256", "ECDHE-ECDSA-CHACHA20-POLY1305"}) {
        SCOPED_TRACE(cipher);
        OperatorRequest request(server.GetUrl("/seen"), "--ciphers "s + cipher);
        request.SetOption(CURLOPT_CAINFO, authority.GetCertificateFile().c_str());
        request.SetOption(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_MAX_TLSv1_2}); // a list is for TLS up to 1.2

        EXPECT_EQ(request->EasyPerform(), CURLE_OK);

        EXPECT_THAT(request->GetReply(), HasSubstr("\nprotocol: TLSv1.2\ncipher: "s + cipher + '\n'));
    }
}

TEST(QDAsyncUrlOptionRows, UnknownCiphersEndTheTransfer)
{
    const CertificateAuthority authority;
    const NginxServer server(&authority);
    OperatorRequest request(server.GetUrl("/seen"), "--ciphers nonsense");
    request.SetOption(CURLOPT_CAINFO, authority.GetCertificateFile().c_str());

    EXPECT_EQ(request->EasyPerform(), CURLE_SSL_CIPHER);
}

TEST(QDAsyncUrlOptionRows, ConnectTimeoutEndsTheAttemptAfterSeconds)
{
    const DeafListener listener;
    OperatorRequest request(listener.GetUrl(), "--connect-timeout 1");

    EXPECT_EQ(request->EasyPerform(), CURLE_OPERATION_TIMEDOUT);

    EXPECT_EQ(GetTime(request, CURLINFO_CONNECT_TIME_T), 0);
    EXPECT_GE(GetTime(request, CURLINFO_TOTAL_TIME_T), 990'000);
    EXPECT_LT(GetTime(request, CURLINFO_TOTAL_TIME_T), 15'000'000);
}

TEST(QDAsyncUrlOptionRows, ConnectTimeoutDoesNotCountTheTransfer)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/slow/1.2"), "--connect-timeout 1");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetReply(), "late\n");
}

TEST(QDAsyncUrlOptionRows, CrlfEndsTheLinesOfAnUpload)
{
    const FtpServer server;
    OperatorRequest with(server.GetUrl("/with.txt"), "--crlf");
    OperatorRequest without(server.GetUrl("/without.txt"));
    for (OperatorRequest* request : {&with, &without}) {
        (*request)->SetUserPassword("u:p");
        request->Upload("one\ntwo\n");

        EXPECT_EQ((*request)->EasyPerform(), CURLE_OK);
    }

    EXPECT_EQ(server.ReadFile("with.txt"), "one\r\ntwo\r\n");
    EXPECT_EQ(server.ReadFile("without.txt"), "one\ntwo\n");
}

TEST(QDAsyncUrlOptionRows, DigestLogsIn)
{
    const DigestServer server;
    server.WriteFile("f.txt", "welcome");
    OperatorRequest request(server.GetUrl("/f.txt"), "--digest");
    request->SetUserPassword("u:p");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetReply(), "welcome");
}

TEST(QDAsyncUrlOptionRows, DisallowUsernameInUrlRefusesOne)
{
    const NginxServer server;
    const std::string url = "http://u:p@" + server.GetAddress() + "/seen";
    OperatorRequest with(url, "--disallow-username-in-url");
    OperatorRequest without(url);

    EXPECT_EQ(with->EasyPerform(), CURLE_LOGIN_DENIED);
    EXPECT_EQ(without->EasyPerform(), CURLE_OK);

    EXPECT_EQ(with->GetReply(), "");
    EXPECT_THAT(without->GetReply(), HasSubstr(Authorization("Basic dTpw\n")));
}

TEST(QDAsyncUrlOptionRows, FtpPortNamesTheAddressForTheServerToConnectTo)
{
    const struct
    {
        const char* m_pValue;
        const char* m_pCommand;
    } cases[] = {
        {"127.0.0.2", "EPRT |1|127.0.0.2|"},
        {"127.0.0.1", "EPRT |1|127.0.0.1|"},
        {"lo", "EPRT |1|127.0.0.1|"},
    };

    const FtpServer server;
    server.WriteFile("f.txt", "content");
    for (const auto& row : cases) {
        SCOPED_TRACE(row.m_pValue);
        const std::size_t printedBefore = server.GetPrinted().size();
        OperatorRequest request(server.GetUrl("/f.txt"), "--ftp-port "s + row.m_pValue);
        request->SetUserPassword("u:p");

        EXPECT_EQ(request->EasyPerform(), CURLE_OK);

        EXPECT_EQ(request->GetReply(), "content");
        EXPECT_THAT(server.GetPrinted().substr(printedBefore),
                    AllOf(HasSubstr(row.m_pCommand), Not(HasSubstr("EPSV"))));
    }
}

TEST(QDAsyncUrlOptionRows, FtpPretAnnouncesTheTransfer)
{
    const FtpServer server;
    OperatorRequest with(server.GetUrl("/f.txt"), "--ftp-pret");
    OperatorRequest without(server.GetUrl("/f.txt"));
    with->SetUserPassword("u:p");
    with.Upload("content");
    without->SetUserPassword("u:p");

    EXPECT_EQ(with->EasyPerform(), CURLE_OK);
    const std::string printedWith = server.GetPrinted();
    EXPECT_EQ(without->EasyPerform(), CURLE_OK);

    EXPECT_EQ(without->GetReply(), "content");
    EXPECT_THAT(printedWith, HasSubstr("\nPRET STOR f.txt\nEPSV\n"));
    EXPECT_THAT(server.GetPrinted().substr(printedWith.size()), AllOf(HasSubstr("EPSV\n"), Not(HasSubstr("PRET"))));
}

// The client says it to a server only to which it has logged in.
TEST(QDAsyncUrlOptionRows, MailAuthNamesTheFirstSender)
{
    const MailServer server;
    OperatorRequest request(server.GetUrl(),
                            "--mail-from a@example.com --mail-rcpt b@example.com --mail-auth c@example.com");
    request->SetUserPassword("u:p");
    request.Upload(kMail);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_THAT(server.GetPrinted(), StartsWith("MAIL FROM:<a@example.com> AUTH=<c@example.com>"));
}

TEST(QDAsyncUrlOptionRows, MailFromNamesTheSender)
{
    const MailServer server;
    OperatorRequest request(server.GetUrl(), "--mail-from a@example.com --mail-rcpt b@example.com");
    request.Upload(kMail);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_THAT(server.GetPrinted(), AllOf(StartsWith("MAIL FROM:<a@example.com> "), Not(HasSubstr("AUTH="))));
    EXPECT_THAT(server.GetPrinted(), HasSubstr("\nDATA\nSubject: alarm\r\n\r\nTank 3 is full.\r\n\n.\n"));
}

TEST(QDAsyncUrlOptionRows, EachMailRcptIsARecipientInItsOrder)
{
    const MailServer server;
    OperatorRequest request(server.GetUrl(), "--mail-rcpt c@example.com --mail-from a@example.com "
                                             "--mail-rcpt b@example.com --mail-rcpt 'd@example.com'");
    request.Upload(kMail);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_THAT(server.GetPrinted(),
                HasSubstr("\nRCPT TO:<c@example.com>\nRCPT TO:<b@example.com>\nRCPT TO:<d@example.com>\nDATA\n"));
}

TEST(QDAsyncUrlOptionRows, MaxTimeEndsTheTransferAfterSeconds)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/slow/15"), "--max-time 1");

    EXPECT_EQ(request->EasyPerform(), CURLE_OPERATION_TIMEDOUT);

    EXPECT_GT(GetTime(request, CURLINFO_CONNECT_TIME_T), 0);
    EXPECT_GE(GetTime(request, CURLINFO_TOTAL_TIME_T), 990'000);
    EXPECT_LT(GetTime(request, CURLINFO_TOTAL_TIME_T), 15'000'000);
}

// Only a Kerberos realm can show a login. Without a ticket libcurl has nothing to say to a server that offers
// Negotiate, to which it gives way to no other scheme: so the login fails that succeeds without the option.
TEST(QDAsyncUrlOptionRows, NegotiateIsPreferredToBasic)
{
    const ScopedVariable noTicket("KRB5CCNAME", "FILE:/nonexistent");
    const NginxServer server;
    OperatorRequest with(server.GetUrl("/choice?Basic,Negotiate"), "--basic --negotiate");
    OperatorRequest without(server.GetUrl("/choice?Basic,Negotiate"), "--basic");
    OperatorRequest notOffered(server.GetUrl("/choice?Basic,Digest,NTLM"), "--basic --negotiate");
    for (OperatorRequest* request : {&with, &without, &notOffered})
        (*request)->SetUserPassword("u:p");

    EXPECT_EQ(with->EasyPerform(), CURLE_HTTP_RETURNED_ERROR);
    EXPECT_EQ(without->EasyPerform(), CURLE_OK);
    EXPECT_EQ(notOffered->EasyPerform(), CURLE_OK);

    EXPECT_EQ(with->GetResponseCode(), 401);
    EXPECT_THAT(without->GetReply(), HasSubstr(Authorization("Basic dTpw\n")));
    EXPECT_THAT(notOffered->GetReply(), HasSubstr(Authorization("Basic dTpw\n")));
}

// A domain's server is needed for the rest of the exchange; the first message shows the scheme.
TEST(QDAsyncUrlOptionRows, NtlmOpensTheExchange)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/choice?NTLM"), "--ntlm");
    request->SetUserPassword("u:p");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    // "NTLMSSP", NUL and the start of the message type 1 in base 64.
    EXPECT_THAT(request->GetReply(), HasSubstr(Authorization("NTLM TlRMTVNTUAAB")));
}

// libcurl leaves this exchange to a program of Samba's. Without it there is nothing for a server to see, and the
// transfer fails as it does with no other scheme.
TEST(QDAsyncUrlOptionRows, NtlmWbAsksAnotherProgram)
{
    if (::access("/usr/bin/ntlm_auth", F_OK) == 0)
        GTEST_SKIP() << "/usr/bin/ntlm_auth is installed, and what it says depends on this machine's domain.";
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/choice?NTLM"), "--ntlm-wb");
    request->SetUserPassword("u:p");

    EXPECT_EQ(request->EasyPerform(), CURLE_REMOTE_ACCESS_DENIED);

    EXPECT_EQ(request->GetResponseCode(), 0);
}

TEST(QDAsyncUrlOptionRows, Oauth2BearerSendsTheToken)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/seen"), "--oauth2-bearer dG9rZW4");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_THAT(request->GetReply(), HasSubstr(Authorization("Bearer dG9rZW4\n")));
}

TEST(QDAsyncUrlOptionRows, PathAsIsKeepsDots)
{
    const NginxServer server;
    OperatorRequest with(server.GetUrl("/a/.././seen"), "--path-as-is");
    OperatorRequest without(server.GetUrl("/a/.././seen"));

    EXPECT_EQ(with->EasyPerform(), CURLE_OK);
    EXPECT_EQ(without->EasyPerform(), CURLE_OK);

    EXPECT_THAT(with->GetReply(), HasSubstr("\nuri: /a/.././seen\n"));
    EXPECT_THAT(without->GetReply(), HasSubstr("\nuri: /seen\n"));
}

TEST(QDAsyncUrlOptionRows, EachPost30xKeepsThePostOverItsRedirectOnly)
{
    const struct
    {
        const char* m_pOptions;
        const char* m_pPath;
        bool m_StaysPost;
    } cases[] = {
        {"", "/301", false},
        {"", "/302", false},
        {"", "/303", false},
        {"--post301", "/301", true},
        {"--post301", "/302", false},
        {"--post301", "/303", false},
        {"--post302", "/301", false},
        {"--post302", "/302", true},
        {"--post302", "/303", false},
        {"--post303", "/301", false},
        {"--post303", "/302", false},
        {"--post303", "/303", true},
        {"--post301 --post303", "/301", true},
        {"--post301 --post303", "/302", false},
        {"--post301 --post303", "/303", true},
    };

    const unsigned char json[] = {'{', '}'};
    const NginxServer server;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.m_pOptions + " "s + row.m_pPath);
        OperatorRequest request(server.GetUrl(row.m_pPath), row.m_pOptions);
        request.SetOption(CURLOPT_FOLLOWLOCATION, 1L);
        ASSERT_TRUE(request->SetPostJSON(json, sizeof json));

        EXPECT_EQ(request->EasyPerform(), CURLE_OK);

        EXPECT_THAT(request->GetReply(), StartsWith(row.m_StaysPost ? "method: POST\n" : "method: GET\n"));
        EXPECT_THAT(request->GetReply(), EndsWith(row.m_StaysPost ? "\n\n{}" : "\n\n"));
    }
}

TEST(QDAsyncUrlOptionRows, ProtoDefaultServesAUrlWithoutAScheme)
{
    const FtpServer server;
    server.WriteFile("f.txt", "content");
    OperatorRequest request(server.GetAddress() + "/f.txt", "--proto-default ftp");
    request->SetUserPassword("u:p");

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetReply(), "content");
}

TEST(QDAsyncUrlOptionRows, ProxyIsAskedInstead)
{
    const NginxServer server;
    const ProxyServer proxy;
    OperatorRequest with(server.GetUrl("/seen"), "--proxy http://u:p@" + proxy.GetAddress());
    OperatorRequest without(server.GetUrl("/seen"));

    EXPECT_EQ(with->EasyPerform(), CURLE_OK);
    EXPECT_EQ(without->EasyPerform(), CURLE_OK);

    EXPECT_THAT(with->GetReply(), HasSubstr("\nvia: 1.1 qd-proxy "));
    EXPECT_THAT(without->GetReply(), HasSubstr("\nvia: \n"));
}

// Data in the first packet takes a server that the administrator lets take it. What is left is the client's socket.
TEST(QDAsyncUrlOptionRows, TcpFastopenIsSetOnTheSocket)
{
    const struct
    {
        const char* m_pOptions;
        int m_Value;
    } cases[] = {{"", 0}, {"--tcp-fastopen", 1}};

    // The lowest bit is the clients'.
    if (std::strtol(ReadFileText("/proc/sys/net/ipv4/tcp_fastopen").c_str(), nullptr, 10) % 2 == 0)
        GTEST_SKIP() << "The administrator does not let clients use it (net.ipv4.tcp_fastopen).";
    const NginxServer server;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.m_pOptions);
        OperatorRequest request(server.GetUrl("/seen"), row.m_pOptions);

        EXPECT_EQ(request->EasyPerform(), CURLE_OK);

        EXPECT_THAT(request->GetReply(), StartsWith("method: GET\n"));
        curl_socket_t socket = CURL_SOCKET_BAD;
        EXPECT_EQ(curl_easy_getinfo(request->GetCurlHandle(), CURLINFO_ACTIVESOCKET, &socket), CURLE_OK);
        int value = -1;
        socklen_t length = sizeof value;
        EXPECT_EQ(::getsockopt(socket, IPPROTO_TCP, TCP_FASTOPEN_CONNECT, &value, &length), 0);
        EXPECT_EQ(value, row.m_Value);
    }
}

TEST(QDAsyncUrlOptionRows, TftpNoOptionsLeavesThemOutOfTheRequest)
{
    const SilentUdpServer silent;
    OperatorRequest with("tftp://" + silent.GetAddress() + "/f.txt", "--tftp-no-options");
    with->SetTimeoutMS(500);

    EXPECT_EQ(with->EasyPerform(), CURLE_OPERATION_TIMEDOUT);

    EXPECT_EQ(silent.GetDatagram(), "\0\1f.txt\0octet\0"s);
}

TEST(QDAsyncUrlOptionRows, TftpTransfersWithOptionsAndWithout)
{
    const TftpServer server;
    server.WriteFile("f.txt", "content");
    OperatorRequest with(server.GetUrl("/f.txt"), "--tftp-no-options");
    OperatorRequest without(server.GetUrl("/f.txt"));

    EXPECT_EQ(with->EasyPerform(), CURLE_OK);
    EXPECT_EQ(with->GetReply(), "content");
    EXPECT_THAT(server.GetPrinted(), AllOf(HasSubstr("Serving f.txt"), Not(HasSubstr("tsize option -> "))));

    EXPECT_EQ(without->EasyPerform(), CURLE_OK);
    EXPECT_EQ(without->GetReply(), "content");
    EXPECT_THAT(server.GetPrinted(), HasSubstr("tsize option -> 7\n"));
}
