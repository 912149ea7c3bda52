#include "PeerReadings.h"

#include <algorithm>
#include <utility>

PeerReadings::PeerReadings(std::size_t peerCount, Clock clock) : m_Clock(std::move(clock)), m_Peers(peerCount) {}

std::size_t PeerReadings::GetPeerCount() const
{
    return m_Peers.size();
}

PeerState PeerReadings::SetGood(std::size_t peer, const HostRegisters& registers)
{
    const std::lock_guard guard(m_Lock);
    Peer& changed = m_Peers[peer];
    changed.m_ReadTime = m_Clock();
    changed.m_Registers = registers;
    return std::exchange(changed.m_State, PeerGood);
}

PeerState PeerReadings::SetFailed(std::size_t peer, PeerState state)
{
    const std::lock_guard guard(m_Lock);
    return std::exchange(m_Peers[peer].m_State, state);
}

void PeerReadings::Show(std::span<uint16_t> blocks) const
{
    const std::lock_guard guard(m_Lock);
    auto next = blocks.begin();
    for (const Peer& peer : m_Peers) {
        *next++ = peer.m_State;
        *next++ = AgeOf(peer);
        next = std::ranges::copy(peer.m_Registers, next).out;
    }
}

uint16_t PeerReadings::AgeOf(const Peer& peer) const
{
    if (!peer.m_ReadTime)
        return kOldestAge;
    const auto age = std::chrono::floor<std::chrono::seconds>(m_Clock() - *peer.m_ReadTime).count();
    return static_cast<uint16_t>(std::min<long long>(age, kOldestAge));
}
