#include <QDPlatform/COutputLogToFileWithoutCS.h>

#include <QDPlatform/QDFindFiles.h>
#include <QDPlatform/QDHostInformation.h>
#include <QDPlatform/QDModule.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDTimestamp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <string_view>
#include <utility>

// The log prints through itself while a file is begun: AppendMessage() opens a file, whose head is written with
// AppendMessage(), which may go on to the next file when deletions fill this one with their lines. That ends:
//   - A file holds 16 KiB or more, and a head without deletions takes less than 2 KiB. So only some fifty lines about
//     deletions bring about the next file, and each of these took a file off the list, which has 999 at most.
//   - While a head is written its lines open nothing (m_MessagesOpen), so a folder where nothing can be opened is not
//     read again and again, by which the list would grow as fast as it is emptied.

namespace
{

constexpr long long kDefaultTotalSize = 0x2000000; // bytes
constexpr long long kMinimumTotalSize = 102400;
constexpr long long kMaximumFileSize = 0x400000;
constexpr long long kMinimumFileCount = 4;

constexpr unsigned long kMaximumNumber = 999;
constexpr unsigned long kWrappedBelow = 500; // with 001 and 999 in the folder, smaller numbers are the newer ones
constexpr unsigned int kNumberDigits = 3;

constexpr std::string_view kInvalidCharacters = "<>:\"/\\|?*";

constexpr unsigned int kTimeLength = 23; // of the text, without the blank behind it
constexpr unsigned int kSuffixCapacity = 32;

// Copies `length` bytes and returns whether they are all ASCII. It looks at whole words, the last of which may overlap
// the one before, and at all of them: after a system call each branch is dear.
bool CopyAscii(const char* text, size_t length, char* out)
{
    constexpr size_t kTopBits = std::numeric_limits<size_t>::max() / 0xFF * 0x80;
    size_t bits = 0;
    const auto copyWord = [&](size_t offset) {
        size_t word;
        std::memcpy(&word, text + offset, sizeof word);
        std::memcpy(out + offset, &word, sizeof word);
        bits |= word;
    };
    if (length >= sizeof bits) {
        for (size_t offset = 0; offset < length - sizeof bits; offset += sizeof bits)
            copyWord(offset);
        copyWord(length - sizeof bits);
        return (bits & kTopBits) == 0;
    }
    for (size_t offset = 0; offset < length; ++offset) {
        out[offset] = text[offset];
        bits |= static_cast<unsigned char>(text[offset]);
    }
    return bits < 0x80;
}

// Sets a value for a scope.
class ScopedFlag
{
public:
    ScopedFlag(bool& flag, bool value) : m_Flag(flag), m_Old(std::exchange(flag, value)) {}

    ScopedFlag(const ScopedFlag&) = delete;
    ScopedFlag& operator=(const ScopedFlag&) = delete;

    ~ScopedFlag() { m_Flag = m_Old; }

private:
    bool& m_Flag;
    const bool m_Old;
};

} // namespace

// The time that is left after each system call is mostly that of code and branches which the processor has to fetch and
// learn anew. So a message is assembled by these three, which are inlined into AppendMessage().

// Adds text that is ASCII and fits the line buffer. Returns false, with nothing added, for any other.
inline bool COutputLogToFileWithoutCS::AddAscii(const char* text, unsigned int length)
{
    if (length >= kLineCapacity - m_LineLength || !CopyAscii(text, length, m_LineBuffer + m_LineLength))
        return false;
    m_LineLength += length;
    return true;
}

inline bool COutputLogToFileWithoutCS::AddText(const char* text, unsigned int length, bool count)
{
    return AddAscii(text, length) || AddCodePoints(text, length, count);
}

// Sets m_Time to the time of now. Within a second only the milliseconds change.
inline void COutputLogToFileWithoutCS::SetTime()
{
    const CQDTimestamp now = CQDTimestamp::UTCNow();
    const long long second = now.GetValue() / CQDTimeInterval::TicksPerSecond;
    if (second != m_Second) {
        now.ToText(m_Time, ' ');
        m_Time[kTimeLength] = ' ';
        m_Second = second;
        return;
    }
    const long long ticks = now.GetValue() % CQDTimeInterval::TicksPerSecond;
    const auto milliseconds = static_cast<unsigned int>(ticks) / unsigned{CQDTimeInterval::TicksPerMillisecond};
    m_Time[kTimeLength - 3] = static_cast<char>('0' + milliseconds / 100 % 10);
    m_Time[kTimeLength - 2] = static_cast<char>('0' + milliseconds / 10 % 10);
    m_Time[kTimeLength - 1] = static_cast<char>('0' + milliseconds % 10);
}

COutputLogToFileWithoutCS::COutputLogToFileWithoutCS() : COutputLogToFileWithoutCS(kDefaultTotalSize) {}

COutputLogToFileWithoutCS::COutputLogToFileWithoutCS(long long totalSize)
{
    SetMaximumFileSizeCountFromTotalSize(totalSize);
}

COutputLogToFileWithoutCS::~COutputLogToFileWithoutCS()
{
    CloseCurrentFile(false);
}

void COutputLogToFileWithoutCS::SetLogfileName(const char* folderName, const char* fileName)
{
    m_FolderName = folderName;
    SetLogFileNameReplacingInvalidCharacters(fileName);
}

void COutputLogToFileWithoutCS::SetLogFileNameReplacingInvalidCharacters(const char* fileName)
{
    m_FileName.clear();
    for (const char c : std::string_view(fileName)) {
        if (kInvalidCharacters.find(c) == std::string_view::npos) {
            m_FileName += c;
            continue;
        }
        char code[4];
        qd_sprintf(code, sizeof code, "%%%X", static_cast<unsigned int>(static_cast<unsigned char>(c)));
        m_FileName += code;
    }
}

void COutputLogToFileWithoutCS::SetMaximumFileSizeCountFromTotalSize(long long totalSize)
{
    totalSize = std::max(totalSize, kMinimumTotalSize);
    long long fileSize = kMaximumFileSize;
    while (totalSize / fileSize < kMinimumFileCount)
        fileSize /= 2;
    m_MaximumFileSize = static_cast<unsigned int>(fileSize);
    m_MaximumFileCount =
        static_cast<unsigned int>(std::min<long long>(totalSize / fileSize, std::numeric_limits<unsigned int>::max()));
}

bool COutputLogToFileWithoutCS::InitialiseDefaultWorkingDirectory()
{
    if (m_Folder.CreateUserLogFileFolder(m_FolderName.c_str()))
        return true;
    m_Folder.Clear(); // so that the next message tries again
    return false;
}

bool COutputLogToFileWithoutCS::Open()
{
    if (m_File.IsFileOpen())
        return true;
    if (m_Folder.IsEmpty() && !InitialiseDefaultWorkingDirectory())
        return false;
    ListFiles();
    if (m_Files.empty() || m_Files.back().m_Size > m_MaximumFileSize * 3 / 4)
        return OpenNewFile();
    return OpenLastFile();
}

bool COutputLogToFileWithoutCS::OpenAtLocation(const CQDFilePath& folder, const std::string& fileName)
{
    m_Folder = folder;
    SetLogFileNameReplacingInvalidCharacters(fileName.c_str());
    return Open();
}

void COutputLogToFileWithoutCS::CloseFile()
{
    CloseCurrentFile(false);
}

void COutputLogToFileWithoutCS::GetGeneralLogFileName(std::string& name) const
{
    name = m_Folder.GetPath() + '/' + m_FileName + "_nnn.log";
}

void COutputLogToFileWithoutCS::GetLogFileWildCard(std::string& pattern) const
{
    pattern = m_FileName + "_*.log";
}

void COutputLogToFileWithoutCS::GetLogFilePath(CQDFilePath& path, unsigned long number) const
{
    char suffix[kSuffixCapacity];
    qd_sprintf(suffix, sizeof suffix, "_%03lu.log", number);
    path = m_Folder;
    path.AppendFileName(m_FileName + suffix);
}

bool COutputLogToFileWithoutCS::ValidateLogFileName(const char* name, unsigned long& number)
{
    number = 0;
    const char* const underscore = std::strrchr(name, '_');
    if (underscore == nullptr)
        return false;
    unsigned long value = 0;
    for (unsigned int i = 1; i <= kNumberDigits; ++i) {
        const char digit = underscore[i];
        if (digit < '0' || digit > '9')
            return false;
        value = value * 10 + static_cast<unsigned long>(digit - '0');
    }
    if (value == 0 || underscore[kNumberDigits + 1] != '.')
        return false;
    number = value;
    return true;
}

void COutputLogToFileWithoutCS::Clear() {}

void COutputLogToFileWithoutCS::AppendMessage(LogType, int, const qdchar* text, unsigned int length)
{
    if (!m_File.IsFileOpen()) {
        if (m_MessagesOpen)
            Open();
        if (!m_File.IsFileOpen())
            return;
    }
    SetTime();
    AddText(m_Time, kTimeLength + 1, true);
    AddText(text, length, true);
    AddText("\n", 1, true);
    FlushCurrentLine(true);
    if (m_Files.back().m_Size > m_MaximumFileSize) {
        CloseCurrentFile(true);
        OpenNewFile();
    }
}

void COutputLogToFileWithoutCS::PrintRaw(const char* text)
{
    WriteText(text, static_cast<unsigned int>(std::strlen(text)), false);
    WriteNewLine(false);
    FlushCurrentLine(false);
}

bool COutputLogToFileWithoutCS::OpenLastFile()
{
    CQDFilePath path;
    GetLogFilePath(path, m_Files.back().m_Number);
    if (!m_File.OpenFileForAppend(path))
        return false;
    if (m_Files.back().m_Size == 0)
        WriteByteOrderMark();
    PrintRaw("");
    PrintFileHead("Re-opened log file", path);
    return true;
}

bool COutputLogToFileWithoutCS::OpenNewFile()
{
    unsigned long number = 1;
    if (!m_Files.empty() && m_Files.back().m_Number < kMaximumNumber)
        number = m_Files.back().m_Number + 1;
    // With all numbers in use the oldest file becomes the newest. It must not stay listed as the oldest too, which is
    // deleted.
    if (!m_Files.empty() && m_Files.front().m_Number == number)
        m_Files.pop_front();
    m_Files.push_back({number, 0});
    CQDFilePath path;
    GetLogFilePath(path, number);
    if (!m_File.OpenFileForWrite(path))
        return false;
    WriteByteOrderMark();
    PrintFileHead("Log file", path);
    return true;
}

void COutputLogToFileWithoutCS::CloseCurrentFile(bool sizeLimitReached)
{
    if (!m_File.IsFileOpen())
        return;
    PrintRaw(sizeLimitReached ? "Closing file (file reached size limit )" : "Closing file");
    m_File.CloseFile();
}

void COutputLogToFileWithoutCS::DeleteOldFiles()
{
    while (m_Files.size() > m_MaximumFileCount) {
        CQDFilePath path;
        GetLogFilePath(path, m_Files.front().m_Number);
        m_Files.pop_front(); // first, because each line below may begin a file and so come here
        Print("Delete old file '%s'...", path.GetPathCStr());
        if (!path.EraseFile())
            Print("File deletion failed");
    }
}

void COutputLogToFileWithoutCS::WriteByteOrderMark() {}

bool COutputLogToFileWithoutCS::WriteText(const char* text, unsigned int length, bool count)
{
    return AddText(text, length, count);
}

bool COutputLogToFileWithoutCS::WriteNewLine(bool count)
{
    return WriteText("\n", 1, count);
}

bool COutputLogToFileWithoutCS::FlushCurrentLine(bool count)
{
    const unsigned int length = std::exchange(m_LineLength, 0u);
    if (!m_File.WriteBytes(m_LineBuffer, length))
        return false;
    if (count)
        m_Files.back().m_Size += length;
    return true;
}

void COutputLogToFileWithoutCS::PrintProductTelemetry()
{
    Print("Quendrel SCADA 3.78 (20211130.3)");
    Print("3rd Party Software:");
    for (int i = 0; i < g_VersionInfoCount; ++i)
        Print("\t%s", g_VersionInfo[i].m_Version);
    Print("Host Information:");
    const CQDHostInformation host;
    for (int i = 0; i < host.GetOSInformationCount(); ++i)
        Print("\t%s", host.GetOSInformation(i).c_str());
}

// Sets the list to the files of the folder, from the oldest to the newest, and deletes those without a valid number.
void COutputLogToFileWithoutCS::ListFiles()
{
    std::string pattern;
    GetLogFileWildCard(pattern);
    std::map<unsigned long, unsigned int> sizes;
    CQDFindFiles search;
    for (bool found = search.FirstFile(m_Folder.GetPath() + '/' + pattern); found; found = search.NextFile()) {
        if (search.IsDirectory())
            continue;
        CQDFilePath path(m_Folder);
        std::string name;
        search.GetName(name);
        path.AppendFileName(name);
        unsigned long number = 0;
        if (!ValidateLogFileName(name.c_str(), number)) {
            path.EraseFile();
            continue;
        }
        // Another name, such as that of a log whose file name only starts like this one, may hold the same number: the
        // size is that of the log's own file.
        CQDFilePath ownPath;
        GetLogFilePath(ownPath, number);
        if (path.GetPath() == ownPath.GetPath())
            sizes[number] = search.GetSize();
        else
            sizes.emplace(number, search.GetSize());
    }
    m_Files.clear();
    for (const auto& [number, size] : sizes)
        m_Files.push_back({number, size});
    if (m_Files.empty() || m_Files.front().m_Number != 1 || m_Files.back().m_Number != kMaximumNumber)
        return;
    while (m_Files.front().m_Number < kWrappedBelow)
        m_Files.splice(m_Files.end(), m_Files, m_Files.begin());
}

// Adds any text, and writes the buffer whenever a code point does not fit.
bool COutputLogToFileWithoutCS::AddCodePoints(const char* text, unsigned int length, bool count)
{
    constexpr unsigned int kPiece = 8;
    const char* const end = text + length;
    while (text < end) {
        if (end - text >= ptrdiff_t{kPiece} && AddAscii(text, kPiece)) {
            text += kPiece;
            continue;
        }
        const int codePoint = qd_codepoint_from_qdchar(text, end);
        if (m_LineLength + qd_utf8len_of_codepoint(codePoint) >= kLineCapacity && !FlushCurrentLine(count))
            return false;
        m_LineLength += qd_qdchar_from_codepoint(codePoint, m_LineBuffer + m_LineLength);
    }
    return true;
}

// Writes the first lines of a file that has just been opened, and makes room for it.
void COutputLogToFileWithoutCS::PrintFileHead(const char* what, const CQDFilePath& path)
{
    const ScopedFlag openNothing(m_MessagesOpen, false);
    Print("%s %s", what, path.GetPathCStr());
    PrintProductTelemetry();
    DeleteOldFiles();
}
