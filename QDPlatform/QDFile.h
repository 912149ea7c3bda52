#pragma once

#include <QDPlatform/QDError.h>
#include <QDPlatform/QDExport.h>

class CQDFilePath;

// A binary file, to be opened for write, append or read; QDFileSystem::GetFile() makes one for this platform.
//
// Every operation reports success; GetError() keeps the errno of one that failed. Nothing is logged.
// Thread: one at a time.
class QD_API QDFile
{
public:
    QDFile() = default;
    QDFile(const QDFile&) = delete;
    QDFile& operator=(const QDFile&) = delete;

    // A derived class closes its file. The order of the virtual functions is fixed.
    virtual ~QDFile();

    // Opens the file for writing, empty: makes it or drops its content.
    virtual bool OpenFileForWrite(const CQDFilePath& path) = 0;

    // Opens the file for writing behind its present end; makes it when it is missing.
    virtual bool OpenFileForAppend(const CQDFilePath& path) = 0;

    // Opens the file for reading. `flag` has no meaning so far.
    virtual bool OpenFileForRead(const CQDFilePath& path, bool flag) = 0;

    // Closes the file, if one is open; the object can be used again, whatever the result.
    virtual bool CloseFile() = 0;

    // Writes at the current position. False when not all `length` bytes were written: with error code 0 when some were.
    virtual bool WriteBytes(const void* data, unsigned int length) = 0;

    // Reads up to `size` bytes from the current position and sets `bytesRead` to their number; 0 is the end of the
    // file. On failure `bytesRead` stays as it was.
    virtual bool ReadBytes(void* buffer, unsigned int size, unsigned int& bytesRead) = 0;

    // Cuts or extends the file, with zeros, to `length` bytes. The current position stays.
    virtual bool TruncateFile(long long length) = 0;

    // Moves the current position forward by `count` bytes, beyond the end too.
    virtual bool SkipBytes(unsigned int count) = 0;

    // Moves the current position to `offset`. An offset beyond the end gives false with error code 0, unless
    // m_MaySeekBeyondEnd is set.
    virtual bool SeekToOffset(unsigned int offset) = 0;

    // The size in bytes as this object counts it, from what it learned at opening and did since.
    virtual long long GetFileSize() const = 0;

    virtual bool IsFileOpen() const = 0;

    // The errno of the last failed operation, with its text.
    const CQDError& GetError() const;
    CQDError& GetError();

protected:
    // The error, with its setter in reach of derived classes.
    class ErrorState : public CQDError
    {
    public:
        using CQDError::SetLastErrorCode;
    };

    ErrorState m_Error;             // errno of the last failed operation
    bool m_MaySeekBeyondEnd{false}; // for derived classes to set; nothing in this library does
};
