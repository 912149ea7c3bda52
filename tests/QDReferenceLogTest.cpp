#include <QDPlatform/QDReferenceLog.h>

#include "RecordingLog.h"

#include <QDPlatform/QDRefCount.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

TEST(QDReferenceLog, EachChangeIsPrintedWithTheNewCount)
{
    RecordingLog log;
    CQDRefCount count;

    qd_add_reference(count, &log, "Echo 7", 6);
    qd_add_reference(count, &log, "Echo 7", 6);
    EXPECT_FALSE(qd_release_reference(count, &log, "Echo 7", 6));
    EXPECT_TRUE(qd_release_reference(count, &log, "Echo 7", 6));

    EXPECT_EQ(log.GetTexts(),
              (std::vector<std::string>{"Echo 7: AddRef, RefCount = 1", "Echo 7: AddRef, RefCount = 2",
                                        "Echo 7: Release, RefCount = 1", "Echo 7: Release, RefCount = 0"}));
}

TEST(QDReferenceLog, WithoutALogOnlyTheCountChanges)
{
    CQDRefCount count;

    qd_add_reference(count, nullptr, nullptr, 0);

    EXPECT_EQ(count.GetCount(), 1);
    EXPECT_TRUE(qd_release_reference(count, nullptr, nullptr, 0));
}

TEST(QDReferenceLog, PrefixThatFillsItsBufferIsPrintedWhole)
{
    RecordingLog log;
    CQDRefCount count;
    count.Increment();

    EXPECT_TRUE(qd_release_reference(count, &log, "a name of thirty-one characters", 31));

    EXPECT_TRUE(log.Has("a name of thirty-one characters: Release, RefCount = 0"));
}
