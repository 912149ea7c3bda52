#pragma once

#include <QDPlatform/QDFilePath.h>

#include <cstdint>
#include <span>
#include <string>

class COutputLog;

// Keeps a set of registers in a file, so that it outlives the process, in whatever way the process ends.
//
// A set is written whole to a file beside the old one, which is then renamed over it: at any moment the file holds one
// whole set, the old or the new. It is with the kernel when Save() returns; when it reaches the disk, and so what a
// power failure leaves, is the file system's affair: the new set, the old one, or none.
// Format: "QDSTNREG", then numbers of 16 bits, high byte first: the version 1, the count, the registers, and in two
// numbers, high half first, the 32-bit FNV-1a hash of all bytes before.
// Thread: one at a time.
// Borrows: the log.
class RegisterFile
{
public:
    // The file is station-registers in `folder`, which must exist. A set has at most 65,535 registers.
    RegisterFile(const CQDFilePath& folder, COutputLog& log);

    // Reads the set that was saved last; all 0 when there is none. A file that holds no such set, because it is damaged
    // or something else, is renamed to station-registers.damaged (or .damaged_2 and so on) and counts as none. The log
    // says which of these it was.
    // Returns false, with the reason in `error`, a text without a line end, when there is a file that can neither be
    // read nor set aside; `registers` are unspecified then. Do not save then: that would destroy the file.
    bool Load(std::span<uint16_t> registers, std::string& error);

    // Puts the set into the file. Returns false when that fails; then the file is what it was. The log has the reason
    // of the first failure in a row, and again, with the number of failures, at the first success.
    bool Save(std::span<const uint16_t> registers);

private:
    bool SetAside(std::string& error);

    CQDFilePath m_Path;
    CQDFilePath m_NewPath; // where the next set is written; what lies there is nothing that was promised to anybody
    COutputLog& m_Log;
    unsigned int m_FailureCount{0}; // of Save(), in a row up to the last one
    std::string m_FirstFailure;     // why the first of them failed
};
