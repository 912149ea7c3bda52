#include "PeerUrl.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

namespace
{

using Url = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

Url MakeUrl()
{
    return {curl_url(), &curl_url_cleanup};
}

// Empty when the URL has no such part.
std::string PartOf(const Url& url, CURLUPart part)
{
    char* text = nullptr;
    curl_url_get(url.get(), part, &text, 0);
    const std::string copy = text == nullptr ? "" : text;
    curl_free(text);
    return copy;
}

bool IsVisible(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte > 0x20 && byte < 0x7F;
}

} // namespace

std::string WhatIsWrongWithUrl(const std::string& url)
{
    if (url.size() > kMaximumUrlLength)
        return "takes a URL of at most " + std::to_string(kMaximumUrlLength) + " bytes";
    if (!std::ranges::all_of(url, &IsVisible))
        return "needs a URL of ASCII characters without blanks; others are written %20 and so on";
    const std::string needsScheme = "needs a URL that begins with http:// or https://";
    const std::size_t scheme = url.find("://");
    if (scheme == std::string::npos)
        return needsScheme;
    const std::size_t authority = scheme + 3;
    // Rather a password that has one of these signs than a path that has this one.
    if (url.find('@', std::min(url.find_first_of("/?#", authority), url.size())) != std::string::npos)
        return "needs a URL without an @ behind /, ? or #; write %40, and in a password %2F, %3F or %23";
    const Url parsed = MakeUrl();
    const CURLUcode result = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0);
    const std::string protocol = PartOf(parsed, CURLUPART_SCHEME);
    if (result == CURLUE_BAD_SCHEME || result == CURLUE_UNSUPPORTED_SCHEME ||
        (result == CURLUE_OK && protocol != "http" && protocol != "https"))
        return needsScheme;
    if (result == CURLUE_NO_HOST || url.substr(authority, 1) == "/") // libcurl would take the path for the host
        return "needs a URL that names a host";
    return result == CURLUE_OK ? "" : std::string("needs another URL: ") + curl_url_strerror(result);
}

std::string NameOfPeer(const std::string& url)
{
    const Url parsed = MakeUrl();
    if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
        return "";
    for (const CURLUPart part : {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_QUERY, CURLUPART_FRAGMENT})
        curl_url_set(parsed.get(), part, nullptr, 0);
    return PartOf(parsed, CURLUPART_URL);
}
