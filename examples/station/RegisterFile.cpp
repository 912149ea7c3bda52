#include "RegisterFile.h"

#include "BigEndian.h"

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDFileUnix.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace
{

constexpr std::string_view kMagic = "QDSTNREG";
constexpr std::size_t kVersion = 1;
constexpr std::size_t kHeaderSize = kMagic.size() + 2 + 2;
constexpr std::size_t kChecksumSize = 4;

constexpr std::size_t SizeOfFile(std::size_t registerCount)
{
    return kHeaderSize + 2 * registerCount + kChecksumSize;
}

// FNV-1a: every change of a single byte changes it.
uint32_t ChecksumOf(ByteView bytes)
{
    uint32_t hash = 2166136261u;
    for (const unsigned char byte : bytes)
        hash = (hash ^ byte) * 16777619u;
    return hash;
}

ByteBuffer Encode(std::span<const uint16_t> registers)
{
    ByteBuffer bytes;
    bytes.reserve(SizeOfFile(registers.size()));
    bytes.assign(kMagic.begin(), kMagic.end());
    AppendUint16(bytes, kVersion);
    AppendUint16(bytes, registers.size());
    for (const uint16_t value : registers)
        AppendUint16(bytes, value);
    const uint32_t checksum = ChecksumOf(bytes);
    AppendUint16(bytes, checksum >> 16);
    AppendUint16(bytes, checksum & 0xFFFF);
    return bytes;
}

// False when the bytes are not exactly what Encode() makes of as many registers.
bool Decode(ByteView bytes, std::span<uint16_t> registers)
{
    if (bytes.size() != SizeOfFile(registers.size()))
        return false;
    for (std::size_t i = 0; i < registers.size(); ++i)
        registers[i] = ReadUint16(bytes, kHeaderSize + 2 * i);
    return std::ranges::equal(Encode(registers), bytes);
}

std::string TextOf(const CQDError& error)
{
    int code = 0;
    std::string text;
    error.GetErrorCodeAndMessage(nullptr, code, text);
    return code == 0 ? "only a part could be written; the disk may be full" : text;
}

// Fills `bytes` from the front of the file and cuts it to what there is.
bool ReadWhole(QDFileUnix& file, ByteBuffer& bytes)
{
    std::size_t size = 0;
    unsigned int count = 1;
    while (size < bytes.size() && count != 0) {
        if (!file.ReadBytes(bytes.data() + size, static_cast<unsigned int>(bytes.size() - size), count))
            return false;
        size += count;
    }
    bytes.resize(size);
    return true;
}

// Makes the file at `path` hold exactly these bytes.
bool WriteWhole(const CQDFilePath& path, ByteView bytes, std::string& reason)
{
    QDFileUnix file;
    if (file.OpenFileForWrite(path) && file.WriteBytes(bytes.data(), static_cast<unsigned int>(bytes.size())) &&
        file.CloseFile())
        return true;
    reason = "cannot write " + path.GetPath() + ": " + TextOf(file.GetError());
    return false;
}

} // namespace

RegisterFile::RegisterFile(const CQDFilePath& folder, COutputLog& log) : m_Path(folder), m_Log(log)
{
    m_Path.AppendFileName("station-registers");
    m_NewPath.SetFromString(m_Path.GetPath() + ".new");
}

bool RegisterFile::Load(std::span<uint16_t> registers, std::string& error)
{
    QDFileUnix file;
    if (!file.OpenFileForRead(m_Path, false) && file.GetError().GetLastErrorCode() == ENOENT) {
        std::ranges::fill(registers, uint16_t{0});
        m_Log.Print("Registers: none saved yet, all start at 0");
        return true;
    }
    ByteBuffer bytes(SizeOfFile(registers.size()) + 1); // one more, to notice a file that is too long
    if (!file.IsFileOpen() || !ReadWhole(file, bytes)) {
        error = "cannot read " + m_Path.GetPath() + ": " + TextOf(file.GetError());
        return false;
    }
    if (Decode(bytes, registers)) {
        m_Log.Print("Registers: %zu read", registers.size());
        return true;
    }
    std::ranges::fill(registers, uint16_t{0});
    return SetAside(error);
}

bool RegisterFile::Save(std::span<const uint16_t> registers)
{
    std::string reason;
    bool saved = WriteWhole(m_NewPath, Encode(registers), reason);
    if (saved && !m_NewPath.RenameFile(m_Path)) {
        reason = "cannot rename " + m_NewPath.GetPath() + ": " + TextOf(m_NewPath);
        saved = false;
    }
    if (!saved) {
        m_NewPath.EraseFile(); // the disk may need the room; a failure leaves a file that nobody reads
        if (m_FailureCount++ == 0) {
            m_FirstFailure = reason;
            m_Log.PrintError("Registers: cannot be saved, writing them is refused: %s", reason.c_str());
        }
    } else if (m_FailureCount != 0) {
        // With the reason once more: the disk that was full may have had no room for the log either.
        m_Log.Print("Registers: saved again; times refused: %u; at first: %s", m_FailureCount, m_FirstFailure.c_str());
        m_FailureCount = 0;
    }
    return saved;
}

// Renames a file that holds no registers to a name that is free. A link that leads nowhere has its name, too; where
// nobody can look, nobody can rename either.
bool RegisterFile::SetAside(std::string& error)
{
    CQDFilePath aside(m_Path.GetPath() + ".damaged");
    std::error_code ignored;
    for (int number = 2; std::filesystem::exists(std::filesystem::symlink_status(aside.GetPath(), ignored)); ++number)
        aside.SetFromString(m_Path.GetPath() + ".damaged_" + std::to_string(number));
    if (!m_Path.RenameFile(aside)) {
        error = m_Path.GetPath() + " is damaged and cannot be set aside: " + TextOf(m_Path);
        return false;
    }
    std::string name;
    aside.GetNameAndExtension(name);
    m_Log.PrintError("Registers: the file is damaged and now named %s; all start at 0", name.c_str());
    return true;
}
