#pragma once

#include <QDPlatform/QDAsyncUrlRequest.h>
#include <QDPlatform/QDAsyncUrlRequestOptions.h>
#include <QDPlatform/QDLocale.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

// A request with the options that an operator wrote, which outlive it as they must. It heeds no proxy variables of the
// environment, and ends after 20 s unless an option says otherwise.
class OperatorRequest
{
public:
    explicit OperatorRequest(const std::string& url, const std::string& options = "")
    {
        EXPECT_TRUE(m_Request.SetURL(url.c_str()));
        EXPECT_TRUE(m_Request.SetTimeoutMS(20000));
        SetOption(CURLOPT_PROXY, "");
        SetOption(CURLOPT_NOPROXY, "");
        std::string error;
        EXPECT_TRUE(m_Options.ParseCurlOptions(CQDLocale(), options, error)) << error;
        EXPECT_TRUE(m_Options.ApplyOptionsToRequest(&m_Request));
    }

    // Sets an option for which operators have no name.
    template<class Value>
    void SetOption(CURLoption option, Value value)
    {
        EXPECT_EQ(curl_easy_setopt(m_Request.GetCurlHandle(), option, value), CURLE_OK);
    }

    void Upload(const std::string& content)
    {
        auto* data = new unsigned char[content.size()];
        std::copy(content.begin(), content.end(), data);
        EXPECT_TRUE(m_Request.SetUploadContent(data, static_cast<unsigned int>(content.size())));
    }

    QDAsyncUrlRequest* operator->() { return &m_Request; }

private:
    QDAsyncUrlRequestOptions m_Options;
    QDAsyncUrlRequest m_Request;
};
