#include <QDPlatform/UnicodeCharTable.h>

#include <QDPlatform/UnicodeTables.h>

const UnicodeCharacterRecord* UnicodeCharTable::FindCharacter(int cp)
{
    if (static_cast<unsigned>(cp) < kLookupTableLength) // false for negative ones too
        return &g_UnicodeLookupTable[cp];
    const int place = g_UnicodeTableIndex.Find(cp);
    return place == UnicodeTableIndex::NotFound ? nullptr : &g_UnicodeAfterFirstN[place].m_Record;
}
