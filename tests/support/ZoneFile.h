#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// Compiled zone files (TZif, RFC 8536) for tests, correct or not: whatever the members say is written.

inline void AppendBigEndian(std::string& bytes, long long value, int size)
{
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
        bytes += static_cast<char>(static_cast<unsigned long long>(value) >> shift & 0xFF);
}

// One header and its data.
struct ZoneBlock
{
    struct Type
    {
        int m_UtOffset;
        int m_IsDst;
        int m_DesignationIndex;
    };

    struct Leap
    {
        long long m_Seconds;
        int m_Correction;
    };

    std::vector<long long> m_Times; // seconds since 1970
    std::string m_TypeIndices;
    std::vector<Type> m_Types;
    std::string m_Designations;
    std::vector<Leap> m_Leaps;
    std::string m_StandardWall;
    std::string m_UtLocal;

    // version: the byte in the header. timeSize: 4 or 8.
    std::string ToBytes(char version, int timeSize) const
    {
        std::string bytes = "TZif";
        bytes += version;
        bytes.append(15, '\0');
        for (const std::size_t count : {m_UtLocal.size(), m_StandardWall.size(), m_Leaps.size(), m_Times.size(),
                                        m_Types.size(), m_Designations.size()})
            AppendBigEndian(bytes, static_cast<long long>(count), 4);
        for (const long long time : m_Times)
            AppendBigEndian(bytes, time, timeSize);
        bytes += m_TypeIndices;
        for (const Type& type : m_Types) {
            AppendBigEndian(bytes, type.m_UtOffset, 4);
            AppendBigEndian(bytes, type.m_IsDst, 1);
            AppendBigEndian(bytes, type.m_DesignationIndex, 1);
        }
        bytes += m_Designations;
        for (const Leap& leap : m_Leaps) {
            AppendBigEndian(bytes, leap.m_Seconds, timeSize);
            AppendBigEndian(bytes, leap.m_Correction, 4);
        }
        return bytes + m_StandardWall + m_UtLocal;
    }
};

// A file in memory, which CQDTimeZone::UseSpecifiedTimeZone() loads under the name GetZoneName().
class ZoneFile
{
public:
    explicit ZoneFile(const std::string& bytes) : m_File(::memfd_create("zone", MFD_CLOEXEC))
    {
        if (m_File < 0 || ::write(m_File, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            std::perror("ZoneFile");
            std::abort();
        }
    }

    ZoneFile(const ZoneFile&) = delete;
    ZoneFile& operator=(const ZoneFile&) = delete;

    ~ZoneFile() { ::close(m_File); }

    std::string GetZoneName() const { return GetZoneName(m_File); }

    // For any other descriptor that can be opened again.
    static std::string GetZoneName(int fd) { return "Etc/../../../../proc/self/fd/" + std::to_string(fd); }

private:
    int m_File;
};
