#include <QDPlatform/QDTimestamp.h>

#include <QDPlatform/QDString.h>

#include <cstring>
#include <cwchar>
#include <limits>

namespace
{

constexpr long long kUnixEpochTicks = 116444736000000000;
constexpr long long kBuildNumberEpochTicks = 129787488000000000; // 2012-04-13
constexpr long long kTicksPerMicrosecond = 10;
constexpr uint32_t kMillisecondsPerDay = 86400000;
constexpr uint32_t kFirstYear = 1601;
constexpr uint32_t kLastYear = 9999; // the last one that a date can be set to
constexpr unsigned int kTextCapacity = 24;

constexpr char kTwoDigits[] = "00010203040506070809101112131415161718192021222324"
                              "25262728293031323334353637383940414243444546474849"
                              "50515253545556575859606162636465666768697071727374"
                              "75767778798081828384858687888990919293949596979899";

// Rows: common years, leap years.
constexpr uint32_t kDaysBeforeMonth[2][13] = {{0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
                                              {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366}};

// Tick arithmetic is done unsigned: it wraps, where signed arithmetic may not overflow.
constexpr long long Sum(long long left, long long right)
{
    return static_cast<long long>(static_cast<uint64_t>(left) + static_cast<uint64_t>(right));
}

constexpr long long Difference(long long left, long long right)
{
    return static_cast<long long>(static_cast<uint64_t>(left) - static_cast<uint64_t>(right));
}

constexpr long long Product(long long left, long long right)
{
    return static_cast<long long>(static_cast<uint64_t>(left) * static_cast<uint64_t>(right));
}

constexpr bool IsLeapYear(uint32_t year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// month: 1..12.
constexpr uint32_t GetDaysInMonth(uint32_t year, uint32_t month)
{
    const auto& daysBeforeMonth = kDaysBeforeMonth[IsLeapYear(year)];
    return daysBeforeMonth[month] - daysBeforeMonth[month - 1];
}

// Sets `ticks` to midnight of the date. Returns false, with `ticks` unchanged, when the date does not exist or its year
// cannot be set.
bool GetTicksOfDate(uint32_t year, uint32_t month, uint32_t day, long long& ticks)
{
    if (year < kFirstYear || year > kLastYear || month < 1 || month > 12)
        return false;
    const auto& daysBeforeMonth = kDaysBeforeMonth[IsLeapYear(year)];
    if (day < 1 || day > daysBeforeMonth[month] - daysBeforeMonth[month - 1])
        return false;
    const uint32_t y = year - kFirstYear;
    const uint32_t days = 365 * y + y / 4 - y / 100 + y / 400 + daysBeforeMonth[month - 1] + day - 1;
    ticks = days * CQDTimeInterval::TicksPerDay;
    return true;
}

// days: counted from 1601-01-01. Sets year, month, day and day of year.
//
// Counts from 1600-03-01 in years that begin in March. Their leap day, if any, is their last day, so that centuries of
// 146097/4 days, years of 1461/4 days and months of 153/5 days can be divided out without looking at leap years.
void SetDateFields(uint32_t days, CQDTimestamp::TimestampStruct& out)
{
    constexpr uint32_t kDaysFromMarchToJanuary = 306;
    const uint32_t quarterDays = 4 * (days + kDaysFromMarchToJanuary) + 3;
    const uint32_t century = quarterDays / 146097;
    const uint32_t quarterDaysOfCentury = quarterDays % 146097 | 3;
    const uint32_t yearOfCentury = quarterDaysOfCentury / 1461;
    const uint32_t dayOfMarchYear = quarterDaysOfCentury % 1461 / 4;
    const uint32_t monthFromMarch = (5 * dayOfMarchYear + 2) / 153;
    const bool isNextYear = dayOfMarchYear >= kDaysFromMarchToJanuary; // January and February

    out.m_Year = 1600 + 100 * century + yearOfCentury + isNextYear;
    out.m_Month = isNextYear ? monthFromMarch - 9 : monthFromMarch + 3;
    out.m_Day = dayOfMarchYear - (153 * monthFromMarch + 2) / 5 + 1;
    out.m_DayOfYear =
        isNextYear ? dayOfMarchYear - kDaysFromMarchToJanuary : dayOfMarchYear + 59 + IsLeapYear(out.m_Year);
}

// Rebuilds the timestamp from its fields with another year and month. Returns false, and leaves it, when the year
// cannot be set.
bool SetYearAndMonth(CQDTimestamp& timestamp, const CQDTimestamp::TimestampStruct& fields, long long year,
                     uint32_t month)
{
    if (year < kFirstYear || year > kLastYear)
        return false;
    const auto newYear = static_cast<uint32_t>(year);
    const uint32_t lastDay = GetDaysInMonth(newYear, month);
    const uint32_t day = fields.m_Day < lastDay ? fields.m_Day : lastDay;
    return timestamp.SetDateAndHHMMSSFFF(newYear, month, day, fields.m_Hour, fields.m_Minute, fields.m_Second,
                                         fields.m_Millisecond);
}

// The functions from here to PutTimeOfDay() write at `cursor`, with leading zeros, and return the place behind.
char* PutTwoDigits(char* cursor, uint32_t value)
{
    std::memcpy(cursor, kTwoDigits + 2 * value, 2);
    return cursor + 2;
}

char* PutThreeDigits(char* cursor, uint32_t value)
{
    cursor[0] = static_cast<char>('0' + value / 100);
    return PutTwoDigits(cursor + 1, value % 100);
}

char* PutYear(char* cursor, uint32_t year)
{
    if (year > kLastYear) {
        std::memcpy(cursor, "****", 4);
        return cursor + 4;
    }
    return PutTwoDigits(PutTwoDigits(cursor, year / 100), year % 100);
}

char* PutDate(char* cursor, const CQDTimestamp::TimestampStruct& fields)
{
    cursor = PutYear(cursor, fields.m_Year);
    *cursor++ = '-';
    cursor = PutTwoDigits(cursor, fields.m_Month);
    *cursor++ = '-';
    return PutTwoDigits(cursor, fields.m_Day);
}

char* PutTimeOfDay(char* cursor, const CQDTimestamp::TimestampStruct& fields)
{
    cursor = PutTwoDigits(cursor, fields.m_Hour);
    *cursor++ = ':';
    cursor = PutTwoDigits(cursor, fields.m_Minute);
    *cursor++ = ':';
    cursor = PutTwoDigits(cursor, fields.m_Second);
    *cursor++ = '.';
    return PutThreeDigits(cursor, fields.m_Millisecond);
}

// What a text can give, with the values of what it leaves out.
struct DateAndTime
{
    uint32_t m_Year{0};
    uint32_t m_Month{1};
    uint32_t m_Day{1};
    uint32_t m_Hour{0};
    uint32_t m_Minute{0};
    uint32_t m_Second{0};
    uint32_t m_Millisecond{0};
};

// Above 9 when the character is no digit.
constexpr uint32_t DigitAt(const char* text)
{
    return static_cast<uint32_t>(static_cast<unsigned char>(*text)) - '0';
}

// Returns false, with a useless `value`, when the next two characters are not both digits.
bool ReadTwoDigits(const char* text, uint32_t& value)
{
    const uint32_t tens = DigitAt(text);
    const uint32_t ones = DigitAt(text + 1);
    value = 10 * tens + ones;
    return tens <= 9 && ones <= 9;
}

// Reads the shape that ToText() writes, 2020-03-04 05:06:07.008, in less than half the time of ReadNumbers(). Returns
// false, with useless values in `out`, when the text has another shape.
bool ReadFullText(const std::string& text, DateAndTime& out)
{
    if (text.size() != kTextCapacity - 1)
        return false;
    const char* const t = text.data();
    uint32_t century = 0;
    uint32_t hundredths = 0;
    if (!(ReadTwoDigits(t, century) && ReadTwoDigits(t + 2, out.m_Year) && t[4] == '-' &&
          ReadTwoDigits(t + 5, out.m_Month) && t[7] == '-' && ReadTwoDigits(t + 8, out.m_Day) && t[10] != '\0' &&
          DigitAt(t + 10) > 9 && ReadTwoDigits(t + 11, out.m_Hour) && t[13] == ':' &&
          ReadTwoDigits(t + 14, out.m_Minute) && t[16] == ':' && ReadTwoDigits(t + 17, out.m_Second) && t[19] == '.' &&
          ReadTwoDigits(t + 20, hundredths) && DigitAt(t + 22) <= 9))
        return false;
    out.m_Year += 100 * century;
    out.m_Millisecond = 10 * hundredths + DigitAt(t + 22);
    return true;
}

constexpr bool IsBlank(char character)
{
    return character == ' ' || (character >= '\t' && character <= '\r');
}

// Reads a number at `cursor` as strtol() does with a `long` of 32 bits, and moves `cursor` behind it. Without a digit
// the result is 0 and `cursor` stays.
uint32_t ReadNumber(const char*& cursor)
{
    const char* next = cursor;
    while (IsBlank(*next))
        ++next;
    const bool isNegative = *next == '-';
    if (isNegative || *next == '+')
        ++next;
    if (DigitAt(next) > 9)
        return 0;

    constexpr uint32_t kLargest = std::numeric_limits<int32_t>::max();
    const uint32_t limit = isNegative ? kLargest + 1 : kLargest;
    uint64_t magnitude = 0;
    for (; DigitAt(next) <= 9; ++next) {
        magnitude = 10 * magnitude + DigitAt(next);
        if (magnitude > limit)
            magnitude = limit;
    }
    cursor = next;
    const auto value = static_cast<uint32_t>(magnitude);
    return isNegative ? 0 - value : value;
}

// Reads a number if `separator` comes next, moving `cursor` behind both. Returns false, with nothing changed, if not.
bool ReadNumberAfter(const char*& cursor, char separator, uint32_t& number)
{
    if (*cursor != separator)
        return false;
    ++cursor;
    number = ReadNumber(cursor);
    return true;
}

// Reads a text of any shape.
DateAndTime ReadNumbers(const char* cursor)
{
    DateAndTime result;
    result.m_Year = ReadNumber(cursor);
    const bool hasDay = ReadNumberAfter(cursor, '-', result.m_Month) && ReadNumberAfter(cursor, '-', result.m_Day);
    if (!hasDay || *cursor == '\0')
        return result;
    ++cursor;
    result.m_Hour = ReadNumber(cursor);
    if (ReadNumberAfter(cursor, ':', result.m_Minute) && ReadNumberAfter(cursor, ':', result.m_Second))
        ReadNumberAfter(cursor, '.', result.m_Millisecond);
    return result;
}

} // namespace

constinit const CQDTimestamp CQDTimestamp::Never{std::numeric_limits<long long>::max()};

void CQDTimestamp::AddMilliseonds(long long ms)
{
    m_Value = Sum(m_Value, Product(ms, CQDTimeInterval::TicksPerMillisecond));
}

CQDTimestamp CQDTimestamp::UTCNow()
{
    CQDTimestamp now;
    now.SetUTC();
    return now;
}

void CQDTimestamp::SetUTC()
{
    timespec ts;
    if (::clock_gettime(CLOCK_REALTIME, &ts) == 0) {
        SetFromTimespec(ts);
        return;
    }
    timeval tv;
    if (::gettimeofday(&tv, nullptr) == 0)
        SetFromTimeval(tv);
}

bool CQDTimestamp::SetDate(unsigned int year, unsigned int month, unsigned int day)
{
    return GetTicksOfDate(year, month, day, m_Value);
}

bool CQDTimestamp::SetDateAndHHMM(unsigned int year, unsigned int month, unsigned int day, unsigned int hour,
                                  unsigned int minute)
{
    return SetDateAndHHMMSSFFF(year, month, day, hour, minute, 0, 0);
}

bool CQDTimestamp::SetDateAndHHMMSSFFF(unsigned int year, unsigned int month, unsigned int day, unsigned int hour,
                                       unsigned int minute, unsigned int second, unsigned int millisecond)
{
    long long ticks = 0;
    if (!GetTicksOfDate(year, month, day, ticks))
        return false;
    ticks = Sum(ticks, Product(hour, CQDTimeInterval::TicksPerHour));
    ticks = Sum(ticks, Product(minute, CQDTimeInterval::TicksPerMinute));
    ticks = Sum(ticks, Product(second, CQDTimeInterval::TicksPerSecond));
    m_Value = Sum(ticks, Product(millisecond, CQDTimeInterval::TicksPerMillisecond));
    return true;
}

bool CQDTimestamp::AddMonths(long n)
{
    if (n == 0)
        return true;
    TimestampStruct fields;
    GetTimestampStruct(fields);
    long long year = static_cast<long long>(fields.m_Year) + n / 12;
    int month = static_cast<int>(fields.m_Month) + static_cast<int>(n % 12);
    if (month > 12) {
        month -= 12;
        ++year;
    } else if (month < 1) {
        month += 12;
        --year;
    }
    return SetYearAndMonth(*this, fields, year, static_cast<uint32_t>(month));
}

bool CQDTimestamp::AddYears(long n)
{
    if (n == 0)
        return true;
    TimestampStruct fields;
    GetTimestampStruct(fields);
    return SetYearAndMonth(*this, fields, Sum(fields.m_Year, n), fields.m_Month);
}

void CQDTimestamp::SetBuildNumber(long n)
{
    m_Value = Sum(kBuildNumberEpochTicks, Product(n, CQDTimeInterval::TicksPerDay));
}

void CQDTimestamp::GetTimestampStruct(TimestampStruct& out) const
{
    GetTimestampStruct(m_Value, out);
}

void CQDTimestamp::GetTimestampStruct(long long ticks, TimestampStruct& out)
{
    // Unsigned, so that a negative tick count gives fields within their ranges too.
    const uint64_t milliseconds = static_cast<uint64_t>(ticks) / CQDTimeInterval::TicksPerMillisecond;
    const auto days = static_cast<uint32_t>(milliseconds / kMillisecondsPerDay);
    SetDateFields(days, out);
    out.m_DayOfWeek = (days + 1) % 7; // 1601-01-01 was a Monday

    const auto sinceMidnight = static_cast<uint32_t>(milliseconds % kMillisecondsPerDay);
    out.m_MillisecondsSinceMidnight = sinceMidnight;
    out.m_Hour = sinceMidnight / 3600000;
    out.m_Minute = sinceMidnight / 60000 % 60;
    out.m_Second = sinceMidnight / 1000 % 60;
    out.m_Millisecond = sinceMidnight % 1000;
}

void CQDTimestamp::RoundUp(const CQDTimeInterval& step)
{
    const long long ticks = step.GetValue();
    if (ticks > 0)
        m_Value = Sum(m_Value, ticks - 1) / ticks * ticks;
}

void CQDTimestamp::RoundDown(const CQDTimeInterval& step)
{
    const long long ticks = step.GetValue();
    if (ticks > 0)
        m_Value = m_Value / ticks * ticks;
}

void CQDTimestamp::RoundUpToStartOfNextYear()
{
    TimestampStruct fields;
    GetTimestampStruct(fields);
    if (fields.m_DayOfYear != 0 || fields.m_MillisecondsSinceMidnight != 0)
        SetDate(fields.m_Year + 1, 1, 1);
}

long long CQDTimestamp::GetUnixTimeMicroSeconds() const
{
    return Difference(m_Value, kUnixEpochTicks) / kTicksPerMicrosecond;
}

void CQDTimestamp::SetUnixTimeMicroSeconds(long long us)
{
    m_Value = Sum(Product(us, kTicksPerMicrosecond), kUnixEpochTicks);
}

void CQDTimestamp::SetUnixTicks(long long seconds, long long ticks)
{
    m_Value = Sum(Sum(Product(seconds, CQDTimeInterval::TicksPerSecond), ticks), kUnixEpochTicks);
}

long long CQDTimestamp::GetUnixTicks(long long firstSecond, long long lastSecond) const
{
    constexpr long long kLastTickOfASecond = CQDTimeInterval::TicksPerSecond - 1;
    const long long ticks = Difference(m_Value, kUnixEpochTicks);
    const long long seconds = ticks / CQDTimeInterval::TicksPerSecond;
    if (seconds < firstSecond)
        return Product(firstSecond, CQDTimeInterval::TicksPerSecond) - kLastTickOfASecond;
    if (seconds > lastSecond)
        return Product(lastSecond, CQDTimeInterval::TicksPerSecond) + kLastTickOfASecond;
    return ticks;
}

bool CQDTimestamp::GetTimeLeft(long long deadline, long long longestSeconds, long long& seconds,
                               int& microseconds) const
{
    if (deadline == Never.m_Value)
        return false;
    seconds = 0;
    microseconds = 0;
    if (m_Value >= deadline)
        return true;

    // Unsigned: the distance from a negative time can exceed the signed range.
    const uint64_t ticks = static_cast<uint64_t>(deadline) - static_cast<uint64_t>(m_Value);
    const uint64_t allMicroseconds = ticks / kTicksPerMicrosecond + (ticks % kTicksPerMicrosecond != 0);
    seconds = static_cast<long long>(allMicroseconds / 1000000);
    microseconds = static_cast<int>(allMicroseconds % 1000000);
    if (seconds > longestSeconds) {
        seconds = longestSeconds;
        microseconds = 0;
    }
    return true;
}

int CQDTimestamp::ToText(char* buffer, char separator) const
{
    TimestampStruct fields;
    GetTimestampStruct(fields);
    const auto separatorCode = static_cast<unsigned char>(separator);
    if (separatorCode == 0 || separatorCode > 0x7F) {
        char year[5] = {};
        PutYear(year, fields.m_Year);
        return qd_sprintf(buffer, kTextCapacity, "%s-%02u-%02u%lc%02u:%02u:%02u.%03u", year, fields.m_Month,
                          fields.m_Day, static_cast<wint_t>(separatorCode), fields.m_Hour, fields.m_Minute,
                          fields.m_Second, fields.m_Millisecond);
    }
    char* cursor = PutDate(buffer, fields);
    *cursor++ = separator;
    cursor = PutTimeOfDay(cursor, fields);
    *cursor = '\0';
    return static_cast<int>(cursor - buffer);
}

char* CQDTimestamp::DateToText(char* buffer) const
{
    TimestampStruct fields;
    GetTimestampStruct(fields);
    *PutDate(buffer, fields) = '\0';
    return buffer;
}

char* CQDTimestamp::TimeOfDayToText(char* buffer) const
{
    TimestampStruct fields;
    GetTimestampStruct(fields);
    *PutTimeOfDay(buffer, fields) = '\0';
    return buffer;
}

bool CQDTimestamp::ParseString(const std::string& text)
{
    DateAndTime numbers;
    if (!ReadFullText(text, numbers))
        numbers = ReadNumbers(text.c_str());
    return SetDateAndHHMMSSFFF(numbers.m_Year, numbers.m_Month, numbers.m_Day, numbers.m_Hour, numbers.m_Minute,
                               numbers.m_Second, numbers.m_Millisecond);
}

CQDTimestamp operator+(const CQDTimestamp& timestamp, const CQDTimeInterval& interval)
{
    return Sum(timestamp.GetValue(), interval.GetValue());
}

CQDTimestamp operator-(const CQDTimestamp& timestamp, const CQDTimeInterval& interval)
{
    return Difference(timestamp.GetValue(), interval.GetValue());
}

CQDTimeInterval operator-(const CQDTimestamp& left, const CQDTimestamp& right)
{
    return Difference(left.GetValue(), right.GetValue());
}
