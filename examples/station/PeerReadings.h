#pragma once

#include "HostRegisters.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

// What is known of a station that this one polls.
enum PeerState : uint16_t
{
    PeerNotPolled, // no poll has ended yet
    PeerGood,      // the last poll brought readings
    PeerDown,      // no connection, or it was lost before the answer began
    PeerSlow,      // connected, but no whole answer in time
    PeerNonsense   // answered, but not with a station's readings
};

// The last readings of other stations, the peers, each with its state and its age: written by who polls them, shown by
// the process image.
//
// Readings stay when a later poll fails; the state and the age then tell that they are old.
// Thread: any number.
class PeerReadings
{
public:
    static constexpr std::size_t kMaximumPeers = 16;

    // A block of input registers: state, age, and the peer's own host registers.
    static constexpr std::size_t kBlockSize = 2 + kHostRegisterCount;

    // What the age shows when there are no readings yet, or when they are so old or older.
    static constexpr uint16_t kOldestAge = 65535;

    // Goes forward only, whatever becomes of the time of day.
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // peerCount: at most kMaximumPeers. Peers are numbered from 0 here.
    explicit PeerReadings(std::size_t peerCount, Clock clock = &std::chrono::steady_clock::now);

    PeerReadings(const PeerReadings&) = delete;
    PeerReadings& operator=(const PeerReadings&) = delete;

    std::size_t GetPeerCount() const;

    // A poll brought readings / ended in `state`, which is none of the first two. Return the state before.
    PeerState SetGood(std::size_t peer, const HostRegisters& registers);
    PeerState SetFailed(std::size_t peer, PeerState state);

    // Fills one block for each peer: state, age in whole seconds, host registers (0 before the first readings).
    // blocks: GetPeerCount() times kBlockSize registers.
    void Show(std::span<uint16_t> blocks) const;

private:
    struct Peer
    {
        PeerState m_State{PeerNotPolled};
        std::optional<std::chrono::steady_clock::time_point> m_ReadTime; // none before the first readings
        HostRegisters m_Registers{};
    };

    uint16_t AgeOf(const Peer& peer) const;

    const Clock m_Clock;
    mutable std::mutex m_Lock;
    std::vector<Peer> m_Peers; // m_Lock; never resized
};
