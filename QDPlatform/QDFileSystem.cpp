#include <QDPlatform/QDFileSystem.h>

#include <QDPlatform/QDFileUnix.h>

QDFileSystem* QDFileSystem::GetInstance()
{
    static QDFileSystem instance;
    return &instance;
}

QDFile* QDFileSystem::GetFile()
{
    return new QDFileUnix;
}
