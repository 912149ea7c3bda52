#include <QDPlatform/QDCommandPipe.h>

#include "FaultPlan.h"
#include "SignalCounter.h"
#include "TakenDescriptors.h"
#include "TestThread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace
{

using WhenFull = QDCommandPipe::WhenFull;

// Makes the pipe small and fills it. Returns how many commands it holds.
int Fill(QDCommandPipe& pipe)
{
    const int room = ::fcntl(pipe.GetReadEnd(), F_SETPIPE_SZ, 4096); // one page of any machine
    EXPECT_GE(room, 4096);
    for (int sent = 0; sent < room; ++sent)
        EXPECT_TRUE(pipe.Send(1));
    return room;
}

void ReceiveAll(QDCommandPipe& pipe, int count)
{
    for (int received = 0; received < count; ++received) {
        unsigned char command = 0;
        ASSERT_TRUE(pipe.Receive(command));
    }
}

int GetWaitingCount(int readEnd)
{
    int waiting = -1;
    EXPECT_EQ(::ioctl(readEnd, FIONREAD, &waiting), 0);
    return waiting;
}

} // namespace

TEST(QDCommandPipe, IsClosedWhenNew)
{
    QDCommandPipe pipe(WhenFull::Block);
    unsigned char command = 0;

    EXPECT_EQ(pipe.GetReadEnd(), -1);
    EXPECT_FALSE(pipe.Send(1));
    EXPECT_FALSE(pipe.Receive(command));
    EXPECT_EQ(errno, EBADF);
}

TEST(QDCommandPipe, CommandsArriveInTheOrderSent)
{
    struct Case
    {
        const char* m_Name;
        WhenFull m_WhenFull;
    };

    constexpr Case cases[] = {{"Block", WhenFull::Block}, {"Refuse", WhenFull::Refuse}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDCommandPipe pipe(c.m_WhenFull);
        ASSERT_TRUE(pipe.Open());
        unsigned char first = 99;
        unsigned char second = 99;
        unsigned char third = 99;

        EXPECT_TRUE(pipe.Send(0));
        EXPECT_TRUE(pipe.Send(255));
        EXPECT_TRUE(pipe.Send(128));

        EXPECT_TRUE(pipe.Receive(first));
        EXPECT_TRUE(pipe.Receive(second));
        EXPECT_TRUE(pipe.Receive(third));
        EXPECT_EQ(first, 0);
        EXPECT_EQ(second, 255);
        EXPECT_EQ(third, 128);
    }
}

TEST(QDCommandPipe, EachSendIsOneByte)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());

    pipe.Send(7);
    pipe.Send(7);

    EXPECT_EQ(GetWaitingCount(pipe.GetReadEnd()), 2);
}

TEST(QDCommandPipe, ReceiveWaitsForACommand)
{
    struct Case
    {
        const char* m_Name;
        WhenFull m_WhenFull;
    };

    constexpr Case cases[] = {{"Block", WhenFull::Block}, {"Refuse", WhenFull::Refuse}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDCommandPipe pipe(c.m_WhenFull);
        ASSERT_TRUE(pipe.Open());
        unsigned char command = 0;
        TestThread receiver([&] { pipe.Receive(command); });
        EXPECT_TRUE(receiver.WaitUntilBlocked());

        pipe.Send(9);

        EXPECT_TRUE(receiver.WaitUntilDone());
        EXPECT_EQ(command, 9);
    }
}

TEST(QDCommandPipe, BothEndsAreCloseOnExec)
{
    const std::set<int> before = GetOpenDescriptors();
    QDCommandPipe pipe(WhenFull::Refuse);

    ASSERT_TRUE(pipe.Open());

    const std::set<int> after = GetOpenDescriptors();
    std::vector<int> ends;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(ends));
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_EQ(::fcntl(ends[0], F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(ends[1], F_GETFD), FD_CLOEXEC);
}

TEST(QDCommandPipe, CloseClosesBothEnds)
{
    const std::set<int> before = GetOpenDescriptors();
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());

    pipe.Close();

    EXPECT_EQ(GetOpenDescriptors(), before);
    EXPECT_EQ(pipe.GetReadEnd(), -1);
    EXPECT_FALSE(pipe.Send(1));
}

TEST(QDCommandPipe, CloseBeforeOpenAndTwiceDoesNothing)
{
    const std::set<int> before = GetOpenDescriptors();
    QDCommandPipe pipe(WhenFull::Block);
    pipe.Close();
    ASSERT_TRUE(pipe.Open());
    pipe.Close();

    pipe.Close();

    EXPECT_EQ(GetOpenDescriptors(), before);
}

TEST(QDCommandPipe, DestructionClosesAnOpenPipe)
{
    const std::set<int> before = GetOpenDescriptors();
    {
        QDCommandPipe pipe(WhenFull::Block);
        ASSERT_TRUE(pipe.Open());
    }

    EXPECT_EQ(GetOpenDescriptors(), before);
}

TEST(QDCommandPipe, ReopenedPipeIsEmptyAndWorks)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    pipe.Send(1);
    pipe.Send(2);
    pipe.Close();

    ASSERT_TRUE(pipe.Open());

    EXPECT_EQ(GetWaitingCount(pipe.GetReadEnd()), 0);
    unsigned char command = 0;
    EXPECT_TRUE(pipe.Send(3));
    EXPECT_TRUE(pipe.Receive(command));
    EXPECT_EQ(command, 3);
}

TEST(QDCommandPipe, OpenThatFailsKeepsErrnoAndOpensNothing)
{
    const std::set<int> before = GetOpenDescriptors();
    QDCommandPipe pipe(WhenFull::Block);
    {
        const FaultPlan plan("pipe2", 1, ENFILE);

        EXPECT_FALSE(pipe.Open());

        EXPECT_EQ(errno, ENFILE);
    }
    EXPECT_EQ(pipe.GetReadEnd(), -1);
    EXPECT_FALSE(pipe.Send(1));
    EXPECT_EQ(GetOpenDescriptors(), before);
    EXPECT_TRUE(pipe.Open());
}

TEST(QDCommandPipe, EndsThatCannotStandInADescriptorSetAreRefused)
{
    struct Case
    {
        const char* m_Name;
        int m_ReadEnd;
    };

    constexpr Case cases[] = {{"both ends too high", FD_SETSIZE}, {"write end too high", FD_SETSIZE - 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDCommandPipe pipe(WhenFull::Block);
        const TakenDescriptors taken(c.m_ReadEnd);
        const std::set<int> before = GetOpenDescriptors();

        EXPECT_FALSE(pipe.Open());

        EXPECT_EQ(errno, EMFILE);
        EXPECT_EQ(pipe.GetReadEnd(), -1);
        EXPECT_FALSE(pipe.Send(1));
        EXPECT_EQ(GetOpenDescriptors(), before);
    }
}

TEST(QDCommandPipe, LastDescriptorsOfASetAreTaken)
{
    QDCommandPipe pipe(WhenFull::Block);
    const TakenDescriptors taken(FD_SETSIZE - 2);

    EXPECT_TRUE(pipe.Open());

    EXPECT_EQ(pipe.GetReadEnd(), FD_SETSIZE - 2);
    EXPECT_TRUE(pipe.Send(1));
}

TEST(QDCommandPipe, FullPipeRefuses)
{
    QDCommandPipe pipe(WhenFull::Refuse);
    ASSERT_TRUE(pipe.Open());
    const int room = Fill(pipe);

    EXPECT_FALSE(pipe.Send(2));

    EXPECT_EQ(GetWaitingCount(pipe.GetReadEnd()), room);
    ReceiveAll(pipe, room);
    EXPECT_TRUE(pipe.Send(2));
}

TEST(QDCommandPipe, FullPipeBlocksUntilThereIsRoom)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    const int room = Fill(pipe);
    bool sent = false;
    TestThread sender([&] { sent = pipe.Send(2); });
    EXPECT_TRUE(sender.WaitUntilBlocked());

    ReceiveAll(pipe, room);

    EXPECT_TRUE(sender.WaitUntilDone());
    EXPECT_TRUE(sent);
    unsigned char command = 0;
    EXPECT_TRUE(pipe.Receive(command));
    EXPECT_EQ(command, 2);
}

TEST(QDCommandPipe, SignalDuringABlockedSendLosesNoCommand)
{
    const SignalCounter signals(SIGUSR1);
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    const int room = Fill(pipe);
    bool sent = false;
    TestThread sender([&] { sent = pipe.Send(2); });
    ASSERT_TRUE(sender.WaitUntilBlocked());

    sender.Signal(SIGUSR1);

    EXPECT_TRUE(WaitUntil([&] { return signals.GetCount() == 1; }));
    EXPECT_TRUE(sender.WaitUntilBlocked());
    ReceiveAll(pipe, room);
    EXPECT_TRUE(sender.WaitUntilDone());
    EXPECT_TRUE(sent);
    EXPECT_EQ(GetWaitingCount(pipe.GetReadEnd()), 1);
}

TEST(QDCommandPipe, InterruptedWriteIsDoneAgain)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    {
        const FaultPlan plan("write", 1, EINTR);

        EXPECT_TRUE(pipe.Send(2));

        EXPECT_EQ(plan.GetCallCount(), 2);
    }
    EXPECT_EQ(GetWaitingCount(pipe.GetReadEnd()), 1);
}

TEST(QDCommandPipe, WriteThatFailsIsNotDoneAgain)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    {
        const FaultPlan plan("write", 1, EIO);

        EXPECT_FALSE(pipe.Send(2));

        EXPECT_EQ(plan.GetCallCount(), 1);
    }
    EXPECT_EQ(GetWaitingCount(pipe.GetReadEnd()), 0);
    EXPECT_TRUE(pipe.Send(2));
}

TEST(QDCommandPipe, ReadThatFailsKeepsErrnoAndIsNotDoneAgain)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    pipe.Send(5);
    unsigned char command = 77;
    {
        const FaultPlan plan("read", 1, EINTR);

        EXPECT_FALSE(pipe.Receive(command));

        EXPECT_EQ(errno, EINTR);
        EXPECT_EQ(plan.GetCallCount(), 1);
    }
    EXPECT_TRUE(pipe.Receive(command));
    EXPECT_EQ(command, 5);
}

TEST(QDCommandPipe, CommandsThatWaitAreReceivedTogetherUpToTheCapacity)
{
    QDCommandPipe pipe(WhenFull::Refuse);
    ASSERT_TRUE(pipe.Open());
    for (const unsigned char command : std::initializer_list<unsigned char>{5, 0, 255, 7, 8})
        EXPECT_TRUE(pipe.Send(command));
    unsigned char commands[] = {99, 99, 99, 99};

    EXPECT_EQ(pipe.Receive(commands, 3), 3u);
    EXPECT_THAT(commands, testing::ElementsAre(5, 0, 255, 99));
    EXPECT_EQ(pipe.Receive(commands, 3), 2u);
    EXPECT_THAT(commands, testing::ElementsAre(7, 8, 255, 99));
}

TEST(QDCommandPipe, ReceiveOfSeveralWaitsForTheFirst)
{
    QDCommandPipe pipe(WhenFull::Refuse);
    ASSERT_TRUE(pipe.Open());
    unsigned char commands[4] = {};
    std::size_t count = 0;
    TestThread receiver([&] { count = pipe.Receive(commands, sizeof commands); });
    EXPECT_TRUE(receiver.WaitUntilBlocked());

    pipe.Send(9);

    EXPECT_TRUE(receiver.WaitUntilDone());
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(commands[0], 9);
}

TEST(QDCommandPipe, ReceiveOfSeveralThatFailsGivesNoneAndKeepsErrno)
{
    QDCommandPipe pipe(WhenFull::Refuse);
    ASSERT_TRUE(pipe.Open());
    pipe.Send(5);
    unsigned char commands[4] = {};
    {
        const FaultPlan plan("read", 1, EIO);

        EXPECT_EQ(pipe.Receive(commands, sizeof commands), 0u);

        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(plan.GetCallCount(), 1);
    }
    EXPECT_EQ(pipe.Receive(commands, sizeof commands), 1u);
    EXPECT_EQ(commands[0], 5);
}

TEST(QDCommandPipe, CloseFreesSendersThatWaitForRoom)
{
    const std::set<int> before = GetOpenDescriptors();
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    Fill(pipe);
    TestThread first([&] { pipe.Send(2); });
    TestThread second([&] { pipe.Send(3); });
    ASSERT_TRUE(first.WaitUntilBlocked());
    ASSERT_TRUE(second.WaitUntilBlocked());

    TestThread closer([&] { pipe.Close(); });

    EXPECT_TRUE(closer.WaitUntilDone());
    EXPECT_TRUE(first.WaitUntilDone());
    EXPECT_TRUE(second.WaitUntilDone());
    EXPECT_EQ(GetOpenDescriptors(), before);
}

TEST(QDCommandPipe, CloseEndsWhileSendersWouldFillThePipeAgain)
{
    for (int round = 0; round < 20; ++round) {
        QDCommandPipe pipe(WhenFull::Block);
        ASSERT_TRUE(pipe.Open());
        Fill(pipe);
        const auto sendUntilClosed = [&] {
            while (pipe.Send(2))
                continue;
        };
        TestThread first(sendUntilClosed);
        TestThread second(sendUntilClosed);
        ASSERT_TRUE(first.WaitUntilBlocked());
        ASSERT_TRUE(second.WaitUntilBlocked());

        TestThread closer([&] { pipe.Close(); });

        ASSERT_TRUE(closer.WaitUntilDone());
        ASSERT_TRUE(first.WaitUntilDone());
        ASSERT_TRUE(second.WaitUntilDone());
    }
}

TEST(QDCommandPipe, EndOfReceivingDropsWhatIsUnread)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    pipe.Send(1);
    pipe.Send(2);

    pipe.EndReceiving();

    EXPECT_EQ(GetWaitingCount(pipe.GetReadEnd()), 0);
    EXPECT_TRUE(pipe.Send(3)); // there is room
}

TEST(QDCommandPipe, FullPipeRefusesAfterTheEndOfReceiving)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    pipe.EndReceiving();
    Fill(pipe);

    EXPECT_FALSE(pipe.Send(2));
}

TEST(QDCommandPipe, EndOfReceivingFreesSendersThatWaitForRoom)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    Fill(pipe);
    bool isFirstSent = false;
    bool isSecondSent = false;
    TestThread first([&] { isFirstSent = pipe.Send(2); });
    TestThread second([&] { isSecondSent = pipe.Send(3); });
    ASSERT_TRUE(first.WaitUntilBlocked());
    ASSERT_TRUE(second.WaitUntilBlocked());

    pipe.EndReceiving();

    EXPECT_TRUE(first.WaitUntilDone());
    EXPECT_TRUE(second.WaitUntilDone());
    EXPECT_TRUE(isFirstSent);
    EXPECT_TRUE(isSecondSent);
}

TEST(QDCommandPipe, ReopenedPipeBlocksAgain)
{
    QDCommandPipe pipe(WhenFull::Block);
    ASSERT_TRUE(pipe.Open());
    pipe.EndReceiving();
    pipe.Close();
    ASSERT_TRUE(pipe.Open());
    const int room = Fill(pipe);
    TestThread sender([&] { pipe.Send(2); });

    EXPECT_TRUE(sender.WaitUntilBlocked());

    ReceiveAll(pipe, room);
    EXPECT_TRUE(sender.WaitUntilDone());
}

TEST(QDCommandPipe, SendersThatRaceWithCloseWriteIntoNothingElse)
{
    struct Case
    {
        const char* m_Name;
        WhenFull m_WhenFull;
    };

    constexpr Case cases[] = {{"Block", WhenFull::Block}, {"Refuse", WhenFull::Refuse}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.m_Name);
        QDCommandPipe pipe(c.m_WhenFull);
        std::atomic<bool> stop{false};
        std::atomic<int> sentCount{0};
        std::vector<std::unique_ptr<TestThread>> senders;
        for (int i = 0; i < 3; ++i) {
            senders.push_back(std::make_unique<TestThread>([&] {
                while (!stop.load()) {
                    if (pipe.Send(1))
                        sentCount.fetch_add(1);
                    std::this_thread::yield();
                }
            }));
        }
        for (int round = 0; round < 50 && !testing::Test::HasFailure(); ++round) {
            EXPECT_TRUE(pipe.Open());
            const int readEnd = pipe.GetReadEnd();
            const int sentBefore = sentCount.load();
            EXPECT_TRUE(WaitUntil([&] { return sentCount.load() > sentBefore; }));

            pipe.Close();

            // The numbers go to somebody else, who must not see a late command.
            int ends[2] = {-1, -1};
            EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
            EXPECT_EQ(ends[0], readEnd);
            std::this_thread::yield();
            EXPECT_EQ(GetWaitingCount(ends[0]), 0);
            ::close(ends[0]);
            ::close(ends[1]);
        }
        stop.store(true);
    }
}
