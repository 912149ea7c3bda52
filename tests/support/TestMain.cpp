// The main function of every test program. After each test it compares the process's open descriptors and threads with
// those before the test, and fails the test that left one behind.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

namespace
{

using namespace std::chrono_literals;

int CountEntries(const char* folder)
{
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder))
        ++count;
    return count;
}

class LeakGuard : public testing::EmptyTestEventListener
{
public:
    void OnTestStart(const testing::TestInfo&) override
    {
        m_Descriptors = CountEntries("/proc/self/fd");
        m_Threads = CountEntries("/proc/self/task");
    }

    void OnTestEnd(const testing::TestInfo&) override
    {
        // A joined thread's entry can outlive the join by a moment.
        const auto deadline = std::chrono::steady_clock::now() + 2s;
        while (CountEntries("/proc/self/task") > m_Threads && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(1ms);
        EXPECT_LE(CountEntries("/proc/self/task"), m_Threads) << "the test left a thread behind";
        EXPECT_LE(CountEntries("/proc/self/fd"), m_Descriptors) << "the test left a descriptor open";
    }

private:
    int m_Descriptors{0};
    int m_Threads{0};
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // Re-executing the program for a death test is the one way that is safe beside threads.
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    testing::UnitTest::GetInstance()->listeners().Append(new LeakGuard);
    // A sanitizer may start a thread of its own beside the first one; it must be there before the guard counts.
    std::thread([] {}).join();
    return RUN_ALL_TESTS();
}
