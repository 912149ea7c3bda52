#include "PeerPoller.h"

#include "PeerUrl.h"
#include "ReadingsText.h"

#include <QDPlatform/COutputLog.h>

#include <algorithm>
#include <cerrno>
#include <memory>

// A poll of one peer, whose answer is only taken while it is short enough to be readings.
class PollRequest : public QDAsyncUrlRequest
{
public:
    explicit PollRequest(std::size_t peer) : m_Peer(peer)
    {
        curl_easy_setopt(GetCurlHandle(), CURLOPT_HEADERFUNCTION, &TakeHeader);
        curl_easy_setopt(GetCurlHandle(), CURLOPT_HEADERDATA, this);
    }

    std::size_t GetPeer() const { return m_Peer; }

    unsigned int OnWriteReply(char* data, unsigned int length) override
    {
        return TakeBytes(length) ? QDAsyncUrlRequest::OnWriteReply(data, length) : 0;
    }

    bool IsTooLong() const { return m_Size > PeerPoller::kMaximumAnswerSize; }

private:
    // A line of the head or of the trailer, which libcurl would else keep without end.
    static std::size_t TakeHeader(char*, std::size_t itemSize, std::size_t count, void* request)
    {
        return static_cast<PollRequest*>(request)->TakeBytes(itemSize * count) ? itemSize * count : 0;
    }

    // False to end the transfer.
    bool TakeBytes(std::size_t count)
    {
        m_Size += count;
        return !IsTooLong();
    }

    const std::size_t m_Peer;
    std::size_t m_Size{0}; // of all that came
};

namespace
{

constexpr const char* kUserAgent = "station";
constexpr unsigned int kEventAnswers = 1;
constexpr long kStatusOk = 200;

const char* TextOf(PeerState state)
{
    switch (state) {
    case PeerNotPolled: return "not polled yet";
    case PeerGood: return "good";
    case PeerDown: return "down";
    case PeerSlow: return "slow";
    case PeerNonsense: break;
    }
    return "talking nonsense";
}

bool IsTimePositive(const QDAsyncUrlRequest& request, CURLINFO info)
{
    curl_off_t microseconds = 0;
    return curl_easy_getinfo(request.GetCurlHandle(), info, &microseconds) == CURLE_OK && microseconds > 0;
}

// Whether there was a connection, a new one or one from an earlier poll.
bool WasConnected(const QDAsyncUrlRequest& request)
{
    return IsTimePositive(request, CURLINFO_CONNECT_TIME_T) || IsTimePositive(request, CURLINFO_PRETRANSFER_TIME_T);
}

// Of a poll that libcurl calls failed.
PeerState StateOfFailure(const QDAsyncUrlRequest& request)
{
    switch (request.GetCurlResultCode()) {
    case CURLE_OPERATION_TIMEDOUT: return WasConnected(request) ? PeerSlow : PeerDown;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR: return request.GetResponseCode() != 0 ? PeerNonsense : PeerDown;
    default: return PeerNonsense; // what answered does not speak HTTP, or has no good certificate, and the like
    }
}

std::string ReasonOfFailure(const QDAsyncUrlRequest& request)
{
    // As libcurl has it, this is also a line of the head of more than 100 KB.
    if (request.GetCurlResultCode() == CURLE_OUT_OF_MEMORY)
        return "a header line without end, or out of memory";
    const std::string text = request.GetErrorText();
    return text.empty() ? curl_easy_strerror(request.GetCurlResultCode()) : text;
}

} // namespace

PeerPoller::PeerPoller(COutputLog& log, COutputLog* transferLog, const std::vector<std::string>& urls,
                       PeerReadings& readings, std::chrono::milliseconds interval,
                       std::chrono::milliseconds transferTimeout) :
    m_Log(log),
    m_pTransferLog(transferLog),
    m_Readings(readings),
    m_Interval(interval),
    m_TransferTimeout(transferTimeout)
{
    for (const std::string& url : urls)
        m_Peers.push_back({url, {}, false});
}

PeerPoller::~PeerPoller()
{
    Stop();
}

bool PeerPoller::Start()
{
    for (Peer& peer : m_Peers)
        peer = {peer.m_Url, Clock::now(), false};
    if (!m_Transfers.StartAsyncUrlTransferThread(kUserAgent, m_pTransferLog))
        return false;
    if (StartThread(&m_Log))
        return true;
    const int error = errno;
    m_Transfers.StopAsyncUrlTransferThread();
    errno = error;
    return false;
}

// The schedule first: it would queue new polls.
void PeerPoller::Stop()
{
    StopThreadAndWait();
    m_Transfers.StopAsyncUrlTransferThread();
}

CQDTimestamp PeerPoller::GetThreadEarliestTimeout(const CQDTimestamp& now)
{
    Clock::time_point earliest = Clock::time_point::max();
    for (const Peer& peer : m_Peers)
        earliest = std::min(earliest, peer.m_WakeTime);
    CQDTimestamp timeout = now;
    timeout.AddMilliseonds(std::chrono::ceil<std::chrono::milliseconds>(earliest - Clock::now()).count());
    return timeout;
}

bool PeerPoller::OnThreadTimeout()
{
    // A request that libcurl refused to take over is complete, but nobody says so.
    CollectAnswers();
    const Clock::time_point now = Clock::now();
    for (std::size_t i = 0; i < m_Peers.size(); ++i) {
        Peer& peer = m_Peers[i];
        if (peer.m_WakeTime > now)
            continue;
        if (peer.m_IsPolled)
            HurryPoll(i);
        else
            StartPoll(i);
        peer.m_WakeTime = now + m_TransferTimeout + kGrace;
    }
    return true;
}

void PeerPoller::OnThreadEvent(unsigned int)
{
    CollectAnswers();
}

// On the transfer thread.
void PeerPoller::OnAsyncUrlRequestsCompleted()
{
    DoThreadEvent(kEventAnswers);
}

void PeerPoller::StartPoll(std::size_t index)
{
    Peer& peer = m_Peers[index];
    auto request = std::make_unique<PollRequest>(index);
    request->SetURL(peer.m_Url.c_str());
    request->SetTimeoutMS(static_cast<long>(m_TransferTimeout.count()));
    curl_easy_setopt(request->GetCurlHandle(), CURLOPT_NOPROXY, "*");
    // At the time-out libcurl else waits for its resolver, and with it every other poll and Stop().
    curl_easy_setopt(request->GetCurlHandle(), CURLOPT_QUICK_EXIT, 1L);
    peer.m_IsPolled = true;
    m_Transfers.StartTransfer(request.release());
}

// The poll should have ended long ago.
void PeerPoller::HurryPoll(std::size_t index)
{
    constexpr int kLookAtTransfers = 1;
    SetFailed(index, PeerSlow, "the poll does not end in time");
    m_Transfers.SendThreadEvent(kLookAtTransfers); // which libcurl then ends, by a clock that is never set
}

void PeerPoller::CollectAnswers()
{
    while (const auto request = std::unique_ptr<QDAsyncUrlRequest>(m_Transfers.GetNextCompletedRequest())) {
        const auto& poll = static_cast<const PollRequest&>(*request);
        TakeResult(poll);
        Peer& peer = m_Peers[poll.GetPeer()];
        peer.m_IsPolled = false;
        peer.m_WakeTime = Clock::now() + m_Interval;
    }
}

void PeerPoller::TakeResult(const PollRequest& request)
{
    const std::size_t index = request.GetPeer();
    HostRegisters registers;
    if (request.GetMultiResultCode() != CURLM_OK) {
        SetFailed(index, PeerDown, curl_multi_strerror(request.GetMultiResultCode()));
    } else if (request.IsTooLong()) {
        SetFailed(index, PeerNonsense, "the answer has more than " + std::to_string(kMaximumAnswerSize) + " bytes");
    } else if (request.GetCurlResultCode() != CURLE_OK) {
        SetFailed(index, StateOfFailure(request), ReasonOfFailure(request));
    } else if (request.GetResponseCode() != kStatusOk) {
        SetFailed(index, PeerNonsense, "status " + std::to_string(request.GetResponseCode()) + " instead of 200");
    } else if (!ParseReadings(request.GetReply(), registers)) {
        SetFailed(index, PeerNonsense, "the answer is not a station's readings");
    } else if (m_Readings.SetGood(index, registers) != PeerGood) {
        LogState(index, TextOf(PeerGood));
    }
}

void PeerPoller::SetFailed(std::size_t index, PeerState state, const std::string& reason)
{
    if (m_Readings.SetFailed(index, state) != state)
        LogState(index, std::string(TextOf(state)) + ": " + reason);
}

void PeerPoller::LogState(std::size_t index, const std::string& state)
{
    m_Log.PrintString("Station: peer " + std::to_string(index + 1) + ", " + NameOfPeer(m_Peers[index].m_Url) + ", is " +
                      state);
}
