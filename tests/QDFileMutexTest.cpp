#include <QDPlatform/QDFileMutex.h>

#include "FaultPlan.h"
#include "ReplacedFolder.h"
#include "ScopedUmask.h"
#include "SignalCounter.h"
#include "SmallFileSystem.h"
#include "TemporaryFolder.h"
#include "TestThread.h"
#include "WaitUntil.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>

static_assert(std::is_base_of_v<CQDError, CQDFileMutex>);
static_assert(!std::is_copy_constructible_v<CQDFileMutex> && !std::is_move_constructible_v<CQDFileMutex>);
static_assert(!std::is_copy_assignable_v<CQDFileMutex> && !std::is_move_assignable_v<CQDFileMutex>);
static_assert(!std::is_polymorphic_v<CQDFileMutex>);

namespace
{

// The semaphore's name by the published definition of FNV-1a; NamesOfTheTestsAreThoseOfTheHash compares it with
// values that were worked out elsewhere.
std::string SemaphoreName(const std::string& name)
{
    std::uint64_t hash = 2166136261;
    for (const char byte : name)
        hash = ((hash ^ static_cast<unsigned char>(byte)) * 16777619) % (1ull << 32);
    char text[32];
    std::snprintf(text, sizeof text, "/qdsm%08llx", static_cast<unsigned long long>(hash));
    return text;
}

// A name of this process and test, whose semaphore is not there at first and goes with the object.
class TestName
{
public:
    explicit TestName(const std::string& prefix = "QDFileMutexTest") :
        m_Name(prefix + ' ' + std::to_string(::getpid()) + ' ' +
               testing::UnitTest::GetInstance()->current_test_info()->name()),
        m_SemaphoreName(SemaphoreName(m_Name))
    {
        ::sem_unlink(m_SemaphoreName.c_str());
    }

    TestName(const TestName&) = delete;
    TestName& operator=(const TestName&) = delete;

    ~TestName() { ::sem_unlink(m_SemaphoreName.c_str()); }

    operator const std::string&() const { return m_Name; }

    const std::string& GetSemaphoreName() const { return m_SemaphoreName; }

private:
    std::string m_Name;
    std::string m_SemaphoreName;
};

// The semaphore, seen with the system's own functions.
class Semaphore
{
public:
    // Opens the one that is there, or makes it with the value.
    explicit Semaphore(const TestName& name) : m_pHandle(::sem_open(name.GetSemaphoreName().c_str(), 0)) {}

    Semaphore(const TestName& name, unsigned int value, mode_t mode = 0600) :
        m_pHandle(::sem_open(name.GetSemaphoreName().c_str(), O_CREAT | O_EXCL, mode, value))
    {}

    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    ~Semaphore()
    {
        if (IsThere())
            ::sem_close(m_pHandle);
    }

    bool IsThere() const { return m_pHandle != SEM_FAILED; }

    int GetValue() const
    {
        int value = -1;
        return IsThere() && ::sem_getvalue(m_pHandle, &value) == 0 ? value : -1;
    }

    void Post() { ::sem_post(m_pHandle); }

private:
    sem_t* m_pHandle;
};

// Where the system keeps the semaphore.
std::string SemaphoreFile(const std::string& semaphoreName)
{
    return "/dev/shm/sem." + semaphoreName.substr(1);
}

// Whether this process has the semaphore open, which must have been there before: of one that is made in opening it,
// the mapping has another name.
bool IsMapped(const TestName& name)
{
    return ReadFileText("/proc/self/maps").find("sem." + name.GetSemaphoreName().substr(1)) != std::string::npos;
}

void MakeSemaphore(const TestName& name, unsigned int value)
{
    const Semaphore semaphore(name, value);
}

// A child process that runs `work` and ends without any clean-up, at the latest with the test program.
template<class Work>
pid_t StartProcess(Work work)
{
    std::fflush(nullptr);
    const pid_t process = ::fork();
    if (process == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        work();
        ::_exit(0);
    }
    return process;
}

// -1 for a process that ended otherwise, or did not end and was killed.
int ExitStatus(pid_t process)
{
    int status = -1;
    if (!WaitUntil([&] { return ::waitpid(process, &status, WNOHANG) != 0; }, 60s)) {
        ::kill(process, SIGKILL);
        ::waitpid(process, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct NameCase
{
    const char* m_pSituation;
    std::string m_Name;
    const char* m_pSemaphoreName;
};

const NameCase kNameCases[] = {
    {"empty, the offset basis", "", "/qdsm811c9dc5"},
    {"one byte", "a", "/qdsme40c292c"},
    {"six bytes", "foobar", "/qdsmbf9cf968"},
    {"bytes above 0x7F", "\xFF\x80", "/qdsmee1eea4a"},
    {"a NUL inside", std::string("a\0b", 3), "/qdsm10f3abd2"},
    {"zeros in front", "bmzxk", "/qdsm00000763"},
};

} // namespace

// --- OpenFileMutex -------------------------------------------------------------------------------------------------

TEST(CQDFileMutex, NewSemaphoreStartsTaken)
{
    const TestName name;
    CQDFileMutex mutex;

    EXPECT_TRUE(mutex.OpenFileMutex(name));

    EXPECT_EQ(Semaphore(name).GetValue(), 0);
    EXPECT_EQ(mutex.GetLastErrorCode(), 0);
}

TEST(CQDFileMutex, SemaphoreThatIsThereKeepsItsValue)
{
    const TestName name;
    const Semaphore semaphore(name, 3);
    CQDFileMutex mutex;

    EXPECT_TRUE(mutex.OpenFileMutex(name));

    EXPECT_EQ(semaphore.GetValue(), 3);
}

// What the other tests find their semaphores by, so that they show the name also where SemaphoreIsNamedByTheHash skips.
TEST(CQDFileMutex, NamesOfTheTestsAreThoseOfTheHash)
{
    for (const NameCase& testCase : kNameCases)
        EXPECT_EQ(SemaphoreName(testCase.m_Name), testCase.m_pSemaphoreName) << testCase.m_pSituation;
}

TEST(CQDFileMutex, SemaphoreIsNamedByTheHash)
{
    const ReplacedFolder ownSemaphores("/dev/shm"); // fixed names: nobody else's may be there
    if (!ownSemaphores.IsMounted())
        GTEST_SKIP() << ownSemaphores.GetReason();
    for (const NameCase& testCase : kNameCases) {
        SCOPED_TRACE(testCase.m_pSituation);
        const std::string file = SemaphoreFile(testCase.m_pSemaphoreName);
        ASSERT_NE(::access(file.c_str(), F_OK), 0);
        CQDFileMutex mutex;

        ASSERT_TRUE(mutex.OpenFileMutex(testCase.m_Name));

        EXPECT_EQ(::access(file.c_str(), F_OK), 0);
    }
}

TEST(CQDFileMutex, NewSemaphoreIsForEverybodyAsFarAsTheUmaskLeavesIt)
{
    struct Case
    {
        mode_t m_Umask;
        mode_t m_Mode;
    };

    const Case cases[] = {{0, 0777}, {022, 0755}, {077, 0700}};
    for (const Case& testCase : cases) {
        SCOPED_TRACE(testCase.m_Umask);
        const TestName name;
        const ScopedUmask mask(testCase.m_Umask);
        CQDFileMutex mutex;

        ASSERT_TRUE(mutex.OpenFileMutex(name));

        struct stat status = {};
        ASSERT_EQ(::stat(SemaphoreFile(name.GetSemaphoreName()).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, testCase.m_Mode);
    }
}

TEST(CQDFileMutex, DifferentNamesHaveDifferentSemaphores)
{
    const TestName first("first");
    const TestName second("second");
    const Semaphore semaphore(first, 1);
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(second));

    EXPECT_EQ(Semaphore(second).GetValue(), 0);
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST(CQDFileMutex, NamesWithEqualHashesShareOneSemaphore)
{
    // Both hash to 3cc240c2, so with the same text behind them they stay equal.
    const TestName first("p0jubhl");
    const TestName second("mb4g7n8");
    ASSERT_NE(static_cast<const std::string&>(first), static_cast<const std::string&>(second));
    const Semaphore semaphore(first, 1);
    CQDFileMutex holder;
    CQDFileMutex other;
    ASSERT_TRUE(holder.OpenFileMutex(first));
    ASSERT_TRUE(other.OpenFileMutex(second));
    holder.Lock();
    TestThread waiter([&] { other.Lock(); });

    EXPECT_TRUE(waiter.WaitUntilBlocked());

    holder.UnLock();
    EXPECT_TRUE(waiter.WaitUntilDone());
}

TEST(CQDFileMutex, SemaphoreOfAnotherUserFailsWithItsError)
{
    const TestName name;
    const Semaphore semaphore(name, 1, 0); // without permissions also for its owner, unless that is root
    CQDFileMutex mutex;
    {
        const UnprivilegedUser nobody;

        EXPECT_FALSE(mutex.OpenFileMutex(name));
    }
    EXPECT_EQ(mutex.GetLastErrorCode(), EACCES);
    mutex.Lock(); // returns at once
    mutex.UnLock();
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST(CQDFileMutex, FailureKeepsItsErrorAlsoAfterASuccess)
{
    const TestName name;
    CQDFileMutex mutex;
    {
        const FaultPlan open("sem_open", 1, EMFILE);

        EXPECT_FALSE(mutex.OpenFileMutex(name));
    }
    EXPECT_EQ(mutex.GetLastErrorCode(), EMFILE);

    EXPECT_TRUE(mutex.OpenFileMutex(name));

    EXPECT_EQ(mutex.GetLastErrorCode(), EMFILE);
}

TEST(CQDFileMutex, SystemWithoutNamedSemaphoresOpensAndHoldsNobodyBack)
{
    const TestName name;
    const FaultPlan open("sem_open", 1, ENOSYS);
    CQDFileMutex mutex;

    EXPECT_TRUE(mutex.OpenFileMutex(name));

    EXPECT_EQ(mutex.GetLastErrorCode(), 0);
    mutex.Lock(); // both return at once
    mutex.Lock();
    mutex.UnLock();
    EXPECT_FALSE(Semaphore(name).IsThere());
}

TEST(CQDFileMutex, SignalDuringTheOpenDoesNotFailIt)
{
    const TestName name;
    MakeSemaphore(name, 1);
    const FaultPlan open("sem_open", 1, EINTR);
    CQDFileMutex mutex;

    EXPECT_TRUE(mutex.OpenFileMutex(name));

    EXPECT_TRUE(open.HasFailed());
    EXPECT_TRUE(IsMapped(name));
}

TEST(CQDFileMutex, OpenAgainUnlocksAndClosesTheOldHandleFirst)
{
    const TestName first("first");
    const TestName second("second");
    MakeSemaphore(first, 1);
    MakeSemaphore(second, 1);
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(first));
    ASSERT_TRUE(IsMapped(first));
    mutex.Lock();
    ASSERT_EQ(Semaphore(first).GetValue(), 0);

    ASSERT_TRUE(mutex.OpenFileMutex(second));

    EXPECT_FALSE(IsMapped(first));
    EXPECT_TRUE(IsMapped(second));
    mutex.UnLock(); // not locked any more
    EXPECT_EQ(Semaphore(first).GetValue(), 1);
    EXPECT_EQ(Semaphore(second).GetValue(), 1);
}

TEST(CQDFileMutex, OpenAgainThatFailsHasClosedTheOldHandle)
{
    for (const int error : {EMFILE, ENOSYS}) {
        SCOPED_TRACE(error);
        const TestName name;
        MakeSemaphore(name, 1);
        CQDFileMutex mutex;
        ASSERT_TRUE(mutex.OpenFileMutex(name));
        ASSERT_TRUE(IsMapped(name));
        const FaultPlan open("sem_open", 1, error);

        EXPECT_EQ(mutex.OpenFileMutex(name), error == ENOSYS);

        EXPECT_FALSE(IsMapped(name));
        mutex.Lock(); // returns at once
    }
}

// --- Lock and UnLock -----------------------------------------------------------------------------------------------

TEST(CQDFileMutex, FirstLockOfANewSemaphoreWaitsUntilSomebodyPosts)
{
    const TestName name;
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(name));
    TestThread locker([&] { mutex.Lock(); });

    EXPECT_TRUE(locker.WaitUntilBlocked());

    Semaphore(name).Post();
    EXPECT_TRUE(locker.WaitUntilDone());
}

TEST(CQDFileMutex, LockTakesTheSemaphoreAndUnLockGivesItBack)
{
    const TestName name;
    const Semaphore semaphore(name, 1);
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(name));

    mutex.Lock();
    EXPECT_EQ(semaphore.GetValue(), 0);

    mutex.UnLock();
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST(CQDFileMutex, UnLockGivesBackOnlyWhatItsObjectTook)
{
    const TestName name;
    const Semaphore semaphore(name, 1);
    CQDFileMutex holder;
    CQDFileMutex other;
    ASSERT_TRUE(holder.OpenFileMutex(name));
    ASSERT_TRUE(other.OpenFileMutex(name));

    other.UnLock();
    EXPECT_EQ(semaphore.GetValue(), 1);

    holder.Lock();
    other.UnLock();
    EXPECT_EQ(semaphore.GetValue(), 0);

    holder.UnLock();
    holder.UnLock();
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST(CQDFileMutex, LockIsNotRecursive)
{
    const TestName name;
    Semaphore semaphore(name, 1);
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(name));
    mutex.Lock();
    TestThread again([&] { mutex.Lock(); });

    EXPECT_TRUE(again.WaitUntilBlocked());

    semaphore.Post();
    EXPECT_TRUE(again.WaitUntilDone());
}

TEST(CQDFileMutex, ThreadsWithObjectsOfTheirOwnExcludeEachOther)
{
    const TestName name;
    const Semaphore semaphore(name, 1);
    CQDFileMutex first;
    CQDFileMutex second;
    ASSERT_TRUE(first.OpenFileMutex(name));
    ASSERT_TRUE(second.OpenFileMutex(name));
    first.Lock();
    TestThread waiter([&] { second.Lock(); });

    EXPECT_TRUE(waiter.WaitUntilBlocked());

    first.UnLock();
    EXPECT_TRUE(waiter.WaitUntilDone());
    EXPECT_EQ(semaphore.GetValue(), 0);
}

TEST(CQDFileMutex, SignalDoesNotEndTheWait)
{
    const TestName name;
    Semaphore semaphore(name, 0);
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(name));
    const SignalCounter signals(SIGUSR1);
    TestThread locker([&] { mutex.Lock(); });
    ASSERT_TRUE(locker.WaitUntilBlocked());

    locker.Signal(SIGUSR1);

    EXPECT_TRUE(WaitUntil([&] { return signals.GetCount() == 1; }));
    EXPECT_TRUE(locker.WaitUntilBlocked());
    semaphore.Post();
    EXPECT_TRUE(locker.WaitUntilDone());
    EXPECT_EQ(semaphore.GetValue(), 0);
    mutex.UnLock();
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST(CQDFileMutex, WaitThatFailsTakesNothing)
{
    const TestName name;
    const Semaphore semaphore(name, 1);
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(name));
    const FaultPlan wait("sem_wait", 1, EINVAL);

    mutex.Lock();

    EXPECT_TRUE(wait.HasFailed());
    mutex.UnLock();
    EXPECT_EQ(semaphore.GetValue(), 1);
}

TEST(CQDFileMutex, WithoutAHandleLockAndUnLockReturnAtOnce)
{
    CQDFileMutex mutex;

    mutex.Lock();
    mutex.UnLock();

    EXPECT_EQ(mutex.GetLastErrorCode(), 0);
}

// --- The end -------------------------------------------------------------------------------------------------------

TEST(CQDFileMutex, DestructorUnlocksAndClosesButLeavesTheSemaphore)
{
    const TestName name;
    MakeSemaphore(name, 1);
    {
        CQDFileMutex mutex;
        ASSERT_TRUE(mutex.OpenFileMutex(name));
        ASSERT_TRUE(IsMapped(name));
        mutex.Lock();
        ASSERT_EQ(Semaphore(name).GetValue(), 0);
    }

    EXPECT_FALSE(IsMapped(name));
    EXPECT_EQ(Semaphore(name).GetValue(), 1);
}

TEST(CQDFileMutex, DestructorWithoutLockPostsNothing)
{
    const TestName name;
    const Semaphore semaphore(name, 1);
    {
        CQDFileMutex mutex;
        ASSERT_TRUE(mutex.OpenFileMutex(name));
    }

    EXPECT_EQ(semaphore.GetValue(), 1);
}

// --- Processes -----------------------------------------------------------------------------------------------------

TEST(CQDFileMutex, TwoProcessesExcludeEachOther)
{
    constexpr int kRounds = 1000;
    const TestName name;
    const Semaphore semaphore(name, 1);
    void* memory = ::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    volatile int* sum = static_cast<int*>(memory);
    const auto work = [&] {
        CQDFileMutex mutex;
        if (!mutex.OpenFileMutex(name))
            ::_exit(1);
        for (int i = 0; i < kRounds; ++i) {
            mutex.Lock();
            const int before = *sum;
            ::sched_yield(); // an invitation to the other process
            *sum = before + 1;
            mutex.UnLock();
        }
    };

    const pid_t first = StartProcess(work);
    const pid_t second = StartProcess(work);

    EXPECT_EQ(ExitStatus(first), 0);
    EXPECT_EQ(ExitStatus(second), 0);
    EXPECT_EQ(*sum, 2 * kRounds);
    EXPECT_EQ(semaphore.GetValue(), 1);
    ::munmap(memory, sizeof(int));
}

TEST(CQDFileMutex, SemaphoreOfAKilledHolderStaysTaken)
{
    const TestName name;
    Semaphore semaphore(name, 1);
    const pid_t holder = StartProcess([&] {
        CQDFileMutex mutex;
        mutex.OpenFileMutex(name);
        mutex.Lock();
        ::pause();
    });
    ASSERT_TRUE(WaitUntil([&] { return semaphore.GetValue() == 0; }));
    ::kill(holder, SIGKILL);
    ASSERT_EQ(::waitpid(holder, nullptr, 0), holder);
    CQDFileMutex mutex;
    ASSERT_TRUE(mutex.OpenFileMutex(name));
    TestThread locker([&] { mutex.Lock(); });

    EXPECT_TRUE(locker.WaitUntilBlocked());

    semaphore.Post();
    EXPECT_TRUE(locker.WaitUntilDone());
}
