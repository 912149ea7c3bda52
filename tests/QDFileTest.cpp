#include <QDPlatform/QDFile.h>

#include <QDPlatform/QDFilePath.h>

#include <cerrno>
#include <type_traits>

#include <gtest/gtest.h>

#include "VirtualSlot.h"

namespace
{

// The least that a file of another kind has to bring; `override` holds each operation to its types.
class OtherFile : public QDFile
{
public:
    bool OpenFileForWrite(const CQDFilePath&) override { return false; }

    bool OpenFileForAppend(const CQDFilePath&) override { return false; }

    bool OpenFileForRead(const CQDFilePath&, bool) override { return false; }

    bool CloseFile() override
    {
        m_Error.SetLastErrorCode(EIO);
        return false;
    }

    bool WriteBytes(const void*, unsigned int) override { return false; }

    bool ReadBytes(void*, unsigned int, unsigned int&) override { return false; }

    bool TruncateFile(long long) override { return false; }

    bool SkipBytes(unsigned int) override { return false; }

    bool SeekToOffset(unsigned int) override { return false; }

    long long GetFileSize() const override { return 0; }

    bool IsFileOpen() const override { return false; }

    bool MaySeekBeyondEnd() const { return m_MaySeekBeyondEnd; }
};

} // namespace

TEST(QDFile, VirtualOperationsStandInTheirOrder)
{
    EXPECT_TRUE(std::is_abstract_v<QDFile>);
    EXPECT_TRUE(std::has_virtual_destructor_v<QDFile>); // takes the positions 0 and 1
    EXPECT_EQ(VirtualSlot(&QDFile::OpenFileForWrite), 2);
    EXPECT_EQ(VirtualSlot(&QDFile::OpenFileForAppend), 3);
    EXPECT_EQ(VirtualSlot(&QDFile::OpenFileForRead), 4);
    EXPECT_EQ(VirtualSlot(&QDFile::CloseFile), 5);
    EXPECT_EQ(VirtualSlot(&QDFile::WriteBytes), 6);
    EXPECT_EQ(VirtualSlot(&QDFile::ReadBytes), 7);
    EXPECT_EQ(VirtualSlot(&QDFile::TruncateFile), 8);
    EXPECT_EQ(VirtualSlot(&QDFile::SkipBytes), 9);
    EXPECT_EQ(VirtualSlot(&QDFile::SeekToOffset), 10);
    EXPECT_EQ(VirtualSlot(&QDFile::GetFileSize), 11);
    EXPECT_EQ(VirtualSlot(&QDFile::IsFileOpen), 12);
}

TEST(QDFile, CannotBeCopied)
{
    EXPECT_FALSE(std::is_copy_constructible_v<OtherFile>);
    EXPECT_FALSE(std::is_copy_assignable_v<OtherFile>);
}

TEST(QDFile, StartsWithoutErrorAndDoesNotSeekBeyondTheEnd)
{
    const OtherFile file;

    EXPECT_EQ(file.GetError().GetLastErrorCode(), 0);
    EXPECT_FALSE(file.MaySeekBeyondEnd());
}

TEST(QDFile, GetErrorGivesWhatADerivedClassStored)
{
    OtherFile file;
    const OtherFile& constFile = file;
    char text[64];

    file.CloseFile();

    EXPECT_EQ(constFile.GetError().GetLastErrorCode(), EIO);
    EXPECT_STREQ(file.GetError().GetLastErrorString(text, sizeof text), "Input/output error");
}
