#pragma once

#include <QDPlatform/CTextOutputWithEncoding.h>
#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDFileUnix.h>

#include <cstdint>

class CQDFilePath;
class CQDTextLocationSourceName;

// A text writer whose sink is a file, written through a buffer of 1024 bytes.
//
// The encoding is set before a file is opened; it is UTF-16 little-endian with a byte order mark unless
// SetEncoding() says otherwise.
// Failures: operations return false, and GetLastErrorString() has the reason. A write that fails leaves the buffer as
// it was, and the next flush writes all of it again: while the file is open, nothing buffered is lost for want of
// space. Two things follow:
// - where the system took a part of the buffer before the space ran out, that part stands in the file twice after a
//   later flush succeeds. Kept so; see FlushAfterAPartialWriteRepeatsThePart.
// - the code point whose bytes find no room in the buffer is lost, but for those of its first bytes that had room.
//   Kept so; see FailingFlushKeepsTheFirstBytesOfACodePoint.
// Memory: opening a file allocates a copy of its path; when that throws std::bad_alloc, nothing has changed. Writing
//         allocates nothing but what CTextOutput does.
// Thread: one at a time, together with the locations that share the source name.
// Owns:   the file, and one reference on the source name.
class QD_API CTextOutputFile : public CTextOutputWithEncoding
{
public:
    // No file is open.
    CTextOutputFile();
    CTextOutputFile(const CTextOutputFile&) = delete;
    CTextOutputFile& operator=(const CTextOutputFile&) = delete;

    // Calls CloseFile(). Call it before, to learn whether the text has arrived.
    ~CTextOutputFile() override;

    // Open a file and make its path the source name of the text location, whose line and column stay as they are. For
    // write, the file is made or emptied, and begins with the byte order mark of the encoding, if it has one. For
    // append, it is made or kept, writing goes on at its end, and only an empty one gets the mark. The mark waits in
    // the buffer like any text. What the buffer held while no file was open is dropped. The permissions of a new file
    // are those of QDFileUnix.
    // Return false when the file cannot be opened, or the mark not be written; then no file is open.
    // A file that is open already is closed first as by CloseFile(), whose result is ignored: a caller that wants to
    // know whether the old text reached the disk calls CloseFile() first.
    bool OpenTextFileForWrite(const CQDFilePath& path);
    bool OpenTextFileForAppend(const CQDFilePath& path);

    // Flushes the buffer, closes the file and gives up the source name; the text location keeps it. Returns true when
    // flush and close succeeded, also when no file was open and the buffer was empty. Else the file is closed all the
    // same, text that could not be written stays in the buffer until a file is opened, and the reason is that of the
    // flush, if it failed.
    bool CloseFile();

    // Writes what is in the buffer with one call of the file's WriteBytes(). Returns true when there was nothing to
    // write or all was written; else the buffer keeps it all.
    bool FlushBuffer();

    // Writes the text of the last failure's error into `buffer`, at most size - 1 bytes and a NUL; nothing when size is
    // 0. Returns `buffer`. The error becomes none with each flush that has text to write and with each close, unless
    // they fail; a successful opening leaves it. A write that took a part of the bytes fails with error number 0.
    char* GetLastErrorString(char* buffer, unsigned int size);

    // How many flushes have emptied a buffer that held something, since construction.
    unsigned int GetBufferWriteCount() const;

    // Puts the bytes into the buffer, and flushes it whenever it is full and more bytes come: a full buffer waits for
    // the next byte. Returns false when a flush failed; then the bytes that found no room before are not written.
    bool WriteBytes(const unsigned char* bytes, unsigned int length) override;

private:
    // Closes a file that is open still, as the opening operations say.
    QD_LOCAL void GiveUpOpenFile();

    // Behind a successful open of the file. source: holds its name.
    QD_LOCAL bool BeginFile(CQDTextLocation& source, bool isEmpty);

    CQDTextLocationSourceName* m_pSourceName{nullptr}; // one reference, or null while no file is open
    QDFileUnix m_File;
    unsigned char m_Buffer[1024];
    uint32_t m_BufferLength{0}; // bytes
    uint32_t m_BufferWriteCount{0};
};
