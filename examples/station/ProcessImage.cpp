#include "ProcessImage.h"

#include "PeerReadings.h"

#include <algorithm>
#include <utility>

namespace
{

constexpr uint32_t kRecentSeconds = 10 * 60;

static_assert(PeerReadings::kBlockSize == 16); // as the clients know it

// Copies as many items as `values` has room for, from address `first` on; false when the table does not have them all.
template<class Value>
bool CopyFromTable(std::span<const Value> table, std::size_t first, std::span<Value> values)
{
    if (first > table.size() || values.size() > table.size() - first)
        return false;
    std::ranges::copy(table.subspan(first, values.size()), values.begin());
    return true;
}

template<class Value>
bool CopyIntoTable(std::span<Value> table, std::size_t first, std::span<const Value> values)
{
    if (first > table.size() || values.size() > table.size() - first)
        return false;
    std::ranges::copy(values, table.begin() + static_cast<std::ptrdiff_t>(first));
    return true;
}

std::array<bool, ProcessImage::kDiscreteInputCount> DiscreteInputsOf(const HostFigures& figures)
{
    CQDTimestamp::TimestampStruct clock;
    figures.m_Time.GetTimestampStruct(clock);
    std::array<bool, ProcessImage::kDiscreteInputCount> inputs{};
    inputs[ProcessImage::InputHeartbeat] = clock.m_Second % 2 == 1;
    inputs[ProcessImage::InputLoadIsHigh] = figures.m_Load1Minute > figures.m_ProcessorCount * 100;
    inputs[ProcessImage::InputMemoryIsLow] = figures.m_FreeMemoryKiB < figures.m_TotalMemoryKiB / 16;
    inputs[ProcessImage::InputHostStartedRecently] = figures.m_UptimeSeconds < kRecentSeconds;
    return inputs;
}

} // namespace

ProcessImage::ProcessImage(HostFiguresReader readHostFigures) : m_ReadHostFigures(std::move(readHostFigures)) {}

void ProcessImage::KeepHoldingRegisters(const HoldingRegisters& registers, RegisterKeeper keep)
{
    m_HoldingRegisters = registers;
    m_KeepRegisters = std::move(keep);
}

void ProcessImage::ShowPeers(const PeerReadings& peers)
{
    m_pPeers = &peers;
}

bool ProcessImage::ReadCoils(std::size_t first, std::span<bool> coils) const
{
    const std::lock_guard guard(m_Lock);
    return CopyFromTable<bool>(m_Coils, first, coils);
}

bool ProcessImage::ReadDiscreteInputs(std::size_t first, std::span<bool> inputs) const
{
    return CopyFromTable<bool>(DiscreteInputsOf(m_ReadHostFigures()), first, inputs);
}

bool ProcessImage::ReadHoldingRegisters(std::size_t first, std::span<uint16_t> registers) const
{
    const std::lock_guard guard(m_Lock);
    return CopyFromTable<uint16_t>(m_HoldingRegisters, first, registers);
}

bool ProcessImage::ReadInputRegisters(std::size_t first, std::span<uint16_t> registers) const
{
    const HostRegisters host = HostRegistersOf(m_ReadHostFigures());
    const std::size_t peerCount = m_pPeers == nullptr ? 0 : m_pPeers->GetPeerCount();
    if (peerCount == 0)
        return CopyFromTable<uint16_t>(host, first, registers);
    std::array<uint16_t, PeerReadings::kBlockSize*(1 + PeerReadings::kMaximumPeers)> store{};
    const std::span table = std::span(store).first(PeerReadings::kBlockSize * (1 + peerCount));
    std::ranges::copy(host, table.begin());
    m_pPeers->Show(table.subspan(PeerReadings::kBlockSize));
    return CopyFromTable<uint16_t>(table, first, registers);
}

bool ProcessImage::WriteCoils(std::size_t first, std::span<const bool> coils)
{
    const std::lock_guard guard(m_Lock);
    return CopyIntoTable<bool>(m_Coils, first, coils);
}

// Works on a copy, so that readers see the old registers until the new ones are kept.
ProcessImage::WriteResult ProcessImage::WriteHoldingRegisters(std::size_t first, std::span<const uint16_t> registers)
{
    const std::lock_guard writeGuard(m_WriteLock);
    HoldingRegisters changed = m_HoldingRegisters;
    if (!CopyIntoTable<uint16_t>(changed, first, registers))
        return WriteResult::BeyondTable;
    if (changed == m_HoldingRegisters)
        return WriteResult::Written; // clients that repeat their values must not wear out the disk
    if (m_KeepRegisters && !m_KeepRegisters(changed))
        return WriteResult::NotKept;
    const std::lock_guard guard(m_Lock);
    m_HoldingRegisters = changed;
    return WriteResult::Written;
}
