// The array that a request takes over goes back with delete[]. In a program of its own: one that limits allocations
// releases both forms alike.
#include <QDPlatform/QDAsyncUrlRequest.h>

#include "ArrayWatch.h"
#include "CurlOptionRecorder.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>

namespace
{

// Sizes that nothing else has.
constexpr std::size_t kFirstSize = 4711;
constexpr std::size_t kSecondSize = 4713;

int CountReleased(const ArrayWatch& watch, std::size_t size)
{
    int count = 0;
    for (const ArrayWatch::ReleasedArray& array : watch.GetReleased())
        count += array.m_Size == size ? 1 : 0;
    return count;
}

} // namespace

TEST(QDAsyncUrlUploadOwnership, DestructorFreesTheContent)
{
    const ArrayWatch watch;
    auto request = std::make_unique<QDAsyncUrlRequest>();
    ASSERT_TRUE(request->SetUploadContent(new unsigned char[kFirstSize], kFirstSize));
    EXPECT_EQ(CountReleased(watch, kFirstSize), 0);

    request.reset();

    EXPECT_EQ(CountReleased(watch, kFirstSize), 1);
}

TEST(QDAsyncUrlUploadOwnership, SecondContentFreesTheFirst)
{
    const ArrayWatch watch;
    auto request = std::make_unique<QDAsyncUrlRequest>();
    ASSERT_TRUE(request->SetUploadContent(new unsigned char[kFirstSize], kFirstSize));

    EXPECT_TRUE(request->SetUploadContent(new unsigned char[kSecondSize], kSecondSize));

    EXPECT_EQ(CountReleased(watch, kFirstSize), 1);
    EXPECT_EQ(CountReleased(watch, kSecondSize), 0);
    request.reset();
    EXPECT_EQ(CountReleased(watch, kFirstSize), 1);
    EXPECT_EQ(CountReleased(watch, kSecondSize), 1);
}

TEST(QDAsyncUrlUploadOwnership, ContentIsTakenOverWithoutAHandleToo)
{
    const ArrayWatch watch;
    std::unique_ptr<QDAsyncUrlRequest> request;
    {
        const CurlMemoryLimit limit(0);
        request = std::make_unique<QDAsyncUrlRequest>();
    }
    ASSERT_EQ(request->GetCurlHandle(), nullptr);

    EXPECT_FALSE(request->SetUploadContent(new unsigned char[kFirstSize], kFirstSize));

    EXPECT_EQ(CountReleased(watch, kFirstSize), 0);
    request.reset();
    EXPECT_EQ(CountReleased(watch, kFirstSize), 1);
}
