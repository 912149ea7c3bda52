#include <QDPlatform/QDTimeZone.h>

#include <QDPlatform/CTextOutput.h>
#include <QDPlatform/QDAssert.h>
#include <QDPlatform/QDString.h>
#include <QDPlatform/QDTimeInterval.h>
#include <QDPlatform/QDTimestamp.h>
#include <QDPlatform/QDUniqueFd.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace
{

enum ReadStatus : int
{
    Loaded = 0,
    CannotOpen = 1,
    CannotRead = 2,
    WrongMagic = 3,
    TransitionsNotAscending = 4,
    NoSuchType = 5,
    NoTypes = 6,
    NoSuchDesignation = 7
};

constexpr char kCurrentZonePath[] = "/etc/localtime";
constexpr char kZoneFolder[] = "/usr/share/zoneinfo/";
constexpr char kNameMark[] = "/zoneinfo/";
constexpr unsigned int kNameCapacity = 128;
constexpr std::size_t kLinkCapacity = 4096;

constexpr char kMagic[4] = {'T', 'Z', 'i', 'f'};
constexpr int kTimeSizeVersion1 = 4;
constexpr int kTimeSizeVersion2 = 8;

constexpr unsigned int kTimestampTextCapacity = 24;
constexpr uint64_t kMostBuckets = 512; // so that a zone's index takes about 2 KiB at most

constexpr long long kTicksPerSecond = CQDTimeInterval::TicksPerSecond;
constexpr long long kSecondsFrom1601To1970 = 11'644'473'600;

static_assert(sizeof(off_t) == 8, "the sizes in a header add up to more than 32 bits");

uint32_t ReadBigEndian32(const unsigned char* bytes)
{
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

int32_t ReadSigned32(const unsigned char* bytes)
{
    return static_cast<int32_t>(ReadBigEndian32(bytes));
}

int64_t ReadSigned64(const unsigned char* bytes)
{
    return static_cast<int64_t>(static_cast<uint64_t>(ReadBigEndian32(bytes)) << 32 | ReadBigEndian32(bytes + 4));
}

// True when all `size` bytes were read. An interrupted read counts as a failed one; no retry.
bool ReadAll(int fd, void* buffer, std::size_t size)
{
    const ssize_t length = ::read(fd, buffer, size);
    return length >= 0 && static_cast<std::size_t>(length) == size;
}

// An array of `count` elements that hold nothing yet; null for a count of 0. A count beyond what memory can be had for
// throws std::bad_alloc. A huge one that is granted costs little: pages that are not written are not there.
template<class Element>
std::unique_ptr<Element[]> MakeArray(unsigned int count)
{
    return std::unique_ptr<Element[]>(count != 0 ? new Element[count] : nullptr);
}

template<class Element>
std::unique_ptr<Element[]> CopyArray(const std::unique_ptr<Element[]>& elements, unsigned int count)
{
    auto copy = MakeArray<Element>(count);
    std::copy_n(elements.get(), count, copy.get());
    return copy;
}

// Reads `count` bytes into a new array. The count is set once the array is there.
template<class Byte>
int ReadBytes(int fd, unsigned int count, std::unique_ptr<Byte[]>& bytes, unsigned int& byteCount)
{
    bytes = MakeArray<Byte>(count);
    byteCount = count;
    return count == 0 || ReadAll(fd, bytes.get(), count) ? Loaded : CannotRead;
}

// The sum, held between 0 and the largest tick count.
long long AddHeld(long long ticks, long long adjustment)
{
    long long sum = 0;
    if (__builtin_add_overflow(ticks, adjustment, &sum))
        return adjustment > 0 ? std::numeric_limits<long long>::max() : 0;
    return std::max(sum, 0LL);
}

} // namespace

// As it stands in a file, except for the byte order of the counts.
struct CQDTimeZone::TzFileHeader
{
    char m_Magic[4];
    unsigned char m_Version; // 0, or a digit from '2' on
    unsigned char m_Reserved[15];
    // The indicators stand here in another order than in the data.
    uint32_t m_UtLocalCount;
    uint32_t m_StandardWallCount;
    uint32_t m_LeapSecondCount;
    uint32_t m_TransitionCount;
    uint32_t m_TypeCount;
    uint32_t m_DesignationCharacterCount;

    // The size of the data behind the header when times have 4 bytes.
    long long GetVersion1DataSize() const
    {
        return m_TransitionCount * 5LL + m_TypeCount * 6LL + m_DesignationCharacterCount + m_LeapSecondCount * 8LL +
               m_StandardWallCount + m_UtLocalCount;
    }
};

// Out of the header's order: an inline function stands before its callers.
inline unsigned int CQDTimeZone::FindTransition(long long ticks) const
{
    const auto bucket = static_cast<std::size_t>(static_cast<uint64_t>(ticks - m_FirstTransition) >> m_BucketShift);
    unsigned int low = m_pBucketStarts[bucket];
    unsigned int high = m_pBucketStarts[bucket + 1];
    if (high - low <= 1) // without a branch, which would go one way as often as the other
        return low + static_cast<unsigned int>(ticks >= m_pPeriods[low + 1].m_Start);
    ++high;
    while (high - low > 1) {
        const unsigned int middle = low + (high - low) / 2;
        if (ticks >= m_pPeriods[middle].m_Start)
            low = middle;
        else
            high = middle;
    }
    return low;
}

CQDTimeZone::CQDTimeZone() = default;

CQDTimeZone::CQDTimeZone(const CQDTimeZone& other)
{
    CopyFrom(other);
}

CQDTimeZone& CQDTimeZone::operator=(const CQDTimeZone& other)
{
    CopyFrom(other);
    return *this;
}

void CQDTimeZone::CopyFrom(const CQDTimeZone& other)
{
    // All that can fail comes before the first change; a zone may be copied from itself.
    auto transitionTimes = CopyArray(other.m_pTransitionTimes, other.m_TransitionCount);
    auto transitionTypeIndices = CopyArray(other.m_pTransitionTypeIndices, other.m_TransitionCount);
    auto types = CopyArray(other.m_pTypes, other.m_TypeCount);
    auto designationCharacters = CopyArray(other.m_pDesignationCharacters, other.m_DesignationCharacterCount);
    auto leapSeconds = CopyArray(other.m_pLeapSeconds, other.m_LeapSecondCount);
    auto standardWall = CopyArray(other.m_pStandardWall, other.m_StandardWallCount);
    auto utLocal = CopyArray(other.m_pUtLocal, other.m_UtLocalCount);
    auto periods = CopyArray(other.m_pPeriods, other.m_TransitionCount);
    auto bucketStarts = CopyArray(other.m_pBucketStarts, other.m_BucketStartCount);
    m_IANAName = other.m_IANAName;

    m_ReadStatus = other.m_ReadStatus;
    m_TransitionCount = other.m_TransitionCount;
    m_pTransitionTimes = std::move(transitionTimes);
    m_pTransitionTypeIndices = std::move(transitionTypeIndices);
    m_TypeCount = other.m_TypeCount;
    m_pTypes = std::move(types);
    m_DesignationCharacterCount = other.m_DesignationCharacterCount;
    m_pDesignationCharacters = std::move(designationCharacters);
    m_LeapSecondCount = other.m_LeapSecondCount;
    m_pLeapSeconds = std::move(leapSeconds);
    m_StandardWallCount = other.m_StandardWallCount;
    m_pStandardWall = std::move(standardWall);
    m_UtLocalCount = other.m_UtLocalCount;
    m_pUtLocal = std::move(utLocal);
    m_FirstTransition = other.m_FirstTransition;
    m_LastTransition = other.m_LastTransition;
    m_AdjustmentBefore = other.m_AdjustmentBefore;
    m_AdjustmentAfter = other.m_AdjustmentAfter;
    m_pPeriods = std::move(periods);
    m_pBucketStarts = std::move(bucketStarts);
    m_BucketShift = other.m_BucketShift;
    m_BucketStartCount = other.m_BucketStartCount;
}

CQDTimeZone::~CQDTimeZone()
{
    Clear();
}

void CQDTimeZone::Clear()
{
    m_TransitionCount = 0;
    m_pTransitionTimes.reset();
    m_pTransitionTypeIndices.reset();
    m_TypeCount = 0;
    m_pTypes.reset();
    m_DesignationCharacterCount = 0;
    m_pDesignationCharacters.reset();
    m_LeapSecondCount = 0;
    m_pLeapSeconds.reset();
    m_StandardWallCount = 0;
    m_pStandardWall.reset();
    m_UtLocalCount = 0;
    m_pUtLocal.reset();
    m_IANAName.clear();
    m_FirstTransition = LargestTicks;
    m_LastTransition = LargestTicks;
    m_AdjustmentBefore = 0;
    m_AdjustmentAfter = 0;
    m_pPeriods.reset();
    m_pBucketStarts.reset();
    m_BucketShift = 0;
    m_BucketStartCount = 0;
}

bool CQDTimeZone::UseCurrentTimeZone()
{
    Clear();
    return LinuxReadTzFile(kCurrentZonePath);
}

bool CQDTimeZone::UseSpecifiedTimeZone(const std::string& name)
{
    if (name.empty() || name[0] == '/' || name[0] == '.')
        return UseCurrentTimeZone();

    char keptName[kNameCapacity];
    qd_strcpy(keptName, sizeof keptName, name); // before Clear(): the name may be this zone's own
    Clear();
    char path[sizeof kZoneFolder + sizeof keptName];
    qd_strcpy(path, sizeof path, kZoneFolder);
    qd_strcat(path, sizeof path, keptName);
    return LinuxReadTzFile(path);
}

long long CQDTimeZone::ToLocalTime(long long utcTicks) const
{
    return AddHeld(utcTicks, GetAdjustmentForTimestamp(utcTicks));
}

long long CQDTimeZone::ToUTC(long long localTicks) const
{
    return AddHeld(localTicks, -GetAdjustmentForTimestamp(localTicks));
}

long long CQDTimeZone::GetAdjustmentForTimestamp(long long ticks) const
{
    if (ticks < m_FirstTransition)
        return m_AdjustmentBefore;
    if (ticks >= m_LastTransition)
        return m_AdjustmentAfter;
    return m_pPeriods[FindTransition(ticks)].m_Adjustment;
}

int CQDTimeZone::FindTransitionIndexForTimestamp(long long ticks) const
{
    if (m_TransitionCount < 2)
        return static_cast<int>(m_TransitionCount) - 2;
    if (ticks < m_FirstTransition)
        return 0;
    if (ticks >= m_LastTransition)
        return static_cast<int>(m_TransitionCount - 2);
    return static_cast<int>(FindTransition(ticks));
}

void CQDTimeZone::DumpTimeZone(CTextOutput& out) const
{
    out.PrintLine("IANAName: %s", m_IANAName.c_str());
    out.PrintLine("%u Transitions:", m_TransitionCount);
    for (unsigned int i = 0; i < m_TransitionCount; ++i) {
        const TransitionType& type = m_pTypes[m_pTransitionTypeIndices[i]];
        char time[kTimestampTextCapacity];
        CQDTimestamp(m_pTransitionTimes[i]).ToText(time, ' ');
        out.Print("%s", time);
        out.Print(" Offset %d", type.m_UtOffset);
        out.Print(" IsDST %d", type.m_IsDst);
        out.Print(" Tz %s", GetDesignation(type).c_str());
        out.PrintLine();
    }
    out.PrintLine("Leap Seconds: %d", static_cast<int>(m_LeapSecondCount));
    PrintByteArray("Standard/Wall", m_StandardWallCount, m_pStandardWall.get(), out);
    PrintByteArray("UT/Local", m_UtLocalCount, m_pUtLocal.get(), out);
}

int CQDTimeZone::GetReadStatus() const
{
    return m_ReadStatus;
}

const std::string& CQDTimeZone::GetIANAName() const
{
    return m_IANAName;
}

unsigned int CQDTimeZone::GetTransitionCount() const
{
    return m_TransitionCount;
}

long long CQDTimeZone::GetTransitionTime(unsigned int index) const
{
    QD_ASSERT(index < m_TransitionCount);
    return m_pTransitionTimes[index];
}

bool CQDTimeZone::LinuxReadTzFile(const char* path)
{
    int status = CannotOpen;
    try {
        {
            const QDUniqueFd file(::open(path, O_RDONLY | O_CLOEXEC)); // EINTR too gives CannotOpen
            if (file.IsOpen())
                status = LinuxReadTzFile(file.Get());
        }
        if (status == Loaded) {
            char target[kLinkCapacity];
            const ssize_t length =
                std::strcmp(path, kCurrentZonePath) == 0 ? ::readlink(path, target, sizeof target - 1) : ssize_t(-1);
            if (length >= 0)
                target[length] = '\0';
            LinuxSetIANATimeZoneNameFromFileName(length >= 0 ? target : path);
        }
    } catch (const std::bad_alloc&) {
        Clear();
        throw;
    }
    m_ReadStatus = status;
    if (status != Loaded)
        Clear();
    return status == Loaded;
}

int CQDTimeZone::LinuxReadTzFile(int fd)
{
    TzFileHeader header;
    int timeSize = kTimeSizeVersion1;
    int status = LinuxReadTzFileHeader(fd, header);
    if (status == Loaded && header.m_Version != 0) {
        if (::lseek(fd, header.GetVersion1DataSize(), SEEK_CUR) < 0)
            return CannotRead;
        status = LinuxReadTzFileHeader(fd, header);
        timeSize = kTimeSizeVersion2;
    }
    if (status == Loaded)
        status = LinuxReadTransitions(fd, timeSize, header.m_TransitionCount, header.m_TypeCount);
    if (status == Loaded)
        status = LinuxReadTypes(fd, header.m_TypeCount, header.m_DesignationCharacterCount);
    if (status == Loaded)
        status =
            ReadBytes(fd, header.m_DesignationCharacterCount, m_pDesignationCharacters, m_DesignationCharacterCount);
    if (status == Loaded)
        status = LinuxReadLeapSeconds(fd, timeSize, header.m_LeapSecondCount);
    if (status == Loaded)
        status = ReadBytes(fd, header.m_StandardWallCount, m_pStandardWall, m_StandardWallCount);
    if (status == Loaded)
        status = ReadBytes(fd, header.m_UtLocalCount, m_pUtLocal, m_UtLocalCount);
    if (status == Loaded)
        MakePeriods();
    return status;
}

int CQDTimeZone::LinuxReadTransitions(int fd, int timeSize, unsigned int count, unsigned int typeCount)
{
    m_pTransitionTimes = MakeArray<long long>(count);
    m_pTransitionTypeIndices = MakeArray<unsigned char>(count);
    m_TransitionCount = count;
    for (unsigned int i = 0; i < count; ++i) {
        if (LinuxReadAndConvertTimeValue(fd, timeSize, m_pTransitionTimes[i]) != Loaded)
            return CannotRead;
    }
    for (unsigned int i = 1; i < count; ++i) {
        if (m_pTransitionTimes[i] <= m_pTransitionTimes[i - 1])
            return TransitionsNotAscending;
    }
    if (count != 0 && !ReadAll(fd, m_pTransitionTypeIndices.get(), count))
        return CannotRead;
    for (unsigned int i = 0; i < count; ++i) {
        if (m_pTransitionTypeIndices[i] >= typeCount)
            return NoSuchType;
    }
    return Loaded;
}

int CQDTimeZone::LinuxReadTypes(int fd, unsigned int count, unsigned int designationCharacterCount)
{
    if (count == 0)
        return NoTypes;
    m_pTypes = MakeArray<TransitionType>(count);
    m_TypeCount = count;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned char bytes[6];
        if (!ReadAll(fd, bytes, sizeof bytes))
            return CannotRead;
        m_pTypes[i] = {ReadSigned32(bytes), bytes[4] != 0, bytes[5]};
        if (m_pTypes[i].m_DesignationIndex >= designationCharacterCount)
            return NoSuchDesignation;
    }
    return Loaded;
}

int CQDTimeZone::LinuxReadLeapSeconds(int fd, int timeSize, unsigned int count)
{
    m_pLeapSeconds = MakeArray<LeapSecond>(count);
    m_LeapSecondCount = count;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned char correction[4];
        if (LinuxReadAndConvertTimeValue(fd, timeSize, m_pLeapSeconds[i].m_Time) != Loaded ||
            !ReadAll(fd, correction, sizeof correction))
            return CannotRead;
        m_pLeapSeconds[i].m_Correction = ReadSigned32(correction);
    }
    return Loaded;
}

int CQDTimeZone::LinuxReadTzFileHeader(int fd, TzFileHeader& header)
{
    static_assert(sizeof header == 44);
    if (!ReadAll(fd, &header, sizeof header))
        return CannotRead;
    if (std::memcmp(header.m_Magic, kMagic, sizeof kMagic) != 0)
        return WrongMagic;
    for (uint32_t* count : {&header.m_UtLocalCount, &header.m_StandardWallCount, &header.m_LeapSecondCount,
                            &header.m_TransitionCount, &header.m_TypeCount, &header.m_DesignationCharacterCount}) {
        unsigned char bytes[4];
        std::memcpy(bytes, count, sizeof bytes);
        *count = ReadBigEndian32(bytes);
    }
    return Loaded;
}

int CQDTimeZone::LinuxReadAndConvertTimeValue(int fd, int size, long long& ticks)
{
    unsigned char bytes[kTimeSizeVersion2];
    if (!ReadAll(fd, bytes, static_cast<std::size_t>(size)))
        return CannotRead;
    const long long seconds = size == kTimeSizeVersion1 ? ReadSigned32(bytes) : ReadSigned64(bytes);
    if (seconds < -kSecondsFrom1601To1970)
        ticks = 0;
    else if (seconds > LargestTicks / kTicksPerSecond - kSecondsFrom1601To1970)
        ticks = LargestTicks;
    else
        ticks = (seconds + kSecondsFrom1601To1970) * kTicksPerSecond;
    return Loaded;
}

void CQDTimeZone::MakePeriods()
{
    m_AdjustmentBefore = m_pTypes[0].m_UtOffset * kTicksPerSecond;
    m_AdjustmentAfter = m_AdjustmentBefore;
    if (m_TransitionCount == 0)
        return;
    m_pPeriods = MakeArray<Period>(m_TransitionCount);
    for (unsigned int i = 0; i < m_TransitionCount; ++i)
        m_pPeriods[i] = {m_pTransitionTimes[i], m_pTypes[m_pTransitionTypeIndices[i]].m_UtOffset * kTicksPerSecond};
    m_FirstTransition = m_pPeriods[0].m_Start;
    m_LastTransition = m_pPeriods[m_TransitionCount - 1].m_Start;
    m_AdjustmentAfter = m_pPeriods[m_TransitionCount - 1].m_Adjustment;
    if (m_TransitionCount >= 2)
        MakeBuckets();
}

void CQDTimeZone::MakeBuckets()
{
    const unsigned int last = m_TransitionCount - 1;
    const auto span = static_cast<uint64_t>(m_LastTransition - m_FirstTransition);
    while (span >> m_BucketShift >= std::min(2 * uint64_t(m_TransitionCount), kMostBuckets))
        ++m_BucketShift;
    const auto count = static_cast<unsigned int>(span >> m_BucketShift) + 1;
    m_pBucketStarts = MakeArray<unsigned int>(count + 1);
    m_BucketStartCount = count + 1;

    unsigned int transition = 0;
    for (unsigned int bucket = 0; bucket < count; ++bucket) {
        const auto start = m_FirstTransition + static_cast<long long>(static_cast<uint64_t>(bucket) << m_BucketShift);
        while (transition + 1 < last && m_pTransitionTimes[transition + 1] <= start)
            ++transition;
        m_pBucketStarts[bucket] = transition;
    }
    m_pBucketStarts[count] = last;
}

void CQDTimeZone::LinuxSetIANATimeZoneNameFromFileName(const char* path)
{
    const char* mark = std::strstr(path, kNameMark);
    if (mark != nullptr)
        m_IANAName = mark + std::strlen(kNameMark);
}

std::string CQDTimeZone::GetDesignation(const TransitionType& type) const
{
    const char* designation = m_pDesignationCharacters.get() + type.m_DesignationIndex;
    return std::string(designation, ::strnlen(designation, m_DesignationCharacterCount - type.m_DesignationIndex));
}

void CQDTimeZone::PrintByteArray(const char* label, unsigned int count, const unsigned char* bytes,
                                 CTextOutput& out) const
{
    out.Print("%s [ ", label);
    for (unsigned int i = 0; i < count; ++i)
        out.Print(i == 0 ? "%d" : " %d", bytes[i]);
    out.Print(" ]");
    out.PrintLine();
}

// These two stand here because QDTimestamp.cpp may not include this header, which is above it.

void CQDTimestamp::ToLocalTime(const CQDTimeZone* zone)
{
    if (zone != nullptr)
        m_Value = zone->ToLocalTime(m_Value);
}

void CQDTimestamp::ToUTC(const CQDTimeZone* zone)
{
    m_Value = zone->ToUTC(m_Value);
}
