#include <QDPlatform/CTextOutputFile.h>

#include <QDPlatform/QDFilePath.h>
#include <QDPlatform/QDTextLocation.h>

#include <malloc.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <new>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "ChildProcess.h"
#include "FaultPlan.h"
#include "HexText.h"
#include "OpenDescriptors.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"
#include "VirtualSlot.h"

namespace
{

using TextEncoding = CTextOutputWithEncoding::TextEncoding;

constexpr char kFullDevice[] = "/dev/full"; // every write() fails with ENOSPC
constexpr char kNoSpace[] = "No space left on device";
constexpr char kInputOutput[] = "Input/output error";
constexpr char kNoFile[] = "No such file or directory";
constexpr char kBadDescriptor[] = "Bad file descriptor";

// The size of the disk "size=64k", whole pages on every machine.
constexpr unsigned int kDiskSize = 65536;

// A writer of UTF-8 without a mark, in which a byte is an ASCII character.
class Utf8File : public CTextOutputFile
{
public:
    Utf8File() { SetEncoding(TextEncodingUTF8); }
};

// A writer that keeps nothing in its buffer.
class UnbufferedFile : public CTextOutputFile
{
public:
    bool WriteBytes(const unsigned char* bytes, unsigned int length) override
    {
        return CTextOutputFile::WriteBytes(bytes, length) && FlushBuffer();
    }
};

// Opens a file, in either way.
struct Opening
{
    const char* m_Name;
    bool (CTextOutputFile::*m_Open)(const CQDFilePath& path);
};

constexpr Opening kOpenings[] = {
    {"for write", &CTextOutputFile::OpenTextFileForWrite},
    {"for append", &CTextOutputFile::OpenTextFileForAppend},
};

std::string ErrorOf(CTextOutputFile& output)
{
    char text[256];
    return output.GetLastErrorString(text, sizeof text);
}

std::string SourceNameOf(const CTextOutput& output)
{
    std::string name;
    output.GetTextLocation().GetSourceName(name);
    return name;
}

// Bytes that the heap has given out. Small pieces may count when they are free again. 0 under the address sanitizer,
// which reports what is lost by itself.
std::size_t HeapInUse()
{
    return ::mallinfo2().uordblks;
}

bool WriteText(CTextOutputFile& output, const std::string& text)
{
    return output.WriteBytes(reinterpret_cast<const unsigned char*>(text.data()),
                             static_cast<unsigned int>(text.size()));
}

// Opens the device, where the system has it.
bool OpenFullDevice(CTextOutputFile& output)
{
    return std::filesystem::is_character_file(kFullDevice) && output.OpenTextFileForWrite(kFullDevice);
}

// "line 0", "line 1" and so on, each with its line end.
std::string Lines(int count)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += "line " + std::to_string(i) + "\r\n";
    return text;
}

} // namespace

TEST(CTextOutputFile, IsAnEncodingTextOutputThatCannotBeCopied)
{
    EXPECT_TRUE((std::is_base_of_v<CTextOutputWithEncoding, CTextOutputFile>));
    EXPECT_FALSE(std::is_copy_constructible_v<CTextOutputFile>);
    EXPECT_FALSE(std::is_copy_assignable_v<CTextOutputFile>);
}

TEST(CTextOutputFile, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CTextOutputFile>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&CTextOutputFile::WriteCodePoint), 2);
    EXPECT_EQ(VirtualSlot(&CTextOutputFile::WriteNewLine), 3);
    EXPECT_EQ(VirtualSlot(&CTextOutputFile::IndentNewLine), 4);
    EXPECT_EQ(VirtualSlot(&CTextOutputFile::WriteBytes), 5);
    EXPECT_EQ(VirtualSlot(&CTextOutputFile::CloseFile), -1);
}

TEST(CTextOutputFile, HasTheFieldsItNeedsAndNoMore)
{
    struct Fields : CTextOutputWithEncoding
    {
        CQDTextLocationSourceName* m_pSourceName;
        QDFileUnix m_File;
        unsigned char m_Buffer[1024];
        uint32_t m_BufferLength;
        uint32_t m_BufferWriteCount;
    };

    EXPECT_EQ(sizeof(CTextOutputFile), sizeof(Fields));
}

TEST(CTextOutputFile, StartsWithoutAFile)
{
    CTextOutputFile output;

    EXPECT_EQ(output.GetTextLocation().GetSourceNamePtr(), nullptr);
    EXPECT_EQ(output.GetBufferWriteCount(), 0u);
    EXPECT_TRUE(output.FlushBuffer());
    EXPECT_TRUE(output.CloseFile());
}

// --- Opening and closing -------------------------------------------------------------------------------------------

TEST(CTextOutputFile, NewFileIsLittleEndianUtf16WithItsMark)
{
    const TemporaryFolder folder;
    CTextOutputFile output;

    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    output.PrintLine("ab");
    EXPECT_TRUE(output.CloseFile());

    EXPECT_EQ(ToHex(ReadFileText(folder / "text")), "FFFE610062000D000A00");
}

TEST(CTextOutputFile, OpeningForWriteReplacesTheContent)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "text", "a longer old content");
    Utf8File output;

    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    output.WriteString("new");
    EXPECT_TRUE(output.CloseFile());

    EXPECT_EQ(ReadFileText(folder / "text"), "new");
}

TEST(CTextOutputFile, OpenedFileHasTheMarkOfItsEncoding)
{
    struct Case
    {
        TextEncoding m_Encoding;
        const char* m_Mark;
    };

    const Case cases[] = {
        {CTextOutputWithEncoding::TextEncodingUTF8, ""},
        {CTextOutputWithEncoding::TextEncodingUTF8BOM, "EFBBBF"},
        {CTextOutputWithEncoding::TextEncodingUTF16LEBOM, "FFFE"},
        {CTextOutputWithEncoding::TextEncodingUTF16BEBOM, "FEFF"},
        {CTextOutputWithEncoding::TextEncodingUTF16LE, ""},
        {CTextOutputWithEncoding::TextEncodingUTF16BE, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Encoding);
        const TemporaryFolder folder;
        WriteFileText(folder / "empty", "");
        CTextOutputFile output;
        output.SetEncoding(c.m_Encoding);

        EXPECT_TRUE(output.OpenTextFileForWrite(folder / "written") && output.CloseFile());
        EXPECT_TRUE(output.OpenTextFileForAppend(folder / "made") && output.CloseFile());
        EXPECT_TRUE(output.OpenTextFileForAppend(folder / "empty") && output.CloseFile());

        EXPECT_EQ(ToHex(ReadFileText(folder / "written")), c.m_Mark);
        EXPECT_EQ(ToHex(ReadFileText(folder / "made")), c.m_Mark);
        EXPECT_EQ(ToHex(ReadFileText(folder / "empty")), c.m_Mark);
    }
}

TEST(CTextOutputFile, AppendingToAFileWithContentWritesNoMark)
{
    const TemporaryFolder folder;
    WriteFileText(folder / "text", "x");
    CTextOutputFile output;
    output.SetEncoding(CTextOutputWithEncoding::TextEncodingUTF8BOM);

    ASSERT_TRUE(output.OpenTextFileForAppend(folder / "text"));
    output.WriteString("y");
    EXPECT_TRUE(output.CloseFile());

    EXPECT_EQ(ReadFileText(folder / "text"), "xy");
}

TEST(CTextOutputFile, MarkDecisionOfAnAppendIsThatOfTheNewFile)
{
    const TemporaryFolder folder;
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "long"));
    output.WriteString("text");
    ASSERT_TRUE(output.CloseFile());

    ASSERT_TRUE(output.OpenTextFileForAppend(folder / "new"));
    ASSERT_TRUE(output.CloseFile());
    ASSERT_TRUE(output.OpenTextFileForAppend(folder / "long"));
    ASSERT_TRUE(output.CloseFile());

    EXPECT_EQ(ToHex(ReadFileText(folder / "new")), "FFFE");
    EXPECT_EQ(ToHex(ReadFileText(folder / "long")), "FFFE7400650078007400");
}

TEST(CTextOutputFile, FileThatCannotBeOpenedIsReported)
{
    const TemporaryFolder folder;

    struct Case
    {
        const char* m_Name;
        std::string m_Path;
        const char* m_Error;
    };

    const Case cases[] = {
        {"missing folder", folder / "none/text", kNoFile},
        {"folder", folder.GetPath(), "Is a directory"},
        {"name of 300 bytes", folder / std::string(300, 'x'), "File name too long"},
        {"empty path", "", kNoFile},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        const int descriptors = CountOpenDescriptors();
        CTextOutputFile output;

        EXPECT_FALSE(output.OpenTextFileForWrite(c.m_Path));
        EXPECT_EQ(ErrorOf(output), c.m_Error);
        EXPECT_FALSE(output.OpenTextFileForAppend(c.m_Path));
        EXPECT_EQ(ErrorOf(output), c.m_Error);

        EXPECT_EQ(output.GetTextLocation().GetSourceNamePtr(), nullptr);
        EXPECT_EQ(CountOpenDescriptors(), descriptors);
        EXPECT_TRUE(output.CloseFile()); // no mark is waiting
    }
}

TEST(CTextOutputFile, MarkThatCannotBeWrittenClosesTheFile)
{
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        const TemporaryFolder folder;
        const int descriptors = CountOpenDescriptors();
        UnbufferedFile output;
        {
            const FaultPlan plan("write", 1, EIO);

            EXPECT_FALSE((output.*opening.m_Open)(folder / "text"));
        }

        EXPECT_EQ(ErrorOf(output), kInputOutput);
        EXPECT_EQ(CountOpenDescriptors(), descriptors);
        EXPECT_EQ(output.GetTextLocation().GetSourceNamePtr(), nullptr);
        EXPECT_EQ(ReadFileText(folder / "text"), "");
        EXPECT_TRUE(output.CloseFile()); // no mark is waiting
    }
}

TEST(CTextOutputFile, LocationNamesTheOpenFileAndGoesOnDoingSo)
{
    const TemporaryFolder folder;
    CTextOutputFile output;

    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "one"));
    EXPECT_EQ(SourceNameOf(output), folder / "one");
    output.CloseFile();
    EXPECT_EQ(SourceNameOf(output), folder / "one");
    ASSERT_TRUE(output.OpenTextFileForAppend(folder / "two"));
    EXPECT_EQ(SourceNameOf(output), folder / "two");
    EXPECT_FALSE(output.OpenTextFileForWrite(folder / "none/three"));
    EXPECT_EQ(SourceNameOf(output), folder / "two");
}

TEST(CTextOutputFile, OpeningWithoutMemoryForTheNameChangesNothing)
{
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        const TemporaryFolder folder;
        const CQDFilePath other(folder / "other");
        Utf8File output;
        ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
        WriteText(output, "te");
        const int descriptors = CountOpenDescriptors();

        {
            const AllocationLimit limit(0);
            EXPECT_THROW((output.*opening.m_Open)(other), std::bad_alloc);
        }

        EXPECT_FALSE(std::filesystem::exists(folder / "other"));
        EXPECT_EQ(SourceNameOf(output), folder / "text");
        EXPECT_EQ(CountOpenDescriptors(), descriptors);
        WriteText(output, "xt");
        EXPECT_TRUE(output.CloseFile());
        EXPECT_EQ(ReadFileText(folder / "text"), "text");
    }
}

TEST(CTextOutputFile, SourceNameIsGivenUpOnceByEachClose)
{
    const TemporaryFolder folder;
    std::string path = folder.GetPath();
    while (path.size() < 3000)
        path += "/.";
    const CQDFilePath longPath(path + "/text");
    const CQDFilePath missing(path + "/none/text");
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(longPath));
    ASSERT_TRUE(output.CloseFile());
    const std::size_t before = HeapInUse();

    for (int i = 0; i < 10; ++i) {
        EXPECT_TRUE(output.OpenTextFileForWrite(longPath));
        EXPECT_TRUE(output.OpenTextFileForAppend(longPath)); // closes the first
        EXPECT_FALSE(output.OpenTextFileForWrite(missing));
        EXPECT_TRUE(output.CloseFile());
        EXPECT_TRUE(output.CloseFile());
    }

    EXPECT_LT(HeapInUse(), before + 2000); // one name has 3000 bytes
    EXPECT_GT(HeapInUse() + 2000, before);
    EXPECT_EQ(SourceNameOf(output), path + "/text"); // of which the location holds one
}

TEST(CTextOutputFile, LocationPrintsTheFileWithLineAndColumn)
{
    const TemporaryFolder folder;
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    output.PrintLine("one");
    output.Print("ab");

    char text[512];
    output.GetTextLocation().PrintLocation(text);

    EXPECT_EQ(text, folder / "text" + "(2,3)");
}

TEST(CTextOutputFile, OpeningLeavesLineAndColumn)
{
    const TemporaryFolder folder;
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "one"));
    output.PrintLine();
    output.Print("ab");

    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "two"));

    EXPECT_EQ(output.GetTextLocation().GetLine(), 2);
    EXPECT_EQ(output.GetTextLocation().GetColumn(), 3);
}

TEST(CTextOutputFile, SavedLocationOutlivesTheWriter)
{
    const TemporaryFolder folder;
    CQDTextLocation saved;

    {
        CTextOutputFile output;
        ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
        saved = output.GetTextLocation();
    }

    EXPECT_EQ(saved.GetSourceNamePtr(), folder / "text");
}

TEST(CTextOutputFile, DestructorWritesAndClosesTheFile)
{
    const TemporaryFolder folder;
    const int descriptors = CountOpenDescriptors();

    {
        Utf8File output;
        ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
        output.WriteString("text");
        EXPECT_EQ(ReadFileText(folder / "text"), "");
    }

    EXPECT_EQ(ReadFileText(folder / "text"), "text");
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

TEST(CTextOutputFile, ClosingTwiceSucceeds)
{
    const TemporaryFolder folder;
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));

    EXPECT_TRUE(output.CloseFile());
    EXPECT_TRUE(output.CloseFile());
}

TEST(CTextOutputFile, FailureToCloseIsReported)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    WriteText(output, "text");
    {
        const FaultPlan plan("close", 1, EIO);

        EXPECT_FALSE(output.CloseFile());
    }

    EXPECT_EQ(ErrorOf(output), kInputOutput);
    EXPECT_EQ(ReadFileText(folder / "text"), "text");
    EXPECT_TRUE(output.CloseFile());
    EXPECT_EQ(ErrorOf(output), "Success");
}

TEST(CTextOutputFile, FailureToFlushIsTheReasonAlsoWhenClosingFails)
{
    Utf8File output;
    ASSERT_TRUE(OpenFullDevice(output));
    WriteText(output, "text");
    const FaultPlan plan("close", 1, EIO);

    EXPECT_FALSE(output.CloseFile());

    EXPECT_TRUE(plan.HasFailed());
    EXPECT_EQ(ErrorOf(output), kNoSpace);
}

TEST(CTextOutputFile, TextWrittenBeforeOpeningIsDropped)
{
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        const TemporaryFolder folder;
        WriteFileText(folder / "text", "old");
        Utf8File output;
        EXPECT_TRUE(WriteText(output, "early"));

        ASSERT_TRUE((output.*opening.m_Open)(folder / "text"));
        EXPECT_TRUE(WriteText(output, "text"));
        EXPECT_TRUE(output.CloseFile());

        const bool isKept = &opening == &kOpenings[1];
        EXPECT_EQ(ReadFileText(folder / "text"), isKept ? "oldtext" : "text");
    }
}

TEST(CTextOutputFile, TextWrittenWithoutAFileFailsAtTheFlush)
{
    Utf8File output;

    EXPECT_TRUE(WriteText(output, std::string(1024, 'x')));
    EXPECT_FALSE(WriteText(output, "x"));
    EXPECT_EQ(ErrorOf(output), kBadDescriptor);
    EXPECT_FALSE(output.FlushBuffer());

    EXPECT_FALSE(output.CloseFile());
    EXPECT_EQ(ErrorOf(output), kBadDescriptor);
}

// --- Opening while a file is open ----------------------------------------------------------------------------------

TEST(CTextOutputFile, OpeningAnotherFileWritesAndClosesTheFirst)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "one"));
    WriteText(output, "first");
    const int descriptors = CountOpenDescriptors();

    ASSERT_TRUE(output.OpenTextFileForAppend(folder / "two"));
    WriteText(output, "second");
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "three"));

    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    EXPECT_EQ(ReadFileText(folder / "one"), "first");
    EXPECT_EQ(ReadFileText(folder / "two"), "second");
}

TEST(CTextOutputFile, OpeningAMissingFileWritesAndClosesTheFirst)
{
    const TemporaryFolder folder;
    const int descriptors = CountOpenDescriptors();
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "one"));
    WriteText(output, "first");

    EXPECT_FALSE(output.OpenTextFileForWrite(folder / "none/two"));

    EXPECT_EQ(ErrorOf(output), kNoFile);
    EXPECT_EQ(ReadFileText(folder / "one"), "first");
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

TEST(CTextOutputFile, OpeningDropsTextThatTheFirstFileDoesNotTake)
{
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        const TemporaryFolder folder;
        WriteFileText(folder / "empty", "");
        const int descriptors = CountOpenDescriptors();
        Utf8File output;
        ASSERT_TRUE(OpenFullDevice(output));
        WriteText(output, "lost");

        EXPECT_TRUE((output.*opening.m_Open)(folder / "empty"));

        EXPECT_EQ(ErrorOf(output), kNoSpace); // which the opening left
        EXPECT_EQ(SourceNameOf(output), folder / "empty");
        EXPECT_EQ(CountOpenDescriptors(), descriptors + 1);
        WriteText(output, "new");
        EXPECT_TRUE(output.CloseFile());
        EXPECT_EQ(ReadFileText(folder / "empty"), "new");
    }
}

TEST(CTextOutputFile, OpeningGoesOnWhenTheFirstFileDoesNotClose)
{
    for (const Opening& opening : kOpenings) {
        SCOPED_TRACE(opening.m_Name);
        const TemporaryFolder folder;
        Utf8File output;
        ASSERT_TRUE(output.OpenTextFileForWrite(folder / "one"));
        WriteText(output, "first");
        {
            const FaultPlan plan("close", 1, EIO);

            EXPECT_TRUE((output.*opening.m_Open)(folder / "two"));

            EXPECT_TRUE(plan.HasFailed());
        }

        WriteText(output, "second");
        EXPECT_TRUE(output.CloseFile());
        EXPECT_EQ(ReadFileText(folder / "one"), "first");
        EXPECT_EQ(ReadFileText(folder / "two"), "second");
    }
}

TEST(CTextOutputFile, TextGivenUpIsNotWrittenByAFailedOpening)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(OpenFullDevice(output));
    WriteText(output, "lost");

    EXPECT_FALSE(output.OpenTextFileForWrite(folder / "none/text"));

    EXPECT_EQ(ErrorOf(output), kNoFile);
    EXPECT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    EXPECT_TRUE(output.CloseFile());
    EXPECT_EQ(ReadFileText(folder / "text"), "");
}

// --- The buffer ----------------------------------------------------------------------------------------------------

TEST(CTextOutputFile, BufferOf1024BytesIsWrittenWhenMoreBytesCome)
{
    struct Case
    {
        std::size_t m_Length;
        std::size_t m_FileSize; // before the flush
        unsigned int m_WriteCount;
        unsigned int m_FinalWriteCount;
    };

    const Case cases[] = {
        {0, 0, 0, 0},       {1, 0, 0, 1},       {1023, 0, 0, 1},    {1024, 0, 0, 1},
        {1025, 1024, 1, 2}, {2048, 1024, 1, 2}, {2049, 2048, 2, 3}, {5000, 4096, 4, 5},
    };
    for (const bool isAtOnce : {true, false}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message() << c.m_Length << (isAtOnce ? " bytes at once" : " code points"));
            const TemporaryFolder folder;
            std::string text;
            for (std::size_t i = 0; i < c.m_Length; ++i)
                text += static_cast<char>('a' + i % 23);
            Utf8File output;
            ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));

            EXPECT_TRUE(isAtOnce ? WriteText(output, text) : output.WriteString(text));

            EXPECT_EQ(ReadFileText(folder / "text"), text.substr(0, c.m_FileSize));
            EXPECT_EQ(output.GetBufferWriteCount(), c.m_WriteCount);
            EXPECT_TRUE(output.FlushBuffer());
            EXPECT_EQ(ReadFileText(folder / "text"), text);
            EXPECT_EQ(output.GetBufferWriteCount(), c.m_FinalWriteCount);
        }
    }
}

TEST(CTextOutputFile, CodePointAcrossTheEndOfTheBufferIsWhole)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    WriteText(output, std::string(1022, 'x'));

    EXPECT_TRUE(output.WriteCodePoint(0x1F600));

    EXPECT_EQ(ReadFileText(folder / "text"), std::string(1022, 'x') + "\xF0\x9F");
    EXPECT_TRUE(output.FlushBuffer());
    EXPECT_EQ(ReadFileText(folder / "text"), std::string(1022, 'x') + "\xF0\x9F\x98\x80");
}

TEST(CTextOutputFile, MarkIsPartOfTheBuffer)
{
    const TemporaryFolder folder;
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));

    EXPECT_TRUE(output.WriteCodePoints(511, 'x'));
    EXPECT_EQ(output.GetBufferWriteCount(), 0u);
    EXPECT_TRUE(output.WriteCodePoint('x'));

    EXPECT_EQ(output.GetBufferWriteCount(), 1u);
    EXPECT_EQ(ReadFileText(folder / "text").size(), 1024u);
}

TEST(CTextOutputFile, FlushWithoutTextIsNotCounted)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    WriteText(output, "x");
    EXPECT_TRUE(output.FlushBuffer());

    EXPECT_TRUE(output.FlushBuffer());

    EXPECT_EQ(output.GetBufferWriteCount(), 1u);
}

TEST(CTextOutputFile, BufferWritesAreCountedAcrossFiles)
{
    const TemporaryFolder folder;
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "one"));
    ASSERT_TRUE(output.CloseFile());

    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "two"));
    ASSERT_TRUE(output.CloseFile());

    EXPECT_EQ(output.GetBufferWriteCount(), 2u);
}

TEST(CTextOutputFile, WriteOfNoBytesChangesNothing)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));

    EXPECT_TRUE(output.WriteBytes(nullptr, 0));
    output.SetEncoding(static_cast<TextEncoding>(6));
    EXPECT_TRUE(output.WriteString("abc"));

    EXPECT_TRUE(output.CloseFile());
    EXPECT_EQ(ReadFileText(folder / "text"), "");
}

TEST(CTextOutputFile, WritingIsAllocationFree)
{
    const TemporaryFolder folder;
    CTextOutputFile output;
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    const AllocationCounter allocations;

    output.WriteCodePoints(10000, 0x1F600);
    for (int line = 0; line < 1000; ++line)
        output.PrintLine("line %d", line);
    output.FlushBuffer();

    EXPECT_EQ(allocations.GetCount(), 0u);
}

// --- Failures of the disk ------------------------------------------------------------------------------------------

// A file takes one open(), 1024 bytes and then 1, so two write(), and one close(). Each of them fails in turn.
TEST(CTextOutputFile, EachFailingCallIsReportedOnceAndForGood)
{
    constexpr auto kOnce = FaultPlan::Repeat::Once;
    constexpr auto kForever = FaultPlan::Repeat::Forever;

    struct Case
    {
        const char* m_Function;
        int m_Nth;
        FaultPlan::Repeat m_Repeat;
        int m_Errno;
        bool m_HasFailed;
        const char* m_Results; // of opening, both texts, flush and close
        const char* m_Error;   // behind them
        std::size_t m_FileSize;
    };

    const Case cases[] = {
        {"open", 1, kOnce, EMFILE, true, "0----", "Too many open files", 0},
        {"open", 1, kForever, EACCES, true, "0----", "Permission denied", 0},
        {"open", 1, kOnce, EINTR, true, "11111", "Success", 1025}, // which is repeated
        {"open", 2, kForever, EIO, false, "11111", "Success", 1025},
        {"write", 1, kOnce, EIO, true, "11011", "Success", 1024}, // the second text is lost
        {"write", 1, kOnce, EINTR, true, "11011", "Success", 1024},
        {"write", 1, kForever, EIO, true, "11000", kInputOutput, 0},
        {"write", 2, kOnce, EIO, true, "11101", "Success", 1025}, // closing flushes once more
        {"write", 2, kOnce, EINTR, true, "11101", "Success", 1025},
        {"write", 2, kForever, EIO, true, "11100", kInputOutput, 1024},
        {"write", 3, kForever, EIO, false, "11111", "Success", 1025},
        {"close", 1, kOnce, EIO, true, "11110", kInputOutput, 1025},
        {"close", 1, kForever, EINTR, true, "11110", "Interrupted system call", 1025},
        {"close", 2, kForever, EIO, false, "11111", "Success", 1025},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.m_Function << " " << c.m_Nth << " " << c.m_Errno
                                        << (c.m_Repeat == kOnce ? " once" : " for good"));
        const TemporaryFolder folder;
        const CQDFilePath path(folder / "text");
        WriteFileText(path.GetPath(), "");
        const int descriptors = CountOpenDescriptors();
        Utf8File output;
        std::string results;
        {
            const FaultPlan plan(c.m_Function, c.m_Nth, c.m_Errno, c.m_Repeat);

            results += output.OpenTextFileForWrite(path) ? '1' : '0';
            if (results == "1") {
                results += WriteText(output, std::string(1024, 'a')) ? '1' : '0';
                results += WriteText(output, "b") ? '1' : '0';
                results += output.FlushBuffer() ? '1' : '0';
                results += output.CloseFile() ? '1' : '0';
            }

            EXPECT_EQ(plan.HasFailed(), c.m_HasFailed);
        }

        results.resize(5, '-');
        EXPECT_EQ(results, c.m_Results);
        EXPECT_EQ(ErrorOf(output), c.m_Error);
        EXPECT_EQ(ReadFileText(path.GetPath()), (std::string(1024, 'a') + "b").substr(0, c.m_FileSize));
        EXPECT_EQ(CountOpenDescriptors(), descriptors);
    }
}

TEST(CTextOutputFile, FullDeviceFailsAtTheFirstFlushAndAtEachThatFollows)
{
    const int descriptors = CountOpenDescriptors();
    Utf8File output;
    ASSERT_TRUE(OpenFullDevice(output));

    EXPECT_TRUE(WriteText(output, std::string(1024, 'x')));
    EXPECT_FALSE(output.WriteCodePoint('x'));
    EXPECT_EQ(ErrorOf(output), kNoSpace);
    EXPECT_FALSE(output.WriteString("x"));
    EXPECT_FALSE(output.FlushBuffer());
    EXPECT_EQ(output.GetBufferWriteCount(), 0u);

    EXPECT_FALSE(output.CloseFile());
    EXPECT_EQ(ErrorOf(output), kNoSpace); // the close that succeeded does not hide it
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

TEST(CTextOutputFile, TextGivenUpAtCloseIsDroppedByTheNextOpening)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(OpenFullDevice(output));
    WriteText(output, "lost");
    ASSERT_FALSE(output.CloseFile());

    EXPECT_FALSE(output.CloseFile()); // the text is still there, the file is not
    EXPECT_EQ(ErrorOf(output), kBadDescriptor);
    ASSERT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    WriteText(output, "new");
    EXPECT_TRUE(output.CloseFile());

    EXPECT_EQ(ReadFileText(folder / "text"), "new");
}

TEST(CTextOutputFile, FullDiskLosesNothingThatIsBuffered)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    const std::string text = Lines(6100); // 65,990 bytes, of which 65,536 find room on the disk
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(disk / "text"));
    ASSERT_TRUE(output.WriteString(text));
    ASSERT_EQ(ReadFileText(disk / "text").size(), kDiskSize);

    EXPECT_FALSE(output.FlushBuffer());
    EXPECT_EQ(ErrorOf(output), kNoSpace);
    EXPECT_FALSE(output.FlushBuffer());
    EXPECT_EQ(ReadFileText(disk / "text"), text.substr(0, kDiskSize));
    ASSERT_TRUE(disk.Resize("size=256k"));
    EXPECT_TRUE(output.FlushBuffer());

    EXPECT_EQ(ReadFileText(disk / "text"), text);
    EXPECT_EQ(output.GetBufferWriteCount(), 65u);
    EXPECT_TRUE(output.CloseFile());
}

TEST(CTextOutputFile, CodePointsThatFindNoRoomAreLostAndLaterOnesAreNot)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(disk / "text"));
    ASSERT_TRUE(output.WriteCodePoints(kDiskSize + 1024, 'x'));

    EXPECT_FALSE(output.WriteString("lost"));
    EXPECT_FALSE(output.WriteNewLine());
    EXPECT_EQ(output.GetTextLocation().GetLine(), 1);
    ASSERT_TRUE(disk.Resize("size=256k"));
    EXPECT_TRUE(output.WriteString("kept"));
    EXPECT_TRUE(output.CloseFile());

    EXPECT_EQ(ReadFileText(disk / "text"), std::string(kDiskSize + 1024, 'x') + "kept");
}

TEST(CTextOutputFile, FailingFlushKeepsTheFirstBytesOfACodePoint)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(disk / "text"));
    ASSERT_TRUE(output.WriteCodePoints(kDiskSize + 1022, 'x'));

    EXPECT_FALSE(output.WriteCodePoint(0x1F600));
    ASSERT_TRUE(disk.Resize("size=256k"));
    EXPECT_TRUE(output.CloseFile());

    EXPECT_EQ(ReadFileText(disk / "text"), std::string(kDiskSize + 1022, 'x') + "\xF0\x9F");
}

TEST(CTextOutputFile, FlushAfterAPartialWriteRepeatsThePart)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    const std::string old(kDiskSize - 100, 'o');
    WriteFileText(disk / "text", old);
    const std::string text = std::string(100, 'a') + std::string(50, 'b');
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForAppend(disk / "text"));
    ASSERT_TRUE(WriteText(output, text));

    EXPECT_FALSE(output.FlushBuffer());
    EXPECT_EQ(ErrorOf(output), "Success"); // the system did not fail
    EXPECT_EQ(ReadFileText(disk / "text"), old + std::string(100, 'a'));
    EXPECT_FALSE(output.FlushBuffer());
    EXPECT_EQ(ErrorOf(output), kNoSpace);
    ASSERT_TRUE(disk.Resize("size=256k"));
    EXPECT_TRUE(output.FlushBuffer());

    EXPECT_EQ(ReadFileText(disk / "text"), old + std::string(100, 'a') + text);
    EXPECT_EQ(output.GetBufferWriteCount(), 1u);
}

TEST(CTextOutputFile, WriterOnAFullDiskMovesToAnotherDisk)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_TRUE(output.OpenTextFileForWrite(disk / "text"));
    ASSERT_TRUE(output.WriteCodePoints(kDiskSize + 500, 'x'));

    EXPECT_TRUE(output.OpenTextFileForWrite(folder / "text"));
    EXPECT_TRUE(output.WriteString("new"));
    EXPECT_TRUE(output.CloseFile());

    EXPECT_EQ(ReadFileText(disk / "text"), std::string(kDiskSize, 'x'));
    EXPECT_EQ(ReadFileText(folder / "text"), "new");
}

TEST(CTextOutputFile, ReadOnlyDiskIsReported)
{
    SmallFileSystem disk("size=64k");
    if (!disk.IsMounted())
        GTEST_SKIP() << disk.GetReason();
    WriteFileText(disk / "text", "old");
    ASSERT_TRUE(disk.MakeReadOnly());
    Utf8File output;

    EXPECT_FALSE(output.OpenTextFileForWrite(disk / "text"));
    EXPECT_EQ(ErrorOf(output), "Read-only file system");
    EXPECT_FALSE(output.OpenTextFileForAppend(disk / "text"));

    EXPECT_EQ(ReadFileText(disk / "text"), "old");
}

TEST(CTextOutputFile, ErrorTextFitsTheCallersBuffer)
{
    const TemporaryFolder folder;
    Utf8File output;
    ASSERT_FALSE(output.OpenTextFileForWrite(folder / "none/text"));
    char text[8] = "1234567";

    EXPECT_EQ(output.GetLastErrorString(text, 0), text);
    EXPECT_STREQ(text, "1234567");
    EXPECT_EQ(output.GetLastErrorString(text, 3), text);
    EXPECT_STREQ(text, "No");
}

// --- Another reader of the files -----------------------------------------------------------------------------------

// All characters of the basic plane, and every 97th of the others.
TEST(CTextOutputFile, PythonDecodesEachEncoding)
{
    const TemporaryFolder folder;
    for (int encoding = 0; encoding < 6; ++encoding) {
        CTextOutputFile output;
        output.SetEncoding(static_cast<TextEncoding>(encoding));
        ASSERT_TRUE(output.OpenTextFileForWrite(folder / std::to_string(encoding)));
        for (int codePoint = 0; codePoint < 0x110000; codePoint += codePoint < 0x10000 ? 1 : 97) {
            if (codePoint < 0xD800 || codePoint > 0xDFFF) {
                ASSERT_TRUE(output.WriteCodePoint(codePoint));
            }
        }
        ASSERT_TRUE(output.CloseFile());
    }
    const char* const script =
        "import sys\n"
        "expected = ''.join(map(chr, [*range(0xD800), *range(0xE000, 0x10000), *range(0x10000, 0x110000, 97)]))\n"
        "for i, codec in enumerate(['utf-8', 'utf-8-sig', 'utf-16', 'utf-16', 'utf-16-le', 'utf-16-be']):\n"
        "    text = open(sys.argv[1] + '/' + str(i), 'rb').read().decode(codec, 'strict')\n"
        "    print(codec, len(text), text == expected)\n";

    ChildProcess python({"python3", "-c", script, folder.GetPath()});

    EXPECT_EQ(python.WaitForExit(), 0) << python.GetErrors();
    EXPECT_EQ(python.GetOutput(), "utf-8 74299 True\nutf-8-sig 74299 True\nutf-16 74299 True\nutf-16 74299 True\n"
                                  "utf-16-le 74299 True\nutf-16-be 74299 True\n");
}
