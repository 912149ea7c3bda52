#pragma once

#include <QDPlatform/UnicodeCharTable.h>

#include <cstddef>
#include <cstdint>

// The index by which UnicodeCharTable finds an element of g_UnicodeAfterFirstN without searching the table.
//
// The table is a few hundred runs of consecutive code points. The index has for each run its first code point, the
// place of that code point's element and the length, and for every 32 code points the run from which to look on: no
// look-up passes more than kLongestWalk further runs. The compiler makes it from the table itself; it takes 13 KiB.
class UnicodeTableIndex
{
public:
    static constexpr int NotFound = -1;

    // The code points of the table lie from kFirstCodePoint to before kEnd, the end of the last element's block.
    static constexpr uint32_t kFirstCodePoint = UnicodeCharTable::kLookupTableLength;
    static constexpr uint32_t kEnd = 0x1FA00;

    // The runs that the slowest look-up passes.
    static constexpr size_t kLongestWalk = 12;

    // `table` must be sorted by code point. With more than kRunCount runs the index does not compile.
    template<size_t Length>
    explicit consteval UnicodeTableIndex(const UnicodeCodePointRecord (&table)[Length])
    {
        static_assert(Length <= 0x10000, "a place must fit 16 bits");
        size_t count = 0;
        for (size_t i = 0; i < Length; ++i) {
            const uint32_t codePoint = static_cast<uint32_t>(table[i].m_CodePoint);
            if (i == 0 || codePoint != static_cast<uint32_t>(table[i - 1].m_CodePoint) + 1)
                m_Runs[count++] = {codePoint, static_cast<uint16_t>(i), 0};
            ++m_Runs[count - 1].m_Length;
        }
        m_Runs[count] = {kEnd, 0, 0};

        uint16_t run = 0;
        for (size_t block = 0; block < kBlockCount; ++block) {
            while (m_Runs[run + 1].m_FirstCodePoint <= kFirstCodePoint + block * kBlockSize)
                ++run;
            m_RunOfBlock[block] = run;
        }
    }

    UnicodeTableIndex(const UnicodeTableIndex&) = delete;
    UnicodeTableIndex& operator=(const UnicodeTableIndex&) = delete;

    // The runs that a look-up passes at most, counted in the index.
    consteval size_t CountLongestWalk() const
    {
        size_t longest = 0;
        for (size_t block = 0; block < kBlockCount; ++block) {
            const uint32_t end = kFirstCodePoint + static_cast<uint32_t>(block + 1) * kBlockSize;
            size_t walk = 0;
            while (m_Runs[m_RunOfBlock[block] + walk + 1].m_FirstCodePoint < end)
                ++walk;
            longest = walk > longest ? walk : longest;
        }
        return longest;
    }

    // The place of `cp` in the table, or NotFound.
    int Find(int cp) const
    {
        const uint32_t codePoint = static_cast<uint32_t>(cp);
        const uint32_t block = (codePoint - kFirstCodePoint) / kBlockSize;
        if (block >= kBlockCount)
            return NotFound;
        const Run* run = &m_Runs[m_RunOfBlock[block]];
        while (run[1].m_FirstCodePoint <= codePoint)
            ++run;
        const uint32_t placeInRun = codePoint - run->m_FirstCodePoint;
        return placeInRun < run->m_Length ? static_cast<int>(run->m_Place + placeInRun) : NotFound;
    }

private:
    static constexpr uint32_t kBlockSize = 32;
    static constexpr uint32_t kBlockCount = (kEnd - kFirstCodePoint) / kBlockSize;
    static constexpr size_t kRunCount = 625;

    struct Run
    {
        uint32_t m_FirstCodePoint;
        uint16_t m_Place; // of the first code point's element
        uint16_t m_Length;
    };

    Run m_Runs[kRunCount + 1] = {};          // the last one is an end mark
    uint16_t m_RunOfBlock[kBlockCount] = {}; // the last run that starts at or before the block's first code point
};

// Of g_UnicodeAfterFirstN.
extern const UnicodeTableIndex g_UnicodeTableIndex;
