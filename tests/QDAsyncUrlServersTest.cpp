// What servers that others wrote make of a request's own settings.
#include "OperatorRequest.h"
#include "RealServers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace
{

using namespace std::string_literals;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// All byte values, so long that it goes over the line in several pieces.
std::string ManyBytes()
{
    std::string bytes;
    for (int i = 0; i < 300'000; ++i)
        bytes += static_cast<char>(i % 251);
    return bytes;
}

} // namespace

TEST(QDAsyncUrlServers, HttpGetGivesTheContent)
{
    const std::string content = ManyBytes();
    const NginxServer server;
    server.WriteFile("f.bin", content);
    OperatorRequest request(server.GetUrl("/files/f.bin"));

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetResponseCode(), 200);
    EXPECT_TRUE(request->GetReply() == content);
}

TEST(QDAsyncUrlServers, HttpStatus404FailsTheTransfer)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/files/missing"));

    const CURLcode result = request->EasyPerform();
    request->SetCurlResultCode(result);

    EXPECT_EQ(result, CURLE_HTTP_RETURNED_ERROR);
    EXPECT_EQ(request->GetResponseCode(), 404);
    EXPECT_EQ(request->GetReply(), "");
    EXPECT_STRNE(request->GetErrorText(), "");
}

TEST(QDAsyncUrlServers, UserPasswordLogsInToHttp)
{
    const struct
    {
        const char* m_pName;
        const char* m_pUserPassword; // null: none
        CURLcode m_Result;
        long m_ResponseCode;
        const char* m_pReply;
    } cases[] = {
        {"right", "u:p", CURLE_OK, 200, "welcome"},
        {"wrong", "u:wrong", CURLE_HTTP_RETURNED_ERROR, 401, ""},
        {"none", nullptr, CURLE_HTTP_RETURNED_ERROR, 401, ""},
    };

    const NginxServer server;
    server.WriteFile("f.txt", "welcome");
    for (const auto& row : cases) {
        SCOPED_TRACE(row.m_pName);
        OperatorRequest request(server.GetUrl("/private/f.txt"));
        request->SetUserPassword(row.m_pUserPassword);

        EXPECT_EQ(request->EasyPerform(), row.m_Result);

        EXPECT_EQ(request->GetResponseCode(), row.m_ResponseCode);
        EXPECT_EQ(request->GetReply(), row.m_pReply);
    }
}

TEST(QDAsyncUrlServers, WrongFtpPasswordIsDenied)
{
    const FtpServer server;
    OperatorRequest request(server.GetUrl("/f.txt"));
    request->SetUserPassword("u:wrong");

    EXPECT_EQ(request->EasyPerform(), CURLE_LOGIN_DENIED);

    EXPECT_EQ(request->GetResponseCode(), 530);
}

TEST(QDAsyncUrlServers, PostJsonArrivesWithTypeLengthAndExactBody)
{
    const unsigned char body[] = {'{', '"', 'a', '"', ':', '"', 0, '"', '}', 'X', 'X'};
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/seen"));
    ASSERT_TRUE(request->SetPostJSON(body, 9));

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_THAT(request->GetReply(), AllOf(StartsWith("method: POST\nuri: /seen\n"),
                                           HasSubstr("\ncontent-type: application/json\ncontent-length: 9\n"),
                                           EndsWith("\n\n{\"a\":\"\0\"}"s)));
}

TEST(QDAsyncUrlServers, PostJsonIsSentWholeAfterAChallenge)
{
    const unsigned char body[] = {'{', '"', 'a', '"', ':', '1', '}'};
    for (const char* scheme : {"Basic", "Digest"}) {
        SCOPED_TRACE(scheme);
        const NginxServer server;
        OperatorRequest request(server.GetUrl("/choice?"s + scheme), "--anyauth");
        request->SetUserPassword("u:p");
        ASSERT_TRUE(request->SetPostJSON(body, sizeof body));

        EXPECT_EQ(request->EasyPerform(), CURLE_OK);

        EXPECT_THAT(request->GetReply(),
                    AllOf(StartsWith("method: POST\n"), HasSubstr("\nauthorization: "s + scheme + ' '),
                          HasSubstr("\ncontent-type: application/json\ncontent-length: 7\n"),
                          EndsWith("\n\n{\"a\":1}")));
    }
}

TEST(QDAsyncUrlServers, UploadBecomesAFile)
{
    const std::string content = ManyBytes();
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/files/f.bin"));
    request.Upload(content);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetResponseCode(), 201);
    EXPECT_TRUE(server.ReadFile("f.bin") == content);
}

TEST(QDAsyncUrlServers, UploadStartsAnewAfterARedirect)
{
    const std::string content = ManyBytes();
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/307/f.bin"));
    request.SetOption(CURLOPT_FOLLOWLOCATION, 1L);
    request.Upload(content);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetResponseCode(), 201);
    EXPECT_TRUE(server.ReadFile("f.bin") == content);
}

TEST(QDAsyncUrlServers, UploadStartsAnewAfterAChallenge)
{
    const std::string content = ManyBytes();
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/private/f.bin"), "--anyauth");
    request->SetUserPassword("u:p");
    request.Upload(content);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetResponseCode(), 201);
    EXPECT_TRUE(server.ReadFile("f.bin") == content);
}

TEST(QDAsyncUrlServers, UploadToFtpBecomesAFile)
{
    const std::string content = ManyBytes();
    const FtpServer server;
    OperatorRequest request(server.GetUrl("/f.bin"));
    request->SetUserPassword("u:p");
    request.Upload(content);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_TRUE(server.ReadFile("f.bin") == content);
    EXPECT_THAT(server.GetPrinted(), HasSubstr("STOR f.bin\n"));
}

TEST(QDAsyncUrlServers, ProxyServerIsAskedInstead)
{
    const NginxServer server;
    const ProxyServer proxy;
    OperatorRequest request(server.GetUrl("/seen"));
    ASSERT_TRUE(request->SetProxyServer("http://u:p@" + proxy.GetAddress()));

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_THAT(request->GetReply(), HasSubstr("\nvia: 1.1 qd-proxy "));
    EXPECT_THAT(proxy.GetPrinted(), HasSubstr("Established connection"));
}

TEST(QDAsyncUrlServers, ProxyRefusesAStranger)
{
    const NginxServer server;
    const ProxyServer proxy;
    OperatorRequest request(server.GetUrl("/seen"));
    ASSERT_TRUE(request->SetProxyServer(proxy.GetAddress()));

    EXPECT_EQ(request->EasyPerform(), CURLE_HTTP_RETURNED_ERROR);

    EXPECT_EQ(request->GetResponseCode(), 407);
    EXPECT_THAT(proxy.GetPrinted(), Not(HasSubstr("Established connection")));
}

// This proxy answers a wrong password with 401.
TEST(QDAsyncUrlServers, ProxyRefusesAWrongPassword)
{
    const NginxServer server;
    const ProxyServer proxy;
    OperatorRequest request(server.GetUrl("/seen"));
    ASSERT_TRUE(request->SetProxyServer("http://u:wrong@" + proxy.GetAddress()));

    EXPECT_EQ(request->EasyPerform(), CURLE_HTTP_RETURNED_ERROR);

    EXPECT_EQ(request->GetResponseCode(), 401);
}

TEST(QDAsyncUrlServers, TlsNeedsATrustedAuthority)
{
    const CertificateAuthority trusted;
    const CertificateAuthority other;
    const NginxServer server(&trusted);
    OperatorRequest right(server.GetUrl("/seen"));
    OperatorRequest wrong(server.GetUrl("/seen"));
    right.SetOption(CURLOPT_CAINFO, trusted.GetCertificateFile().c_str());
    wrong.SetOption(CURLOPT_CAINFO, other.GetCertificateFile().c_str());

    EXPECT_EQ(right->EasyPerform(), CURLE_OK);
    EXPECT_EQ(wrong->EasyPerform(), CURLE_PEER_FAILED_VERIFICATION);

    EXPECT_THAT(right->GetReply(), HasSubstr("\nprotocol: TLSv1."));
    EXPECT_EQ(wrong->GetReply(), "");
}

TEST(QDAsyncUrlServers, UrlIsTheLastOneAfterRedirects)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/302"));
    request.SetOption(CURLOPT_FOLLOWLOCATION, 1L);

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    std::string url;
    request->GetURL(url);
    EXPECT_EQ(url, server.GetUrl("/seen"));
}

TEST(QDAsyncUrlServers, RedirectsAreNotFollowedUnasked)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/302"));

    EXPECT_EQ(request->EasyPerform(), CURLE_OK);

    EXPECT_EQ(request->GetResponseCode(), 302);
}

TEST(QDAsyncUrlServers, TimeoutEndsTheTransferAfterMilliseconds)
{
    const NginxServer server;
    OperatorRequest request(server.GetUrl("/slow/15"));
    ASSERT_TRUE(request->SetTimeoutMS(200));

    EXPECT_EQ(request->EasyPerform(), CURLE_OPERATION_TIMEDOUT);

    EXPECT_EQ(request->GetResponseCode(), 0);
}

TEST(QDAsyncUrlServers, MissingTftpFileIsToldApart)
{
    const TftpServer server;
    OperatorRequest request(server.GetUrl("/missing"));

    EXPECT_EQ(request->EasyPerform(), CURLE_TFTP_NOTFOUND);
}
