#include <QDPlatform/QDFileMonitorThread.h>

#include <QDPlatform/COutputLogNull.h>
#include <QDPlatform/QDFilePath.h>

#include "AllocationCounter.h"
#include "OpenDescriptors.h"
#include "RecordingLog.h"
#include "TemporaryFolder.h"
#include "VirtualSlot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <type_traits>

static_assert(std::is_abstract_v<QDFileMonitorThread> && !std::has_virtual_destructor_v<QDFileMonitorThread>);
static_assert(!std::is_copy_constructible_v<QDFileMonitorThread> && !std::is_copy_assignable_v<QDFileMonitorThread>);
static_assert(!std::is_destructible_v<QDFileMonitorThread>); // but through a derived class
static_assert(sizeof(QDFileMonitorThread) == 2 * sizeof(void*));

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class TestMonitor final : public QDFileMonitorThread
{
public:
    void OnFolderChanged() override { ++m_ChangeCount; }

    int m_ChangeCount{0};
};

int CountThreads()
{
    const std::filesystem::directory_iterator entries("/proc/self/task");
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

} // namespace

TEST(QDFileMonitorThread, NotificationIsTheOnlyVirtualOperation)
{
    EXPECT_EQ(VirtualSlot(&QDFileMonitorThread::OnFolderChanged), 0);
    EXPECT_EQ(VirtualSlot(&QDFileMonitorThread::StartMonitorThread), -1);
    EXPECT_EQ(VirtualSlot(&QDFileMonitorThread::StopMonitorThread), -1);
    EXPECT_EQ(VirtualSlot(&QDFileMonitorThread::PrintLog), -1);
}

TEST(QDFileMonitorThread, StartSucceedsForAnyFolderAndPrintsNothing)
{
    const TemporaryFolder folder;
    RecordingLog log;
    TestMonitor monitor;

    EXPECT_TRUE(monitor.StartMonitorThread(CQDFilePath(folder.GetPath()), &log));
    EXPECT_TRUE(monitor.StartMonitorThread(CQDFilePath(folder / "missing"), &log));
    EXPECT_TRUE(monitor.StartMonitorThread(CQDFilePath(), nullptr));

    EXPECT_THAT(log.GetTexts(), IsEmpty());
}

TEST(QDFileMonitorThread, StartMakesNoThreadAndOpensNothing)
{
    const TemporaryFolder folder;
    TestMonitor monitor;
    const int descriptors = CountOpenDescriptors();
    const int threads = CountThreads();

    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath(folder.GetPath()), nullptr));

    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    EXPECT_EQ(CountThreads(), threads);
}

TEST(QDFileMonitorThread, ChangesOfTheFolderAreNotTold)
{
    const TemporaryFolder folder;
    TestMonitor monitor;
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath(folder.GetPath()), nullptr));

    WriteFileText(folder / "file", "text");
    monitor.StopMonitorThread();

    EXPECT_EQ(monitor.m_ChangeCount, 0);
}

TEST(QDFileMonitorThread, PrintLogWritesBothColons)
{
    RecordingLog log;
    TestMonitor monitor;
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), &log));

    monitor.PrintLog("%s has %d entries", "/tmp", 12);

    ASSERT_EQ(log.GetMessages().size(), 1u);
    EXPECT_EQ(log.GetMessages()[0], (RecordingLog::Message{COutputLog::Info, 0, "Monitor:: /tmp has 12 entries"}));
}

TEST(QDFileMonitorThread, TextOfMoreThan245BytesIsCut)
{
    RecordingLog log;
    TestMonitor monitor;
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), &log));

    monitor.PrintLog("%s", std::string(245, 'x').c_str());
    monitor.PrintLog("%s", std::string(246, 'x').c_str());

    EXPECT_THAT(log.GetTexts(),
                ElementsAre("Monitor:: " + std::string(245, 'x'), "Monitor:: " + std::string(242, 'x') + "..."));
}

TEST(QDFileMonitorThread, WithoutALogNothingIsPrinted)
{
    RecordingLog log;
    TestMonitor monitor;

    monitor.PrintLog("before the start");
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), &log));
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), nullptr));
    monitor.PrintLog("started without a log");

    EXPECT_THAT(log.GetTexts(), IsEmpty());
}

TEST(QDFileMonitorThread, SecondStartReplacesTheLog)
{
    RecordingLog first;
    RecordingLog second;
    TestMonitor monitor;
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), &first));
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), &second));

    monitor.PrintLog("text");

    EXPECT_THAT(first.GetTexts(), IsEmpty());
    EXPECT_THAT(second.GetTexts(), ElementsAre("Monitor:: text"));
}

TEST(QDFileMonitorThread, StopKeepsTheLogAndMayComeAtAnyTime)
{
    RecordingLog log;
    TestMonitor monitor;
    monitor.StopMonitorThread();
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), &log));

    monitor.StopMonitorThread();
    monitor.StopMonitorThread();
    monitor.PrintLog("stopped");

    EXPECT_THAT(log.GetTexts(), ElementsAre("Monitor:: stopped"));
}

TEST(QDFileMonitorThread, PrintLogAllocatesNothing)
{
    COutputLogNull log;
    TestMonitor monitor;
    ASSERT_TRUE(monitor.StartMonitorThread(CQDFilePath("/tmp"), &log));
    const AllocationCounter allocations;

    monitor.PrintLog("%s has %d entries", "/tmp", 12);

    EXPECT_EQ(allocations.GetCount(), 0u);
}
