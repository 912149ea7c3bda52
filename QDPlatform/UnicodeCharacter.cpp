#include <QDPlatform/UnicodeCharacter.h>

#include <QDPlatform/QDString.h>

namespace
{

constexpr UnicodeCharacterRecord kIdeograph = {0, UnicodeCategoryLo, 0, UnicodeJoiningU, UnicodeBidiL};
constexpr UnicodeCharacterRecord kUnassigned = {0, UnicodeCategoryCn, 0, UnicodeJoiningU, UnicodeBidiL};

bool IsBetween(int first, int cp, int last)
{
    return first <= cp && cp <= last;
}

const UnicodeCharacterRecord& RecordOf(int cp)
{
    if (const UnicodeCharacterRecord* record = UnicodeCharTable::FindCharacter(cp))
        return *record;
    const bool isIdeograph = IsBetween(UnicodeCharTable::kFirstIdeograph, cp, UnicodeCharTable::kLastIdeograph);
    return isIdeograph ? kIdeograph : kUnassigned;
}

} // namespace

UnicodeCharacter::UnicodeCharacter(int cp)
{
    SetCodePoint(cp);
}

void UnicodeCharacter::SetCodePoint(int cp)
{
    const UnicodeCharacterRecord& record = RecordOf(cp);
    m_CodePoint = cp;
    m_OtherCase = record.m_OtherCase;
    m_GeneralCategory = record.m_GeneralCategory;
    m_DigitValue = record.m_DigitValue;
}

void UnicodeCharacter::ToUpper()
{
    if (m_GeneralCategory == UnicodeCategoryLl)
        SetCodePoint(m_OtherCase);
}

void UnicodeCharacter::ToLower()
{
    if (m_GeneralCategory == UnicodeCategoryLu)
        SetCodePoint(m_OtherCase);
}

bool UnicodeCharacter::IsWhitespace() const
{
    return m_CodePoint == '\t' || m_CodePoint == '\n' || m_CodePoint == '\r' ||
           IsBetween(UnicodeCategoryZs, m_GeneralCategory, UnicodeCategoryZp);
}

bool UnicodeCharacter::IsLetter() const
{
    return m_GeneralCategory <= UnicodeCategoryLo;
}

bool UnicodeCharacter::IsLetterOrDigit() const
{
    return IsLetter() || m_GeneralCategory == UnicodeCategoryNd;
}

bool UnicodeCharacter::IsPrintable() const
{
    return IsBetween(UnicodeCategoryNd, m_GeneralCategory, UnicodeCategorySo) || m_CodePoint == ' ' || IsLetter();
}

bool UnicodeCharacter::IsASCIILetter() const
{
    return IsBetween('A', m_CodePoint, 'Z') || IsBetween('a', m_CodePoint, 'z');
}

bool UnicodeCharacter::IsASCIIDigit() const
{
    return IsBetween('0', m_CodePoint, '9');
}

bool UnicodeCharacter::IsASCIIHexDigit() const
{
    return IsBetween('A', m_CodePoint, 'F') || IsBetween('a', m_CodePoint, 'f') || IsASCIIDigit();
}

int UnicodeCharacter::GetHexDigitValue() const
{
    if (IsBetween('A', m_CodePoint, 'F'))
        return m_CodePoint - 'A' + 10;
    if (IsBetween('a', m_CodePoint, 'f'))
        return m_CodePoint - 'a' + 10;
    return m_DigitValue;
}

bool UnicodeCharacter::IsBase64CodePoint() const
{
    return IsASCIILetter() || IsASCIIDigit() || m_CodePoint == '+' || m_CodePoint == '/' || m_CodePoint == '=';
}

void qd_append_codepoint_to_qdstring(const UnicodeCharacter& ch, std::string& s)
{
    qd_append_codepoint_to_qdstring(ch.GetCodePoint(), s);
}
