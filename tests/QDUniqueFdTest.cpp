#include <QDPlatform/QDUniqueFd.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <type_traits>
#include <utility>

namespace
{

int OpenNull()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool IsOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

} // namespace

static_assert(!std::is_copy_constructible_v<QDUniqueFd> && !std::is_copy_assignable_v<QDUniqueFd>);
static_assert(std::is_nothrow_move_constructible_v<QDUniqueFd> && std::is_nothrow_move_assignable_v<QDUniqueFd>);

TEST(QDUniqueFd, NewObjectOwnsNothing)
{
    const QDUniqueFd owner;

    EXPECT_FALSE(owner.IsOpen());
    EXPECT_EQ(owner.Get(), -1);
}

TEST(QDUniqueFd, EveryNegativeNumberMeansNone)
{
    const QDUniqueFd constructed(-5);
    QDUniqueFd reset;
    reset.Reset(-5);

    EXPECT_FALSE(constructed.IsOpen());
    EXPECT_EQ(constructed.Get(), -1);
    EXPECT_FALSE(reset.IsOpen());
    EXPECT_EQ(reset.Get(), -1);
}

TEST(QDUniqueFd, ClosesAtTheEndOfItsScope)
{
    const int fd = OpenNull();
    {
        const QDUniqueFd owner(fd);

        EXPECT_TRUE(owner.IsOpen());
        EXPECT_EQ(owner.Get(), fd);
        EXPECT_TRUE(IsOpen(fd));
    }

    EXPECT_FALSE(IsOpen(fd));
}

TEST(QDUniqueFd, OwnsDescriptorZero)
{
    const int kept = ::fcntl(0, F_DUPFD_CLOEXEC, 3);
    ASSERT_GE(kept, 0);
    {
        const QDUniqueFd owner(0);

        EXPECT_TRUE(owner.IsOpen());
    }

    EXPECT_FALSE(IsOpen(0));
    EXPECT_EQ(::dup2(kept, 0), 0);
    ::close(kept);
}

TEST(QDUniqueFd, MoveConstructionTakesTheDescriptorOver)
{
    const int fd = OpenNull();
    QDUniqueFd source(fd);

    const QDUniqueFd target(std::move(source));

    EXPECT_EQ(target.Get(), fd);
    EXPECT_EQ(source.Get(), -1);
    EXPECT_TRUE(IsOpen(fd));
}

TEST(QDUniqueFd, MoveAssignmentClosesWhatWasOwnedBefore)
{
    const int oldFd = OpenNull();
    const int newFd = OpenNull();
    QDUniqueFd target(oldFd);
    QDUniqueFd source(newFd);

    target = std::move(source);

    EXPECT_FALSE(IsOpen(oldFd));
    EXPECT_TRUE(IsOpen(newFd));
    EXPECT_EQ(target.Get(), newFd);
    EXPECT_EQ(source.Get(), -1);
}

TEST(QDUniqueFd, MoveAssignmentToItselfChangesNothing)
{
    const int fd = OpenNull();
    QDUniqueFd owner(fd);
    QDUniqueFd& same = owner;

    owner = std::move(same);

    EXPECT_EQ(owner.Get(), fd);
    EXPECT_TRUE(IsOpen(fd));
}

TEST(QDUniqueFd, ReleaseHandsTheDescriptorOut)
{
    const int fd = OpenNull();
    int released = -1;
    {
        QDUniqueFd owner(fd);
        released = owner.Release();
        EXPECT_FALSE(owner.IsOpen());
    }

    EXPECT_EQ(released, fd);
    EXPECT_TRUE(IsOpen(fd));
    ::close(fd);
}

TEST(QDUniqueFd, ResetClosesAndTakesAnother)
{
    const int oldFd = OpenNull();
    const int newFd = OpenNull();
    QDUniqueFd owner(oldFd);

    owner.Reset(newFd);

    EXPECT_FALSE(IsOpen(oldFd));
    EXPECT_EQ(owner.Get(), newFd);
    EXPECT_TRUE(IsOpen(newFd));
}

TEST(QDUniqueFd, ResetTwiceClosesOnce)
{
    const int fd = OpenNull();
    QDUniqueFd owner(fd);
    owner.Reset();
    EXPECT_EQ(owner.Get(), -1);
    ASSERT_EQ(OpenNull(), fd); // somebody else has the number now

    owner.Reset();

    EXPECT_TRUE(IsOpen(fd));
    ::close(fd);
}
