#include <QDPlatform/CTextOutputWithEncoding.h>

#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "HexText.h"
#include "VirtualSlot.h"

namespace
{

using TextEncoding = CTextOutputWithEncoding::TextEncoding;
using Calls = std::vector<std::string>;

// Keeps the bytes of each call of WriteBytes(), in hexadecimal.
class ByteOutput : public CTextOutputWithEncoding
{
public:
    bool WriteBytes(const unsigned char* bytes, unsigned int length) override
    {
        m_Calls.push_back(ToHex({reinterpret_cast<const char*>(bytes), length}));
        return m_Result;
    }

    Calls m_Calls;
    bool m_Result{true};
};

// Counts the bytes.
class CountingOutput : public CTextOutputWithEncoding
{
public:
    bool WriteBytes(const unsigned char*, unsigned int length) override
    {
        m_Count += length;
        return true;
    }

    unsigned int m_Count{0};
};

Calls CallsFor(TextEncoding encoding, int codePoint)
{
    ByteOutput output;
    output.SetEncoding(encoding);
    EXPECT_TRUE(output.WriteCodePoint(codePoint));
    return output.m_Calls;
}

struct CodePointCase
{
    int m_CodePoint;
    const char* m_Bytes;
};

void ExpectBytes(const std::vector<TextEncoding>& encodings, const std::vector<CodePointCase>& cases)
{
    for (const TextEncoding encoding : encodings) {
        for (const CodePointCase& c : cases) {
            SCOPED_TRACE(testing::Message() << "encoding " << encoding << ", code point " << c.m_CodePoint);
            EXPECT_EQ(CallsFor(encoding, c.m_CodePoint), Calls{c.m_Bytes});
        }
    }
}

} // namespace

TEST(CTextOutputWithEncoding, IsAnAbstractTextOutput)
{
    EXPECT_TRUE((std::is_base_of_v<CTextOutput, CTextOutputWithEncoding>));
    EXPECT_TRUE(std::is_abstract_v<CTextOutputWithEncoding>);
}

TEST(CTextOutputWithEncoding, HasTheFieldsItNeedsAndNoMore)
{
    struct Fields : CTextOutput
    {
        TextEncoding m_Encoding;
    };

    EXPECT_EQ(sizeof(CTextOutputWithEncoding), sizeof(Fields));
}

TEST(CTextOutputWithEncoding, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CTextOutputWithEncoding>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&CTextOutputWithEncoding::WriteCodePoint), 2);
    EXPECT_EQ(VirtualSlot(&CTextOutputWithEncoding::WriteNewLine), 3);
    EXPECT_EQ(VirtualSlot(&CTextOutputWithEncoding::IndentNewLine), 4);
    EXPECT_EQ(VirtualSlot(&CTextOutputWithEncoding::WriteBytes), 5);
}

TEST(CTextOutputWithEncoding, EncodingsHaveTheirNumbers)
{
    EXPECT_EQ(CTextOutputWithEncoding::TextEncodingUTF8, 0);
    EXPECT_EQ(CTextOutputWithEncoding::TextEncodingUTF8BOM, 1);
    EXPECT_EQ(CTextOutputWithEncoding::TextEncodingUTF16LEBOM, 2);
    EXPECT_EQ(CTextOutputWithEncoding::TextEncodingUTF16BEBOM, 3);
    EXPECT_EQ(CTextOutputWithEncoding::TextEncodingUTF16LE, 4);
    EXPECT_EQ(CTextOutputWithEncoding::TextEncodingUTF16BE, 5);
    EXPECT_EQ(sizeof(TextEncoding), 4u);
}

TEST(CTextOutputWithEncoding, StartsWithLittleEndianUtf16AndItsMark)
{
    ByteOutput output;

    EXPECT_TRUE(output.WriteEncoding());
    EXPECT_TRUE(output.WriteCodePoint('a'));

    EXPECT_EQ(output.m_Calls, (Calls{"FFFE", "6100"}));
}

TEST(CTextOutputWithEncoding, MarkIsThatOfTheEncoding)
{
    struct Case
    {
        TextEncoding m_Encoding;
        Calls m_Calls;
    };

    const Case cases[] = {
        {CTextOutputWithEncoding::TextEncodingUTF8, {}},
        {CTextOutputWithEncoding::TextEncodingUTF8BOM, {"EFBBBF"}},
        {CTextOutputWithEncoding::TextEncodingUTF16LEBOM, {"FFFE"}},
        {CTextOutputWithEncoding::TextEncodingUTF16BEBOM, {"FEFF"}},
        {CTextOutputWithEncoding::TextEncodingUTF16LE, {}},
        {CTextOutputWithEncoding::TextEncodingUTF16BE, {}},
        {static_cast<TextEncoding>(6), {}},
        {static_cast<TextEncoding>(-1), {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Encoding);
        ByteOutput output;
        output.SetEncoding(c.m_Encoding);

        EXPECT_TRUE(output.WriteEncoding());

        EXPECT_EQ(output.m_Calls, c.m_Calls);
        EXPECT_EQ(output.GetTextLocation().GetIndexInLine(), 0);
    }
}

TEST(CTextOutputWithEncoding, CodePointsBecomeUtf8)
{
    ExpectBytes({CTextOutputWithEncoding::TextEncodingUTF8, CTextOutputWithEncoding::TextEncodingUTF8BOM},
                {
                    {0, "00"},
                    {'a', "61"},
                    {0x7F, "7F"},
                    {0x80, "C280"},
                    {0x7FF, "DFBF"},
                    {0x800, "E0A080"},
                    {0x20AC, "E282AC"},
                    {0xD800, "EDA080"}, // surrogates are not checked for
                    {0xDFFF, "EDBFBF"},
                    {0xFFFF, "EFBFBF"},
                    {0x10000, "F0908080"},
                    {0x1F600, "F09F9880"},
                    {0x10FFFF, "F48FBFBF"},
                    {0x110000, "F4908080"}, // nor are values beyond Unicode
                    {-1, "FF"},
                });
}

TEST(CTextOutputWithEncoding, CodePointsBecomeLittleEndianUtf16)
{
    ExpectBytes({CTextOutputWithEncoding::TextEncodingUTF16LEBOM, CTextOutputWithEncoding::TextEncodingUTF16LE},
                {
                    {0, "0000"},
                    {'a', "6100"},
                    {0x20AC, "AC20"},
                    {0xD800, "00D8"},
                    {0xFFFF, "FFFF"},
                    {0x10000, "00D800DC"},
                    {0x1F600, "3DD800DE"},
                    {0x10FFFF, "FFDBFFDF"},
                    {0x110000, "00DC00DC"},
                    {-1, "FFFF"},
                });
}

TEST(CTextOutputWithEncoding, CodePointsBecomeBigEndianUtf16)
{
    ExpectBytes({CTextOutputWithEncoding::TextEncodingUTF16BEBOM, CTextOutputWithEncoding::TextEncodingUTF16BE},
                {
                    {0, "0000"},
                    {'a', "0061"},
                    {0x20AC, "20AC"},
                    {0xD800, "D800"},
                    {0xFFFF, "FFFF"},
                    {0x10000, "D800DC00"},
                    {0x1F600, "D83DDE00"},
                    {0x10FFFF, "DBFFDFFF"},
                    {0x110000, "DC00DC00"},
                    {-1, "FFFF"},
                });
}

TEST(CTextOutputWithEncoding, UnknownEncodingPassesNoBytesForEachCodePoint)
{
    for (const int encoding : {6, -1, 0x7FFFFFFF}) {
        SCOPED_TRACE(encoding);
        ByteOutput output;
        output.SetEncoding(static_cast<TextEncoding>(encoding));

        EXPECT_TRUE(output.WriteCodePoint('a'));
        EXPECT_TRUE(output.WriteCodePoint(0x1F600));

        EXPECT_EQ(output.m_Calls, (Calls{"", ""}));
    }
}

TEST(CTextOutputWithEncoding, EncodingCountsFromTheNextCodePoint)
{
    ByteOutput output;
    output.SetEncoding(CTextOutputWithEncoding::TextEncodingUTF16BE);
    output.WriteCodePoint('a');

    output.SetEncoding(CTextOutputWithEncoding::TextEncodingUTF8BOM);
    output.WriteCodePoint('a');

    EXPECT_EQ(output.m_Calls, (Calls{"0061", "61"}));
}

TEST(CTextOutputWithEncoding, FailureOfTheSinkIsTheResult)
{
    ByteOutput output;
    output.m_Result = false;

    EXPECT_FALSE(output.WriteCodePoint('a'));
    EXPECT_FALSE(output.WriteEncoding());
    output.SetEncoding(CTextOutputWithEncoding::TextEncodingUTF8);
    EXPECT_FALSE(output.WriteCodePoint('a'));
    output.SetEncoding(static_cast<TextEncoding>(6));
    EXPECT_FALSE(output.WriteCodePoint('a'));
    EXPECT_TRUE(output.WriteEncoding()); // there is nothing to fail
}

TEST(CTextOutputWithEncoding, LineEndsAreEncodedToo)
{
    ByteOutput output;
    output.SetEncoding(CTextOutputWithEncoding::TextEncodingUTF16BE);

    output.PrintLine("a");

    EXPECT_EQ(output.m_Calls, (Calls{"0061", "000D", "000A"}));
    EXPECT_EQ(output.GetTextLocation().GetLine(), 2);
}

TEST(CTextOutputWithEncoding, WritingIsAllocationFree)
{
    for (int encoding = 0; encoding < 6; ++encoding) {
        SCOPED_TRACE(encoding);
        CountingOutput output;
        output.SetEncoding(static_cast<TextEncoding>(encoding));
        const AllocationCounter allocations;

        output.WriteEncoding();
        output.WriteCodePoints(1000, 0x1F600);
        output.PrintLine("%d", 5);

        EXPECT_EQ(allocations.GetCount(), 0u);
        EXPECT_GE(output.m_Count, 4000u);
    }
}
