#pragma once

// The loops over runs of UTF-8, UTF-16 and UTF-32 behind the conversions and measures of QDString.cpp.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

// Unnamed, because QDString.cpp is the one file that includes this: the compiler then knows every call and inlines by
// what it sees.
namespace
{

constexpr int kReplacement = 0xFFFD;

unsigned qd_utf16len_of_codepoint(int cp)
{
    return cp < 0x10000 ? 1 : 2;
}

constexpr bool IsContinuation(uint8_t byte)
{
    return (byte & 0xC0) == 0x80;
}

constexpr bool IsHighSurrogate(unsigned unit)
{
    return (unit & 0xFC00) == 0xD800;
}

constexpr bool IsLowSurrogate(unsigned unit)
{
    return (unit & 0xFC00) == 0xDC00;
}

constexpr int IsPair(unsigned first, unsigned second)
{
    return static_cast<int>(IsHighSurrogate(first)) & static_cast<int>(IsLowSurrogate(second));
}

// The encodings, each with what a run needs: its unit, and how to take, measure and put one code point.
struct Utf8
{
    using Unit = uint8_t;
    static constexpr unsigned kMaxUnits = 4;

    static int Decode(const Unit*& p, const Unit* end)
    {
        const unsigned lead = *p++;
        if (lead < 0x80)
            return static_cast<int>(lead);
        if (lead < 0xC2 || lead > 0xF4)
            return kReplacement;
        const unsigned continuations = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
        unsigned value = lead & (0x3Fu >> continuations);
        for (unsigned i = 0; i < continuations; ++i) {
            if (p == end || !IsContinuation(*p))
                return kReplacement;
            value = value << 6 | (*p++ & 0x3Fu);
        }
        if (continuations == 2 && (value < 0x800 || (value & 0xF800) == 0xD800))
            return kReplacement;
        if (continuations == 3 && (value < 0x10000 || value >= 0x110000))
            return kReplacement;
        return static_cast<int>(value);
    }

    static unsigned Length(int cp) { return cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4; }

    static unsigned Encode(int cp, Unit* out)
    {
        const unsigned value = static_cast<unsigned>(cp);
        const auto continuation = [value](unsigned shift) { return static_cast<Unit>(0x80 | (value >> shift & 0x3F)); };
        if (cp < 0x80) {
            out[0] = static_cast<Unit>(value);
            return 1;
        }
        if (cp < 0x800) {
            out[0] = static_cast<Unit>(0xC0 | value >> 6);
            out[1] = continuation(0);
            return 2;
        }
        if (cp < 0x10000) {
            out[0] = static_cast<Unit>(0xE0 | value >> 12);
            out[1] = continuation(6);
            out[2] = continuation(0);
            return 3;
        }
        out[0] = static_cast<Unit>(0xF0 | value >> 18);
        out[1] = continuation(12);
        out[2] = continuation(6);
        out[3] = continuation(0);
        return 4;
    }
};

struct Utf16
{
    using Unit = uint16_t;
    static constexpr unsigned kMaxUnits = 2;

    static int Decode(const Unit*& p, const Unit* end)
    {
        const unsigned unit = *p++;
        if (!IsHighSurrogate(unit) || p == end || !IsLowSurrogate(*p))
            return static_cast<int>(unit);
        return static_cast<int>(((unit << 10 & 0xFFC00) | (*p++ & 0x3FFu)) + 0x10000);
    }

    static unsigned Length(int cp) { return qd_utf16len_of_codepoint(cp); }

    static unsigned Encode(int cp, Unit* out)
    {
        if (cp < 0x10000) {
            out[0] = static_cast<Unit>(cp);
            return 1;
        }
        const unsigned offset = static_cast<unsigned>(cp) - 0x10000;
        out[0] = static_cast<Unit>(0xD800 | offset >> 10);
        out[1] = static_cast<Unit>(0xDC00 | (offset & 0x3FF));
        return 2;
    }
};

struct Utf32
{
    using Unit = uint32_t;
    static constexpr unsigned kMaxUnits = 1;

    static int Decode(const Unit*& p, const Unit*) { return static_cast<int>(*p++); }

    static unsigned Length(int) { return 1; }

    static unsigned Encode(int cp, Unit* out)
    {
        out[0] = static_cast<Unit>(cp);
        return 1;
    }
};

// Run conversions. RunByCodePoint is the rule; what stands in front of its calls below are loops for long runs that
// come to the same result while both ends are far enough away. Stores may run ahead of the count of written units, but
// only where later units certainly overwrite them.

template<class From, class To, bool Writes>
unsigned RunByCodePoint(const typename From::Unit* src, const typename From::Unit* end, typename To::Unit* dst,
                        size_t written, size_t dstSize)
{
    while (src < end) {
        const int cp = From::Decode(src, end);
        const size_t room = dstSize - written;
        if (room < To::kMaxUnits && room < To::Length(cp))
            break;
        if constexpr (Writes)
            written += To::Encode(cp, dst + written);
        else
            written += To::Length(cp);
    }
    return static_cast<unsigned>(written);
}

template<class From, class To>
unsigned Convert(const typename From::Unit* src, unsigned srcLen, typename To::Unit* dst, unsigned dstSize)
{
    return RunByCodePoint<From, To, true>(src, src + srcLen, dst, 0, dstSize);
}

template<class From, class To>
unsigned Measure(const typename From::Unit* src, unsigned srcLen, unsigned maxLen)
{
    return RunByCodePoint<From, To, false>(src, src + srcLen, nullptr, 0, maxLen);
}

constexpr bool kLittleEndian = std::endian::native == std::endian::little;
constexpr ptrdiff_t kWordBytes = sizeof(size_t);
constexpr ptrdiff_t kBlock = 16; // units that are looked at together

// Bytes. No array is larger, so a room beyond it stands for "enough": with 32 bits, pointers could not express it.
constexpr size_t kLargestArray = std::numeric_limits<ptrdiff_t>::max();

// A machine word with `value` in each of its units.
template<class Unit>
constexpr size_t InEachUnit(size_t value)
{
    return std::numeric_limits<size_t>::max() / std::numeric_limits<Unit>::max() * value;
}

constexpr size_t kTopBits = InEachUnit<uint8_t>(0x80);

size_t LoadWord(const void* p)
{
    size_t word;
    std::memcpy(&word, p, sizeof word);
    return word;
}

template<class Unit>
bool IsAsciiBlock(const Unit* src)
{
    size_t bits = 0;
    for (ptrdiff_t i = 0; i < kBlock; i += kWordBytes / ptrdiff_t{sizeof *src})
        bits |= LoadWord(src + i);
    return (bits & ~InEachUnit<Unit>(0x7F)) == 0;
}

template<ptrdiff_t Count, class From, class To>
void CopyUnits(const From* src, To* dst)
{
    for (ptrdiff_t i = 0; i < Count; ++i)
        dst[i] = static_cast<To>(src[i]);
}

// A sequence as one number with its lead lowest, in any byte order.
uint32_t LoadFour(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

// Whether a well-formed sequence of that length starts at `p`, or `bytes`, whose code point then is `value`.
bool IsTwoBytes(const uint8_t* p)
{
    return p[0] >= 0xC2 && p[0] < 0xE0 && IsContinuation(p[1]);
}

bool IsThreeBytes(uint32_t bytes, uint32_t& value)
{
    value = (bytes & 0x0F) << 12 | (bytes >> 2 & 0xFC0) | (bytes >> 16 & 0x3F);
    return (bytes & 0xC0C0F0) == 0x8080E0 && value >= 0x800 && (value & 0xF800) != 0xD800;
}

bool IsFourBytes(uint32_t bytes, uint32_t& value)
{
    value = (bytes & 0x07) << 18 | (bytes << 4 & 0x3F000) | (bytes >> 10 & 0xFC0) | (bytes >> 24 & 0x3F);
    return (bytes & 0xC0C0C0F8) == 0x808080F0 && value >= 0x10000 && value < 0x110000;
}

// Utf8::Decode where four bytes can be read.
int DecodeInside(const uint8_t*& p, const uint8_t* end)
{
    const uint32_t bytes = LoadFour(p);
    uint32_t value = 0;
    if (p[0] < 0xE0) {
        if (IsTwoBytes(p)) {
            p += 2;
            return static_cast<int>((bytes & 0x1F) << 6 | (bytes >> 8 & 0x3F));
        }
    } else if (p[0] < 0xF0) {
        if (IsThreeBytes(bytes, value)) {
            p += 3;
            return static_cast<int>(value);
        }
    } else if (IsFourBytes(bytes, value)) {
        p += 4;
        return static_cast<int>(value);
    }
    return Utf8::Decode(p, end);
}

// Widens the ASCII at `src`, one byte or more, and returns how many bytes. A word that is ASCII in its first bytes only
// is stored whole if three more words follow: they make, at four bytes a unit or fewer, all the units stored too much.
template<class Unit>
ptrdiff_t WidenAscii(const uint8_t* src, ptrdiff_t left, Unit* dst, ptrdiff_t room)
{
    ptrdiff_t done = 0;
    while (left - done >= kWordBytes && room - done > kWordBytes && (LoadWord(src + done) & kTopBits) == 0) {
        CopyUnits<kWordBytes>(src + done, dst + done);
        done += kWordBytes;
    }
    if (done != 0)
        return done;
    if (left < 4 * kWordBytes || room <= kWordBytes) {
        dst[0] = src[0];
        return 1;
    }
    CopyUnits<kWordBytes>(src, dst);
    const size_t others = LoadWord(src) & kTopBits;
    return (kLittleEndian ? std::countr_zero(others) : std::countl_zero(others)) / 8;
}

template<class To>
unsigned ConvertUtf8(const uint8_t* src, unsigned srcLen, typename To::Unit* dst, size_t dstSize)
{
    dstSize = std::min(dstSize, kLargestArray / sizeof(typename To::Unit));
    const uint8_t* const end = src + srcLen;
    size_t written = 0;
    uint32_t value = 0;
    const auto isInside = [&] { return end - src >= 4 && dstSize - written >= To::kMaxUnits; };
    while (isInside()) {
        if (src[0] < 0x80 && src[1] >= 0x80) {
            dst[written++] = *src++;
        } else if (src[0] < 0x80) {
            const ptrdiff_t count =
                WidenAscii(src, end - src, dst + written, static_cast<ptrdiff_t>(dstSize - written));
            src += count;
            written += static_cast<size_t>(count);
        } else if (IsTwoBytes(src)) {
            do {
                dst[written++] = static_cast<typename To::Unit>((src[0] & 0x1F) << 6 | (src[1] & 0x3F));
                src += 2;
            } while (src[0] >= 0x80 && isInside() && IsTwoBytes(src));
        } else if (IsThreeBytes(LoadFour(src), value)) {
            do {
                dst[written++] = static_cast<typename To::Unit>(value);
                src += 3;
            } while (isInside() && IsThreeBytes(LoadFour(src), value));
        } else if (IsFourBytes(LoadFour(src), value)) {
            do {
                written += To::Encode(static_cast<int>(value), dst + written);
                src += 4;
            } while (isInside() && IsFourBytes(LoadFour(src), value));
        } else {
            written += To::Encode(Utf8::Decode(src, end), dst + written);
        }
    }
    return RunByCodePoint<Utf8, To, true>(src, end, dst, written, dstSize);
}

// How many code points start in the block at `src`, or 0 when it may not be simply counted: for a sequence of four
// bytes or one that is broken. An overlong sequence of three bytes and a surrogate count one, as their U+FFFD does.
// Reads two bytes more than the block.
size_t CountInBlock(const uint8_t* src)
{
    size_t wrong = 0; // only the top bit of each byte counts
    size_t continuations = 0;
    for (ptrdiff_t i = 0; i < kBlock; i += kWordBytes) {
        const size_t bytes = LoadWord(src + i);
        const size_t next = LoadWord(src + i + 1);
        const size_t afterNext = LoadWord(src + i + 2);
        const size_t leads = bytes & bytes << 1;
        const size_t longLeads = leads & bytes << 2;
        const size_t isNotC0C1 = (bytes & InEachUnit<uint8_t>(0x1E)) + InEachUnit<uint8_t>(0x7E);
        wrong |= (afterNext & ~(afterNext << 1)) ^ ((next & next << 1) | longLeads);
        wrong |= leads & ~longLeads & ~isNotC0C1;
        wrong |= longLeads & bytes << 3;
        continuations += (bytes & ~(bytes << 1) & kTopBits) >> 7;
    }
    if ((wrong & kTopBits) != 0 || IsContinuation(src[0]) || (src[0] >= 0xC0) != IsContinuation(src[1]))
        return 0;
    constexpr int kTopByte = std::numeric_limits<size_t>::digits - 8;
    return kBlock - (continuations * InEachUnit<uint8_t>(1) >> kTopByte);
}

template<class To>
unsigned MeasureUtf8(const uint8_t* src, unsigned srcLen, size_t maxLen)
{
    constexpr ptrdiff_t kAfterFailure = 4 * kBlock; // text that is not plain here is not plain nearby
    const uint8_t* const end = src + srcLen;
    size_t length = 0;
    while (end - src >= kBlock + 3 && maxLen - length > kBlock) {
        if (IsAsciiBlock(src)) {
            length += kBlock;
            src += kBlock;
        } else if (const size_t count = CountInBlock(src); count != 0) {
            length += count;
            src += kBlock;
            for (int i = 0; i < 2 && IsContinuation(*src); ++i)
                ++src; // the rest of the last one
        } else {
            const uint8_t* const stop = src + std::min(kAfterFailure, end - src - 3);
            do
                length += To::Length(DecodeInside(src, end));
            while (src < stop && maxLen - length >= To::kMaxUnits);
        }
    }
    return RunByCodePoint<Utf8, To, false>(src, end, nullptr, length, maxLen);
}

// Writes the units of a word that are all below 0x800, without a branch: each as a pair of bytes, the second of which
// is overwritten by the next unit where one is enough. Little-endian machines only.
uint8_t* PutNarrowWord(size_t units, uint8_t* out)
{
    const size_t isPair = (units + InEachUnit<uint16_t>(0x7F80)) >> 15 & InEachUnit<uint16_t>(1);
    const size_t pairMask = (isPair << 16) - isPair;
    const size_t pairs = (units >> 6 & InEachUnit<uint16_t>(0x1F)) | (units & InEachUnit<uint16_t>(0x3F)) << 8 |
                         InEachUnit<uint16_t>(0x80C0);
    const size_t bytes = (pairs & pairMask) | (units & ~pairMask);
    const size_t ends = isPair * InEachUnit<uint16_t>(1) + static_cast<size_t>(0x0004000300020001);
    size_t start = 0;
    for (int shift = 0; shift < std::numeric_limits<size_t>::digits; shift += 16) {
        const uint16_t pair = static_cast<uint16_t>(bytes >> shift);
        std::memcpy(out + start, &pair, sizeof pair);
        start = ends >> shift & 0xFF;
    }
    return out + start;
}

unsigned ConvertUtf16ToUtf8(const uint16_t* src, unsigned srcLen, uint8_t* dst, unsigned dstSize)
{
    constexpr ptrdiff_t kWordUnits = kWordBytes / 2;
    const uint16_t* const end = src + srcLen;
    uint8_t* out = dst;
    const uint8_t* const outEnd = dst + std::min<size_t>(dstSize, kLargestArray);
    // One unit more than a word, so that a pair is never cut and the last stored byte is always overwritten.
    while (end - src > kWordUnits && outEnd - out >= 4 * kWordUnits) {
        const size_t units = LoadWord(src);
        if ((units & ~InEachUnit<uint16_t>(0x7F)) == 0 && end - src >= kBlock && outEnd - out >= kBlock &&
            IsAsciiBlock(src)) {
            CopyUnits<kBlock>(src, out);
            src += kBlock;
            out += kBlock;
        } else if (kLittleEndian && (units & ~InEachUnit<uint16_t>(0x7FF)) == 0) {
            out = PutNarrowWord(units, out);
            src += kWordUnits;
        } else {
            const uint16_t* const stop = src + kWordUnits;
            do {
                // Most text here has three bytes a unit: told apart by one comparison.
                if (const int unit = *src; unit >= 0x800 && unit < 0xD800) {
                    out += Utf8::Encode(unit, out);
                    ++src;
                } else {
                    out += Utf8::Encode(Utf16::Decode(src, end), out);
                }
            } while (src < stop);
        }
    }
    return RunByCodePoint<Utf16, Utf8, true>(src, end, dst, static_cast<size_t>(out - dst), dstSize);
}

// Adds up what each unit takes by itself and subtracts 2 for each pair, which takes 4 bytes and not 3 and 3. No branch
// depends on the text.
unsigned MeasureUtf16AsUtf8(const uint16_t* src, unsigned srcLen, unsigned maxLen)
{
    constexpr ptrdiff_t kPart = 64;
    const uint16_t* const end = src + srcLen;
    size_t length = 0;
    while (src < end) {
        if (end - src >= kBlock && maxLen - length >= kBlock && IsAsciiBlock(src)) {
            length += kBlock;
            src += kBlock;
            continue;
        }
        ptrdiff_t count = std::min(kPart, end - src);
        if (count < end - src && IsHighSurrogate(src[count - 1]))
            --count;
        uint16_t bytes = 0;
        for (ptrdiff_t i = 0; i < count; ++i)
            bytes = static_cast<uint16_t>(bytes + 1 + (src[i] >= 0x80) + (src[i] >= 0x800));
        for (ptrdiff_t i = 1; i < count; ++i)
            bytes = static_cast<uint16_t>(bytes - 2 * IsPair(src[i - 1], src[i]));
        if (bytes > maxLen - length)
            break;
        length += bytes;
        src += count;
    }
    return RunByCodePoint<Utf16, Utf8, false>(src, end, nullptr, length, maxLen);
}

} // namespace
