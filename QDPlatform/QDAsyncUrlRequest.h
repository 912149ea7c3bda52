#pragma once

#include <QDPlatform/QDExport.h>

#include <curl/curl.h>

#include <atomic>
#include <cstddef>
#include <string>

// One URL transfer: owns a libcurl easy handle with the settings that callers need, and collects the reply.
//
//     QDAsyncUrlRequest request;
//     request.SetURL("http://192.0.2.7/readings");
//     request.SetTimeoutMS(2000);
//     request.SetCurlResultCode(request.EasyPerform());
//     if (request.GetCurlResultCode() == CURLE_OK)
//         Use(request.GetReply());
//
// A request is made on the heap, configured, then either performed on the caller's thread (EasyPerform()) or given to
// a QDAsyncUrlTransferThread, and deleted by its user after completion. It serves one transfer; a user who performs it
// again gets the replies one behind the other and gives it its upload content anew.
// A setter returns false when libcurl refuses the setting, for lack of memory, for a text of more than 8,000,000 bytes
// or because the constructor got no handle: a text is then as if it had never been set, all else as it was.
// Every operation is safe without a handle: EasyPerform() then returns CURLE_BAD_FUNCTION_ARGUMENT, and on a transfer
// thread the request completes with GetMultiResultCode() CURLM_BAD_EASY_HANDLE.
// Redirects are not followed unless the user asks libcurl for it (CURLOPT_FOLLOWLOCATION on GetCurlHandle()); see
// SetPostJSON() before that.
// Thread:  one at a time, which from QDAsyncUrlTransferThread::StartTransfer() to GetNextCompletedRequest() is the
//          transfer thread. In between, any thread may call GetTransferState(), GetAsyncUrlRequestId() and
//          GetCurlHandle(). The results and the reply may be read once GetTransferState() gave TransferComplete: all
//          of them were written before that state was.
// Owns:    the easy handle, the header list and the upload content. libcurl copies the texts of the setters.
class QD_API QDAsyncUrlRequest
{
public:
    // How far QDAsyncUrlTransferThread is with the request. The values are fixed.
    enum TransferState : int
    {
        TransferQueued = 0,   // from construction on; EasyPerform() leaves it so
        TransferRunning = 1,  // libcurl works on it
        TransferComplete = 2, // the results are there
    };

    // Makes the easy handle: no signals (CURLOPT_NOSIGNAL), an HTTP status of 400 and above fails the transfer
    // (CURLOPT_FAILONERROR), libcurl writes its error text into GetErrorText(), and what it receives goes to
    // OnWriteReply(). GetCurlHandle() is null when libcurl cannot make a handle.
    // QDAsyncUrlTransferThread::InitialiseUrlTransferThread() comes first.
    QDAsyncUrlRequest();
    QDAsyncUrlRequest(const QDAsyncUrlRequest&) = delete;
    QDAsyncUrlRequest& operator=(const QDAsyncUrlRequest&) = delete;

    // Frees the upload content, the header list and the handle, which closes its connections. The request must not be
    // with a transfer thread.
    virtual ~QDAsyncUrlRequest();

    // --- What a derived class may override -------------------------------------------------------------------------

    // Takes `length` bytes of the reply, which are not terminated and may be any bytes; appends them to GetReply().
    // Returns `length`; any other value makes libcurl end the transfer with CURLE_WRITE_ERROR (CURL_WRITEFUNC_PAUSE
    // pauses it), and so does an exception, which does not get further than here. An empty reply is no call or one with
    // a `length` of 0, as the version of libcurl has it. Called on the thread that performs the transfer, with no lock
    // of the library held.
    virtual unsigned int OnWriteReply(char* data, unsigned int length);

    // --- Configuration, before the transfer ------------------------------------------------------------------------

    // The URL, any that libcurl knows; null for none. Without one the transfer fails with CURLE_URL_MALFORMAT.
    bool SetURL(const char* url);

    // Sets `url` to the URL that was used last, after redirects; before the transfer to what SetURL() was given; to
    // nothing without a URL. Cut to 511 bytes, also within a character.
    void GetURL(std::string& url) const;

    // The longest time for the whole transfer in milliseconds; 0 for no limit, as it is at first. Not negative.
    bool SetTimeoutMS(long ms);

    // User and password, as "user:password"; null for none.
    bool SetUserPassword(const char* userColonPassword);

    // The proxy, as "host:port" or as a URL; an empty text changes nothing and returns true.
    bool SetProxyServer(const std::string& proxy);

    // Makes the transfer a POST of `length` bytes at `data`, which may hold any bytes, NULs too; nothing behind them is
    // read. `data` is not copied: it stays as it is until the transfer is complete. Null counts as a length of 0.
    // Sets the headers "Content-Type: application/json" and "Content-Length: " with the length, in the place of those
    // of an earlier call. A redirect that turns the POST into a GET sends both headers again although no body follows,
    // for which a server may wait: let the POST stay one there (--post301, --post302 and --post303 of
    // QDAsyncUrlRequestOptions). See PostThatARedirectTurnsIntoAGetStillSendsItsHeaders.
    bool SetPostJSON(const unsigned char* data, unsigned int length);

    // Makes the transfer an upload (for HTTP a PUT) of `length` bytes at `data`, and takes over `data`, which was
    // allocated with new unsigned char[], also when it returns false; that of an earlier call is freed. Null counts as
    // a length of 0. Drops the headers that SetPostJSON() has set. When libcurl has to send the content again, after
    // a challenge or a redirect, it starts from the first byte.
    bool SetUploadContent(unsigned char* data, unsigned int length);

    // --- Transfer and result ---------------------------------------------------------------------------------------

    // Performs the transfer on the caller's thread, and returns when it is complete. Changes neither the transfer state
    // nor the result code: give what it returns to SetCurlResultCode(). Not for a request that a transfer thread has.
    CURLcode EasyPerform();

    // Stores the result of the transfer. Where libcurl left the error text empty, CURLE_LOGIN_DENIED makes it "The
    // remote server denied curl to login" and CURLE_URL_MALFORMAT "No URL set!"; other codes leave it empty. A transfer
    // thread calls it when a transfer has completed.
    void SetCurlResultCode(CURLcode code);

    // What SetCurlResultCode() stored; CURLE_OK at first, and for good where GetMultiResultCode() is not CURLM_OK: look
    // there too after a transfer thread.
    CURLcode GetCurlResultCode() const { return m_CurlResultCode; }

    // Why the transfer thread's multi handle refused the request; CURLM_OK otherwise.
    CURLMcode GetMultiResultCode() const { return m_MultiResultCode; }

    // The server's last response code (HTTP, FTP, SMTP); 0 when none was received.
    long GetResponseCode() const;

    // Why the transfer failed, at most 255 bytes; empty when nobody said. Valid while the request lives.
    const char* GetErrorText() const { return m_ErrorText; }

    // What OnWriteReply() collected. Valid while the request lives.
    const std::string& GetReply() const { return m_Reply; }

    // --- For the transfer thread and its users ---------------------------------------------------------------------

    // How far the transfer is. From any thread; TransferComplete says that the results may be read.
    TransferState GetTransferState() const { return m_TransferState.load(); }

    // The number of the request in log lines; 0 at first. A transfer thread sets it in StartTransfer(), anew
    // at each call. From any thread.
    void SetAsyncUrlRequestId(int id) { m_RequestId.store(id); }

    int GetAsyncUrlRequestId() const { return m_RequestId.load(); }

    // For options that have no setter here. The handle stays the request's; null when the constructor got none.
    CURL* GetCurlHandle() const { return m_pCurl; }

    // --- Called by libcurl; `request` is the QDAsyncUrlRequest -----------------------------------------------------

    // The write callback: hands size * nmemb bytes to OnWriteReply() and returns its result. An exception becomes a
    // result that libcurl takes for a failed write.
    static size_t WriteFileChunk(char* ptr, size_t size, size_t nmemb, void* request);

    // The read callback: copies the next bytes of the upload content, at most size * nmemb of them, to `buffer` and
    // moves the read position behind them. Returns how many; 0 at the end.
    static size_t ReadFileChunk(char* buffer, size_t size, size_t nmemb, void* request);

private:
    friend class QDAsyncUrlTransferThread; // sets m_TransferState and m_MultiResultCode

    // The seek callback: moves the read position of the upload content. Only from the start (SEEK_SET), which is all
    // that libcurl asks for, and not beyond the end.
    QD_LOCAL static int SeekFileChunk(void* request, curl_off_t offset, int origin);

    // Hands `headers`, which may be null, to libcurl in the place of m_pHeaders, and frees the latter.
    QD_LOCAL bool ReplaceHeaders(curl_slist* headers);

    std::atomic<TransferState> m_TransferState{TransferQueued}; // TransferComplete is stored behind all results
    std::atomic<int> m_RequestId{0};
    CURL* m_pCurl{nullptr};          // null when libcurl had no memory
    curl_slist* m_pHeaders{nullptr}; // null until SetPostJSON()
    // These are the performing thread's until the transfer is complete.
    CURLMcode m_MultiResultCode{CURLM_OK};
    CURLcode m_CurlResultCode{CURLE_OK};
    char m_ErrorText[CURL_ERROR_SIZE]{};      // libcurl writes it
    unsigned char* m_pUploadContent{nullptr}; // freed with delete[]
    unsigned int m_UploadLength{0};           // bytes
    unsigned int m_UploadPosition{0};         // of the next byte to read
    std::string m_Reply;
};
