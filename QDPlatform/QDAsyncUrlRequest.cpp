#include <QDPlatform/QDAsyncUrlRequest.h>

#include <QDPlatform/QDString.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace
{

constexpr unsigned int kContentLengthCapacity = 64;
constexpr unsigned int kUrlCapacity = 512;

// What the write callback returns for an exception. No length, so that libcurl takes it for a failed write also when
// it calls with nothing to write.
constexpr size_t kWriteFailed = ~size_t{0};

// Null when there is no memory.
curl_slist* MakeJsonHeaders(unsigned int length)
{
    char contentLength[kContentLengthCapacity];
    qd_sprintf(contentLength, sizeof contentLength, "Content-Length: %u", length);
    curl_slist* contentType = curl_slist_append(nullptr, "Content-Type: application/json");
    if (contentType == nullptr)
        return nullptr;
    curl_slist* headers = curl_slist_append(contentType, contentLength);
    if (headers == nullptr)
        curl_slist_free_all(contentType);
    return headers;
}

} // namespace

QDAsyncUrlRequest::QDAsyncUrlRequest() : m_pCurl(curl_easy_init())
{
    curl_easy_setopt(m_pCurl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_pCurl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(m_pCurl, CURLOPT_ERRORBUFFER, m_ErrorText);
    curl_easy_setopt(m_pCurl, CURLOPT_WRITEFUNCTION, &WriteFileChunk);
    curl_easy_setopt(m_pCurl, CURLOPT_WRITEDATA, this);
}

QDAsyncUrlRequest::~QDAsyncUrlRequest()
{
    delete[] m_pUploadContent;
    curl_slist_free_all(m_pHeaders);
    curl_easy_cleanup(m_pCurl);
}

unsigned int QDAsyncUrlRequest::OnWriteReply(char* data, unsigned int length)
{
    m_Reply.append(data, length);
    return length;
}

bool QDAsyncUrlRequest::SetURL(const char* url)
{
    return curl_easy_setopt(m_pCurl, CURLOPT_URL, url) == CURLE_OK;
}

void QDAsyncUrlRequest::GetURL(std::string& url) const
{
    url.clear();
    const char* effectiveUrl = nullptr;
    if (curl_easy_getinfo(m_pCurl, CURLINFO_EFFECTIVE_URL, &effectiveUrl) != CURLE_OK || effectiveUrl == nullptr)
        return;
    qdchar text[kUrlCapacity];
    qd_strcpy(text, sizeof text, effectiveUrl);
    url = text;
}

bool QDAsyncUrlRequest::SetTimeoutMS(long ms)
{
    return curl_easy_setopt(m_pCurl, CURLOPT_TIMEOUT_MS, ms) == CURLE_OK;
}

bool QDAsyncUrlRequest::SetUserPassword(const char* userColonPassword)
{
    if (curl_easy_setopt(m_pCurl, CURLOPT_USERPWD, userColonPassword) == CURLE_OK)
        return true;
    // Unlike other texts, libcurl keeps the old ones; they must not go out in the place of those that it refused.
    curl_easy_setopt(m_pCurl, CURLOPT_USERPWD, nullptr);
    return false;
}

bool QDAsyncUrlRequest::SetProxyServer(const std::string& proxy)
{
    // qdchar text is the UTF-8 that libcurl expects.
    return proxy.empty() || curl_easy_setopt(m_pCurl, CURLOPT_PROXY, proxy.c_str()) == CURLE_OK;
}

bool QDAsyncUrlRequest::SetPostJSON(const unsigned char* data, unsigned int length)
{
    // Without a body libcurl would read one from the standard input.
    const void* body = data != nullptr ? static_cast<const void*>(data) : "";
    const unsigned int bodyLength = data != nullptr ? length : 0;
    curl_slist* headers = MakeJsonHeaders(bodyLength);
    if (headers == nullptr)
        return false;
    // CURLOPT_POST also takes back an earlier CURLOPT_UPLOAD.
    const bool isPost =
        curl_easy_setopt(m_pCurl, CURLOPT_POST, 1L) == CURLE_OK &&
        curl_easy_setopt(m_pCurl, CURLOPT_POSTFIELDS, body) == CURLE_OK &&
        curl_easy_setopt(m_pCurl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(bodyLength)) == CURLE_OK;
    return ReplaceHeaders(headers) && isPost;
}

bool QDAsyncUrlRequest::SetUploadContent(unsigned char* data, unsigned int length)
{
    delete[] m_pUploadContent;
    m_pUploadContent = data;
    m_UploadLength = data != nullptr ? length : 0;
    m_UploadPosition = 0;
    if (m_pHeaders != nullptr) {
        // They are the POST's. With its body still set, libcurl would not rewind the upload.
        curl_easy_setopt(m_pCurl, CURLOPT_POSTFIELDS, nullptr);
        ReplaceHeaders(nullptr);
    }
    return curl_easy_setopt(m_pCurl, CURLOPT_UPLOAD, 1L) == CURLE_OK &&
           curl_easy_setopt(m_pCurl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(m_UploadLength)) == CURLE_OK &&
           curl_easy_setopt(m_pCurl, CURLOPT_READFUNCTION, &ReadFileChunk) == CURLE_OK &&
           curl_easy_setopt(m_pCurl, CURLOPT_READDATA, this) == CURLE_OK &&
           curl_easy_setopt(m_pCurl, CURLOPT_SEEKFUNCTION, &SeekFileChunk) == CURLE_OK &&
           curl_easy_setopt(m_pCurl, CURLOPT_SEEKDATA, this) == CURLE_OK;
}

CURLcode QDAsyncUrlRequest::EasyPerform()
{
    return curl_easy_perform(m_pCurl);
}

void QDAsyncUrlRequest::SetCurlResultCode(CURLcode code)
{
    m_CurlResultCode = code;
    if (m_ErrorText[0] != '\0')
        return;
    if (code == CURLE_LOGIN_DENIED)
        qd_strcpy(m_ErrorText, sizeof m_ErrorText, "The remote server denied curl to login");
    if (code == CURLE_URL_MALFORMAT)
        qd_strcpy(m_ErrorText, sizeof m_ErrorText, "No URL set!");
}

long QDAsyncUrlRequest::GetResponseCode() const
{
    long code = 0;
    curl_easy_getinfo(m_pCurl, CURLINFO_RESPONSE_CODE, &code);
    return code;
}

size_t QDAsyncUrlRequest::WriteFileChunk(char* ptr, size_t size, size_t nmemb, void* request)
{
    // libcurl is C: an exception must not pass through it.
    try {
        return static_cast<QDAsyncUrlRequest*>(request)->OnWriteReply(ptr, static_cast<unsigned int>(size * nmemb));
    } catch (...) {
        return kWriteFailed;
    }
}

size_t QDAsyncUrlRequest::ReadFileChunk(char* buffer, size_t size, size_t nmemb, void* request)
{
    auto* self = static_cast<QDAsyncUrlRequest*>(request);
    const size_t count = std::min<size_t>(size * nmemb, self->m_UploadLength - self->m_UploadPosition);
    if (count != 0)
        std::memcpy(buffer, self->m_pUploadContent + self->m_UploadPosition, count);
    self->m_UploadPosition += static_cast<unsigned int>(count);
    return count;
}

int QDAsyncUrlRequest::SeekFileChunk(void* request, curl_off_t offset, int origin)
{
    auto* self = static_cast<QDAsyncUrlRequest*>(request);
    if (origin != SEEK_SET || offset < 0 || offset > static_cast<curl_off_t>(self->m_UploadLength))
        return CURL_SEEKFUNC_FAIL;
    self->m_UploadPosition = static_cast<unsigned int>(offset);
    return CURL_SEEKFUNC_OK;
}

bool QDAsyncUrlRequest::ReplaceHeaders(curl_slist* headers)
{
    const CURLcode result = curl_easy_setopt(m_pCurl, CURLOPT_HTTPHEADER, headers);
    curl_slist_free_all(m_pHeaders);
    m_pHeaders = headers;
    return result == CURLE_OK;
}
