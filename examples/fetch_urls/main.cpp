// Fetches URLs, all at once and on one thread. Try it with: fetch_urls http://localhost/ file:///etc/hostname
#include <QDPlatform/QDPlatform.h>

#include <cstdio>
#include <memory>
#include <string>

// Called on the transfer thread; wakes the main thread, which does the work.
struct Completions : QDAsyncUrlTransferEvent
{
    void OnAsyncUrlRequestsCompleted() override { m_Event.SetEvent(); }

    CQDWaitEvent m_Event;
};

int main(int argumentCount, char** arguments)
{
    QDAsyncUrlTransferThread::InitialiseUrlTransferThread();
    Completions completions;
    QDAsyncUrlTransferThread transfers(&completions);
    if (!transfers.StartAsyncUrlTransferThread("fetch_urls", nullptr)) {
        std::perror("Cannot start the transfer thread");
        return 1;
    }
    for (int i = 1; i < argumentCount; ++i) {
        auto* request = new QDAsyncUrlRequest;
        request->SetURL(arguments[i]);
        request->SetTimeoutMS(10000);
        transfers.StartTransfer(request); // the thread's until it is complete
    }
    int failures = 0;
    while (transfers.GetRequestCount() > 0) {
        completions.m_Event.WaitForEvent();
        while (const std::unique_ptr<QDAsyncUrlRequest> request{transfers.GetNextCompletedRequest()}) {
            std::string url;
            request->GetURL(url);
            if (request->GetMultiResultCode() == CURLM_OK && request->GetCurlResultCode() == CURLE_OK) {
                std::printf("%s: %u bytes\n", url.c_str(), static_cast<unsigned int>(request->GetReply().size()));
            } else {
                std::printf("%s: %s\n", url.c_str(), request->GetErrorText());
                ++failures;
            }
        }
    }
    transfers.StopAsyncUrlTransferThread();
    QDAsyncUrlTransferThread::CleanupUrlTransferThread();
    return failures == 0 ? 0 : 1;
}
