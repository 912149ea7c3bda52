#pragma once

#include <QDPlatform/QDExport.h>

class QDFile;

// The factory of files, so that code which needs a file does not name the platform's class.
//
// Thread: any thread at any time.
class QD_API QDFileSystemInterface
{
public:
    QDFileSystemInterface(const QDFileSystemInterface&) = delete;
    QDFileSystemInterface& operator=(const QDFileSystemInterface&) = delete;

    // A new, closed file, which the caller owns and deletes; never null. The only virtual function.
    virtual QDFile* GetFile() = 0;

protected:
    QDFileSystemInterface() = default;

    // Not virtual: nobody deletes a factory through this type.
    ~QDFileSystemInterface() = default;
};

// The factory of this platform: makes QDFileUnix. There is one in the process, without data.
class QD_API QDFileSystem : public QDFileSystemInterface
{
public:
    QDFileSystem(const QDFileSystem&) = delete;
    QDFileSystem& operator=(const QDFileSystem&) = delete;

    // The one object, made by the first call; never null. It can be used until the process ends.
    static QDFileSystem* GetInstance();

    QDFile* GetFile() override;

private:
    QDFileSystem() = default;
    ~QDFileSystem() = default;
};
