#pragma once

#include "PeerReadings.h"

#include <QDPlatform/QDAsyncUrlTransferThread.h>
#include <QDPlatform/QDThread.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

class COutputLog;
class PollRequest;

// Polls the readings of other stations, each again and again, all at once, and never one station twice at a time.
//
// A thread of its own keeps the schedule and works on the answers; the transfer thread of the library does the rest.
// What becomes of a poll goes to the readings; the log is told when a peer's state changes, not of every poll:
//
//     Station: peer 1, http://192.0.2.7/readings, is down: Failed to connect to 192.0.2.7 port 80 after 0 ms: ...
//
// Proxies of the environment are not used: stations talk to each other directly.
// Thread: all from one; QDAsyncUrlTransferThread::InitialiseUrlTransferThread() comes before.
// Owns:   both threads and the requests. Borrows the logs, to which both threads print, and the readings.
class PeerPoller : private CQDThread, private QDAsyncUrlTransferEvent
{
public:
    static constexpr std::chrono::milliseconds kInterval{1000};
    static constexpr std::chrono::milliseconds kTransferTimeout{2000};

    // A poll that is under way for so much longer than its time-out, by the clock that is never set, counts as slow:
    // the transfer thread goes by the time of day, which may have been set back meanwhile.
    static constexpr std::chrono::milliseconds kGrace{1000};

    // Bytes of an answer, with its status lines, header fields and trailer fields. What is none of these and no text
    // either (extensions of chunks) is bounded by the time-out alone.
    static constexpr std::size_t kMaximumAnswerSize = 8192;

    // transferLog: for the many lines of the transfer thread; null for none. urls: of the peers, in the order of
    // `readings`, which has as many. interval: from the end of one poll of a peer to its next. transferTimeout: for a
    // poll as a whole.
    PeerPoller(COutputLog& log, COutputLog* transferLog, const std::vector<std::string>& urls, PeerReadings& readings,
               std::chrono::milliseconds interval = kInterval,
               std::chrono::milliseconds transferTimeout = kTransferTimeout);

    ~PeerPoller() override; // stops

    // Begins with a poll of every peer. Returns false, with errno set and nothing running, when a thread cannot be
    // made.
    bool Start();

    // Ends both threads and drops the polls that are under way. Does nothing when not started.
    void Stop();

private:
    using Clock = std::chrono::steady_clock; // the schedule goes on whatever becomes of the time of day

    struct Peer
    {
        std::string m_Url;
        Clock::time_point m_WakeTime; // of the next poll; while one is under way, when it is overdue
        bool m_IsPolled{false};       // a poll is under way
    };

    CQDTimestamp GetThreadEarliestTimeout(const CQDTimestamp& now) override;
    bool OnThreadTimeout() override;
    void OnThreadEvent(unsigned int event) override;
    void OnAsyncUrlRequestsCompleted() override;

    void StartPoll(std::size_t index);
    void HurryPoll(std::size_t index);
    void CollectAnswers();
    void TakeResult(const PollRequest& request);
    void SetFailed(std::size_t index, PeerState state, const std::string& reason);
    void LogState(std::size_t index, const std::string& state);

    COutputLog& m_Log;
    COutputLog* const m_pTransferLog; // may be null
    PeerReadings& m_Readings;
    const std::chrono::milliseconds m_Interval;
    const std::chrono::milliseconds m_TransferTimeout;
    std::vector<Peer> m_Peers; // the schedule's thread, once it runs
    QDAsyncUrlTransferThread m_Transfers{this};
};
