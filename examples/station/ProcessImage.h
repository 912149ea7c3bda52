#pragma once

#include "HostFigures.h"
#include "HostRegisters.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>

class PeerReadings;

// The station's data as its clients see them: four tables, addressed from 0.
//
//   coils               read and written; all off at the start
//   discrete inputs     read only; states of the host, worked out when they are read
//   holding registers   read and written; all 0 at the start, unless KeepHoldingRegisters() says otherwise
//   input registers     read only; figures of the host, worked out when they are read, and those of its peers behind
//                       them when ShowPeers() says so
//
// Each call is one moment: values that are read together stood in the table together, values that are written together
// appear together. Each returns false, or a result that says so, with nothing read or written when the addresses reach
// beyond the table.
// Thread: any number, KeepHoldingRegisters() and ShowPeers() apart.
class ProcessImage
{
public:
    static constexpr std::size_t kCoilCount = 2048;
    static constexpr std::size_t kHoldingRegisterCount = 1024;

    static constexpr std::size_t kInputRegisterCount = kHostRegisterCount; // without peers

    // What each address of the discrete inputs holds. HostRegister names the input registers.
    enum DiscreteInput : std::size_t
    {
        InputHeartbeat,           // on in every other second
        InputLoadIsHigh,          // the load of the last minute exceeds the number of processors
        InputMemoryIsLow,         // less than a sixteenth of the memory is free
        InputHostStartedRecently, // less than ten minutes ago
        kDiscreteInputCount
    };

    enum class WriteResult
    {
        Written,
        BeyondTable,
        NotKept // the registers could not be kept where they outlive the process
    };

    using HostFiguresReader = std::function<HostFigures()>;
    using HoldingRegisters = std::array<uint16_t, kHoldingRegisterCount>;
    using RegisterKeeper = std::function<bool(const HoldingRegisters&)>;

    // readHostFigures: called for each reading of a live table, from any thread and with no lock held.
    explicit ProcessImage(HostFiguresReader readHostFigures = &HostFigures::Read);

    ProcessImage(const ProcessImage&) = delete;
    ProcessImage& operator=(const ProcessImage&) = delete;

    // Gives the holding registers their values, and from then on every change of them to `keep` before it takes effect:
    // what a client reads, or is told to be written, has been kept. When `keep` returns false nothing changes.
    // To be called before other threads have the image. `keep` is called from any thread, by one at a time: other
    // writers of holding registers wait for it, readers do not. It may read the image and must not write holding
    // registers.
    void KeepHoldingRegisters(const HoldingRegisters& registers, RegisterKeeper keep);

    // Makes the input registers longer by a block of 16 for each peer, if there are any: block 0 is the host with two
    // registers of 0 behind it, block n the n-th peer as PeerReadings::Show() has it.
    // To be called before other threads have the image. Borrows: the peers, which must outlive the image.
    void ShowPeers(const PeerReadings& peers);

    bool ReadCoils(std::size_t first, std::span<bool> coils) const;
    bool ReadDiscreteInputs(std::size_t first, std::span<bool> inputs) const;
    bool ReadHoldingRegisters(std::size_t first, std::span<uint16_t> registers) const;
    bool ReadInputRegisters(std::size_t first, std::span<uint16_t> registers) const;

    bool WriteCoils(std::size_t first, std::span<const bool> coils);
    WriteResult WriteHoldingRegisters(std::size_t first, std::span<const uint16_t> registers);

private:
    const HostFiguresReader m_ReadHostFigures;
    const PeerReadings* m_pPeers{nullptr}; // not owned, may be null; set before other threads have the image
    RegisterKeeper m_KeepRegisters;        // may be empty; set before other threads have the image
    std::mutex m_WriteLock;                // whoever writes holding registers; taken before m_Lock
    mutable std::mutex m_Lock;
    std::array<bool, kCoilCount> m_Coils{}; // m_Lock
    // Once other threads have the image: written under both locks, so read under either.
    HoldingRegisters m_HoldingRegisters{};
};
