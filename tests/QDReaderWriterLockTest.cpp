#include <QDPlatform/QDReaderWriterLock.h>

#include "TestThread.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <vector>

static_assert(!std::is_copy_constructible_v<CQDReaderWriterLock> && !std::is_move_constructible_v<CQDReaderWriterLock>);
static_assert(!std::is_copy_assignable_v<CQDReaderWriterLock> && !std::is_move_assignable_v<CQDReaderWriterLock>);
static_assert(!std::is_polymorphic_v<CQDReaderWriterLock>);
static_assert(sizeof(CQDReaderWriterLock) == sizeof(pthread_rwlock_t));

namespace
{

void ReadOnce(CQDReaderWriterLock& lock)
{
    lock.LockRead();
    lock.UnLockRead();
}

void WriteOnce(CQDReaderWriterLock& lock)
{
    lock.LockWrite();
    lock.UnLockWrite();
}

} // namespace

TEST(CQDReaderWriterLock, IsUnlockedWhenNew)
{
    CQDReaderWriterLock lock;
    TestThread writer([&] { WriteOnce(lock); });

    EXPECT_TRUE(writer.WaitUntilDone());
}

TEST(CQDReaderWriterLock, ReadersShareIt)
{
    CQDReaderWriterLock lock;
    lock.LockRead();
    TestThread reader([&] { ReadOnce(lock); });

    EXPECT_TRUE(reader.WaitUntilDone());
    lock.UnLockRead();
}

TEST(CQDReaderWriterLock, WriterWaitsForEveryReader)
{
    CQDReaderWriterLock lock;
    lock.LockRead();
    lock.LockRead();
    TestThread writer([&] { WriteOnce(lock); });

    EXPECT_TRUE(writer.WaitUntilBlocked());
    lock.UnLockRead();
    EXPECT_TRUE(writer.WaitUntilBlocked());

    lock.UnLockRead();
    EXPECT_TRUE(writer.WaitUntilDone());
}

TEST(CQDReaderWriterLock, WriterKeepsReadersOut)
{
    CQDReaderWriterLock lock;
    lock.LockWrite();
    TestThread reader([&] { ReadOnce(lock); });

    EXPECT_TRUE(reader.WaitUntilBlocked());

    lock.UnLockWrite();
    EXPECT_TRUE(reader.WaitUntilDone());
}

TEST(CQDReaderWriterLock, WriterKeepsWritersOut)
{
    CQDReaderWriterLock lock;
    lock.LockWrite();
    TestThread writer([&] { WriteOnce(lock); });

    EXPECT_TRUE(writer.WaitUntilBlocked());

    lock.UnLockWrite();
    EXPECT_TRUE(writer.WaitUntilDone());
}

TEST(CQDReaderWriterLock, WaitingWriterKeepsNoReaderOut)
{
    // The C library's default kind: readers go first.
    CQDReaderWriterLock lock;
    lock.LockRead();
    TestThread writer([&] { WriteOnce(lock); });
    ASSERT_TRUE(writer.WaitUntilBlocked());
    TestThread reader([&] { ReadOnce(lock); });

    EXPECT_TRUE(reader.WaitUntilDone());

    lock.UnLockRead();
    EXPECT_TRUE(writer.WaitUntilDone());
}

TEST(CQDReaderWriterLock, EitherUnlockReleasesEitherLock)
{
    CQDReaderWriterLock lock;
    lock.LockWrite();
    lock.UnLockRead();
    lock.LockRead();
    lock.UnLockWrite();
    TestThread writer([&] { WriteOnce(lock); });

    EXPECT_TRUE(writer.WaitUntilDone());
}

TEST(CQDReaderWriterLock, ReadersSeeWholeWritesOnly)
{
    CQDReaderWriterLock lock;
    int first = 0;  // lock
    int second = 0; // lock
    std::vector<std::unique_ptr<TestThread>> threads;
    for (int i = 0; i < 2; ++i) {
        threads.push_back(std::make_unique<TestThread>([&] {
            for (int pass = 0; pass < 2000; ++pass) {
                lock.LockWrite();
                ++first;
                ++second;
                lock.UnLockWrite();
            }
        }));
        threads.push_back(std::make_unique<TestThread>([&] {
            for (int pass = 0; pass < 2000; ++pass) {
                lock.LockRead();
                EXPECT_EQ(first, second);
                lock.UnLockRead();
            }
        }));
    }
    for (const auto& thread : threads)
        thread->Join();

    EXPECT_EQ(first, 4000);
    EXPECT_EQ(second, 4000);
}

TEST(CQDReaderWriterLock, WriterThatAsksAgainHoldsItOnce)
{
    CQDReaderWriterLock lock;
    lock.LockWrite();
    lock.LockWrite(); // refused by the C library, in silence
    lock.UnLockWrite();
    TestThread writer([&] { WriteOnce(lock); });

    EXPECT_TRUE(writer.WaitUntilDone());
}
