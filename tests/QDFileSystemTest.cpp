#include <QDPlatform/QDFileSystem.h>

#include <QDPlatform/QDFileUnix.h>

#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "VirtualSlot.h"

TEST(QDFileSystemInterface, GetFileIsItsOnlyVirtualFunction)
{
    EXPECT_TRUE(std::is_abstract_v<QDFileSystemInterface>);
    EXPECT_FALSE(std::has_virtual_destructor_v<QDFileSystemInterface>);
    EXPECT_EQ(VirtualSlot(&QDFileSystemInterface::GetFile), 0);
}

TEST(QDFileSystem, ImplementsTheInterfaceWithoutData)
{
    EXPECT_TRUE((std::is_base_of_v<QDFileSystemInterface, QDFileSystem>));
    EXPECT_EQ(sizeof(QDFileSystem), sizeof(void*));
}

TEST(QDFileSystem, CannotBeMadeOrCopiedByOthers)
{
    EXPECT_FALSE(std::is_default_constructible_v<QDFileSystem>);
    EXPECT_FALSE(std::is_copy_constructible_v<QDFileSystem>);
    EXPECT_FALSE(std::is_destructible_v<QDFileSystem>);
}

TEST(QDFileSystem, GetInstanceGivesTheSameObjectToAllThreads)
{
    std::vector<QDFileSystem*> instances(8);
    std::vector<std::thread> threads;

    for (QDFileSystem*& instance : instances)
        threads.emplace_back([&instance] { instance = QDFileSystem::GetInstance(); });
    for (std::thread& thread : threads)
        thread.join();

    ASSERT_NE(instances[0], nullptr);
    for (const QDFileSystem* instance : instances)
        EXPECT_EQ(instance, instances[0]);
}

TEST(QDFileSystem, GetFileGivesAClosedUnixFile)
{
    QDFileSystemInterface* const files = QDFileSystem::GetInstance();

    const std::unique_ptr<QDFile> file(files->GetFile());

    EXPECT_NE(dynamic_cast<QDFileUnix*>(file.get()), nullptr);
    EXPECT_FALSE(file->IsFileOpen());
    EXPECT_EQ(file->GetFileSize(), 0);
    EXPECT_EQ(file->GetError().GetLastErrorCode(), 0);
}

TEST(QDFileSystem, GetFileGivesANewFileEachTime)
{
    const std::unique_ptr<QDFile> first(QDFileSystem::GetInstance()->GetFile());
    const std::unique_ptr<QDFile> second(QDFileSystem::GetInstance()->GetFile());

    EXPECT_NE(first.get(), second.get());
}
