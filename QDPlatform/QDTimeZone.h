#pragma once

#include <QDPlatform/QDExport.h>

#include <limits>
#include <memory>
#include <string>

class CTextOutput;

// A time zone, read from a compiled zone file of the system (TZif, RFC 8536), that converts timestamps between UTC and
// local time.
//
// Timestamps are ticks of 100 nanoseconds since 1601, as in CQDTimestamp. The TZ variable and the C library's zone
// functions play no part. When a file has a second block, with 64-bit times, only that is read. Before the first
// transition the file's first type of local time holds, after the last one the type of the last transition: the rule in
// a file's footer is not read, and leap seconds are kept for DumpTimeZone() only.
// Thread:  any number of threads may convert through one zone at a time; none while it is loaded, cleared or assigned.
// Owns:    what it loaded. No descriptor stays open.
class QD_API CQDTimeZone
{
public:
    // A type of local time.
    struct TransitionType
    {
        int m_UtOffset;                   // seconds east of UTC
        bool m_IsDst;                     // daylight-saving time: any non-zero byte in the file
        unsigned char m_DesignationIndex; // offset into the characters of the designations
    };

    // A leap second.
    struct LeapSecond
    {
        long long m_Time; // ticks since 1601
        int m_Correction; // seconds
    };

    // An empty zone, whose local time is UTC; read status 0.
    CQDTimeZone();

    // Copy everything, the read status too. When the memory for it cannot be had, std::bad_alloc is thrown and the zone
    // that was to be assigned is unchanged.
    CQDTimeZone(const CQDTimeZone& other);
    CQDTimeZone& operator=(const CQDTimeZone& other);
    void CopyFrom(const CQDTimeZone& other);

    ~CQDTimeZone();

    // Makes the zone an empty one. The read status is left.
    void Clear();

    // Replace the zone by the one in "/etc/localtime", or by the named one below "/usr/share/zoneinfo/".
    // name: such as Europe/London; 127 bytes are used at most. When it is empty, or begins with "/" or ".",
    // "/etc/localtime" is loaded. Only the first character is looked at: ".." further on leads out of the folder, so
    // check names from outside first.
    // Return true when the zone was loaded. Otherwise the zone is empty and GetReadStatus() tells why; nothing is
    // logged. When the memory for what the file announces, or for the name, cannot be had, std::bad_alloc is thrown,
    // the zone is empty and the read status is left.
    bool UseCurrentTimeZone();
    bool UseSpecifiedTimeZone(const std::string& name);

    // UTC to local time. The result is held between 0 and the largest tick count.
    long long ToLocalTime(long long utcTicks) const;

    // Local time to UTC, with the offset that holds at `localTicks` read as UTC; no search for the right instant is
    // made, on purpose; see UtcIsFoundWithTheOffsetAtTheLocalTimeReadAsUtc. So within a UTC offset's length of a
    // transition the result may be off by the change, a local hour that occurs twice gives one instant, and one that is
    // skipped gives some instant nearby. The result is held between 0 and the largest tick count.
    long long ToUTC(long long localTicks) const;

    // The offset of local time from UTC at a UTC time, in ticks, positive in the east. A transition takes effect at its
    // very tick.
    long long GetAdjustmentForTimestamp(long long ticks) const;

    // The index of the last transition at or before a time that lies from the first transition on and before the last.
    // An earlier time gives 0, a later one the transition before the last; both need two transitions at least. With one
    // transition the result is -1, with none -2. Kept so; see TransitionIndexBelowTwoTransitionsIsTheCountLessTwo.
    int FindTransitionIndexForTimestamp(long long ticks) const;

    // Writes all that was loaded: the name; the time of each transition with its offset in seconds, daylight-saving
    // flag and designation; the number of leap seconds; both arrays of indicators. Failures of the writer are its own
    // affair.
    void DumpTimeZone(CTextOutput& out) const;

    // How the last load ended:
    // 0 loaded; 1 the file could not be opened; 2 it is too short, or a read or a seek failed; 3 it does not begin with
    // "TZif"; 4 the transition times are not strictly ascending; 5 a transition's type index is not below the type
    // count; 6 there are no types; 7 a type's designation index is not below the designation character count. 0 before
    // the first load.
    int GetReadStatus() const;

    // The zone's name in the zone database, such as Europe/London: what follows "/zoneinfo/" in the path of the file,
    // or of the file that "/etc/localtime" is a link to. Empty when that is unknown.
    const std::string& GetIANAName() const;

    // The number of transitions.
    unsigned int GetTransitionCount() const;

    // When a transition takes effect, in ticks since 1601, UTC. index: below GetTransitionCount() (asserted).
    long long GetTransitionTime(unsigned int index) const;

private:
    struct TzFileHeader;

    // The time from one transition to the next.
    struct Period
    {
        long long m_Start;      // ticks since 1601, UTC
        long long m_Adjustment; // ticks
    };

    static constexpr long long LargestTicks = std::numeric_limits<long long>::max();

    // Loads into an empty zone. Sets the read status; returns true for 0.
    QD_LOCAL bool LinuxReadTzFile(const char* path);

    // The functions from here to LinuxReadAndConvertTimeValue() return the read status.

    // Reads all but the name. On failure, and when memory cannot be had, what was read so far is kept.
    QD_LOCAL int LinuxReadTzFile(int fd);
    QD_LOCAL int LinuxReadTransitions(int fd, int timeSize, unsigned int count, unsigned int typeCount);
    QD_LOCAL int LinuxReadTypes(int fd, unsigned int count, unsigned int designationCharacterCount);
    QD_LOCAL int LinuxReadLeapSeconds(int fd, int timeSize, unsigned int count);

    // Reads 44 bytes.
    QD_LOCAL static int LinuxReadTzFileHeader(int fd, TzFileHeader& header);

    // Reads a time of `size` bytes, 4 or 8. One that no tick count can hold becomes the nearest that it can.
    QD_LOCAL static int LinuxReadAndConvertTimeValue(int fd, int size, long long& ticks);

    // Fill the members for conversions from the others.
    QD_LOCAL void MakePeriods();
    QD_LOCAL void MakeBuckets();

    // The last transition at or before a time from the first transition on and before the last. inline for speed;
    // defined in the source file, its only user.
    QD_LOCAL inline unsigned int FindTransition(long long ticks) const;

    // Takes the name out of the path; a path without one changes nothing.
    QD_LOCAL void LinuxSetIANATimeZoneNameFromFileName(const char* path);

    // The type's designation, such as CET, without the NUL behind it, which a file may lack.
    QD_LOCAL std::string GetDesignation(const TransitionType& type) const;

    // One line. count: of `bytes`, which are printed as decimal numbers.
    QD_LOCAL void PrintByteArray(const char* label, unsigned int count, const unsigned char* bytes,
                                 CTextOutput& out) const;

    // Each array has as many elements as the count in front of it says; a count of 0 goes with a null array.
    int m_ReadStatus{0};
    unsigned int m_TransitionCount{0};
    std::unique_ptr<long long[]> m_pTransitionTimes; // ticks since 1601, UTC, strictly ascending
    std::unique_ptr<unsigned char[]> m_pTransitionTypeIndices;
    unsigned int m_TypeCount{0};
    std::unique_ptr<TransitionType[]> m_pTypes;
    unsigned int m_DesignationCharacterCount{0};
    std::unique_ptr<char[]> m_pDesignationCharacters; // terminated by NULs, the last one perhaps not
    unsigned int m_LeapSecondCount{0};
    std::unique_ptr<LeapSecond[]> m_pLeapSeconds;
    unsigned int m_StandardWallCount{0};
    std::unique_ptr<unsigned char[]> m_pStandardWall;
    unsigned int m_UtLocalCount{0};
    std::unique_ptr<unsigned char[]> m_pUtLocal;
    std::string m_IANAName;

    // The same once more, for conversions: all they need lies close together. Without transitions the first and the
    // last are at the largest tick count, and both offsets are that of the first type.
    long long m_FirstTransition{LargestTicks};
    long long m_LastTransition{LargestTicks};
    long long m_AdjustmentBefore{0};      // the first transition; ticks
    long long m_AdjustmentAfter{0};       // the last transition; ticks
    std::unique_ptr<Period[]> m_pPeriods; // one from each transition on

    // The time from the first transition to the last is cut into buckets of 2^m_BucketShift ticks. Each element is
    // the index of the last transition at or before the bucket's start, the very last transition excepted. One more
    // element, at the end, is the index of that one. Null with less than two transitions.
    std::unique_ptr<unsigned int[]> m_pBucketStarts;
    unsigned int m_BucketShift{0};
    unsigned int m_BucketStartCount{0};
};
