#pragma once

#include <QDPlatform/COutputLog.h>
#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDFilePath.h>
#include <QDPlatform/QDFileUnix.h>

#include <list>
#include <string>

// A log in numbered files of one folder: a new file when the current one is full, the oldest deleted beyond a count.
//
// A message is one line: the time in UTC as in "2020-03-04 05:06:07.008", a blank, the text and "\n"; type and code are
// not written. The files are UTF-8 without a byte order mark, and valid whatever is logged, but for a line that a full
// disk cut: ill-formed input becomes U+FFFD. Their names are the file name, "_", a number from 001 to 999 and ".log";
// behind 999 comes 001 again.
// When a call returns, its line is with the kernel and outlives the process. A message costs one write() per 508 to
// 511 bytes of its line and no allocation, but for the one that opens a file.
// A new file has the number behind the newest one that the folder lists, and replaces a file of that number. So in a
// folder that may be written but not listed, or that has a path of more than 1,024 bytes, file 001 is lost.
// Opening deletes every file of the folder that matches "<file name>_*.log" and has no valid number: the folder and the
// names that start so belong to the log. Each file begins with a banner: product, libraries, host.
// Errors: nothing throws but std::bad_alloc, from what sets or gives names and while a file is opened. A write that
//         fails loses what it was to write and nothing else, and is not counted; a full disk may so leave part of a
//         line. The next message tries again.
// Thread: takes no lock; one thread at a time. COutputLogToFile is the form for several. Two processes that log under
//         one name in one folder do not heed each other: they overwrite each other's lines.
// Owns:   the open file. Destruction closes it, as CloseFile() does.
class QD_API COutputLogToFileWithoutCS : public COutputLog
{
public:
    // A log file.
    struct LogFile
    {
        unsigned long m_Number; // 1..999
        unsigned int m_Size;    // bytes counted
    };

    // Files of 32 MiB in all: 8 of 4 MiB. Closed, without names and folder.
    COutputLogToFileWithoutCS();

    // Files of totalSize bytes in all; see SetMaximumFileSizeCountFromTotalSize().
    explicit COutputLogToFileWithoutCS(long long totalSize);

    COutputLogToFileWithoutCS(const COutputLogToFileWithoutCS&) = delete;
    COutputLogToFileWithoutCS& operator=(const COutputLogToFileWithoutCS&) = delete;

    // Closes the file as CloseFile() does.
    ~COutputLogToFileWithoutCS() override;

    // Sets the name of the folder in the user's home, which counts while no folder is set, and, as the next function
    // does, the name of the files. Neither may be null.
    void SetLogfileName(const char* folderName, const char* fileName);

    // Sets the name of the files without "_nnn.log". Each of the bytes < > : " / \ | ? * becomes "%" and its code in
    // hexadecimal: "a:b" becomes "a%3Ab". It may not be null.
    // An open file stays open under its old name, and what follows it when it is full goes on with its numbers: it
    // replaces the new names' file of the next number, and it is the new names' files of old numbers that are deleted.
    // So close first.
    void SetLogFileNameReplacingInvalidCharacters(const char* fileName);

    // Sets the largest size and number of the files from their size together, in bytes, at least 102,400: files of 4
    // MiB, or halved until they are four or more. 32 MiB give 8 files of 4 MiB, 10 MiB 5 of 2 MiB, 0 gives 6 of 16 KiB.
    // A file ends with the message that takes it over its size, so that it may be larger by that message.
    void SetMaximumFileSizeCountFromTotalSize(long long totalSize);

    // Sets the folder to "." and the folder name, without white space and in lower case, in $HOME, and makes it if it
    // is missing. Returns false, with the folder empty, when it cannot.
    bool InitialiseDefaultWorkingDirectory();

    // Opens the newest file for more lines, or the next one when there is none or it is more than three quarters full;
    // the folder is the default one unless it was set. Writes the banner, then deletes the oldest files beyond the
    // number. Returns true at once when a file is open, false when no file can be opened. Should the lines about
    // deletions fill the file and the next cannot be opened, it returns true with none open.
    bool Open();

    // Sets the folder, which must exist, and the name of the files as above, which ends at a NUL, and opens. With a
    // file open it goes on with that one until it is full or closed: close first, see
    // SetLogFileNameReplacingInvalidCharacters().
    bool OpenAtLocation(const CQDFilePath& folder, const std::string& fileName);

    // Writes the line "Closing file", without time, and closes. Does nothing when no file is open. The next message
    // opens again.
    void CloseFile();

    // Sets `name` to the whole set as shown to users: folder, "/", file name and "_nnn.log".
    void GetGeneralLogFileName(std::string& name) const;

    // Sets `pattern` to the names of the set without folder: file name and "_*.log".
    void GetLogFileWildCard(std::string& pattern) const;

    // Sets `path` to that of the file with this number, written in three digits or more.
    void GetLogFilePath(CQDFilePath& path, unsigned long number) const;

    // Whether `name` has a log file's number: behind its last "_" exactly three decimal digits, from 001 to 999, and
    // then ".". Sets `number` to it, to 0 when there is none. Neither the text before nor that behind is looked at.
    // `name` may not be null.
    static bool ValidateLogFileName(const char* name, unsigned long& number);

    // Does nothing: what is logged stays.
    void Clear() override;

    // Writes one line, opening the log first when it is closed; when that fails, the message is lost. A line that takes
    // the file over its size is its last but for "Closing file (file reached size limit )"; then the next is opened.
    // Line ends and NULs in the text are written as they are.
    void AppendMessage(LogType type, int code, const qdchar* text, unsigned int length) override;

    // Writes `text`, which may not be null, and "\n" without time. Does not count toward the size, and does not open:
    // lost when closed.
    virtual void PrintRaw(const char* text);

protected:
    // The steps of the above. All that return bool return false when the system refuses.

    // Opens the newest file of the list to append to it. The list must not be empty.
    bool OpenLastFile();

    // Lists the number behind the newest and opens its file, emptied. When it fails the number stays listed, until
    // Open() reads the folder again.
    bool OpenNewFile();

    // Writes the closing line and closes, if open.
    void CloseCurrentFile(bool sizeLimitReached);

    // Deletes files from the oldest on until no more than the number are listed, with a line for each. A file that
    // cannot be deleted is no longer listed.
    void DeleteOldFiles();

    // Writes nothing: the files have no byte order mark.
    void WriteByteOrderMark();

    // Put text, or a line end, into the line buffer, and write the buffer whenever a code point would make it 512 bytes
    // or more. count: whether what is written counts toward the size. Return false at the first write that fails; the
    // rest of the text is dropped.
    bool WriteText(const char* text, unsigned int length, bool count);
    bool WriteNewLine(bool count);

    // Writes the line buffer, with one write(), and empties it, also when that failed.
    bool FlushCurrentLine(bool count);

    // Prints the banner.
    void PrintProductTelemetry();

private:
    static constexpr unsigned int kLineCapacity = 512; // bytes; one is never used
    static constexpr unsigned int kTimeCapacity = 32;

    QD_LOCAL bool AddAscii(const char* text, unsigned int length);
    QD_LOCAL bool AddText(const char* text, unsigned int length, bool count);
    QD_LOCAL void SetTime();
    QD_LOCAL void ListFiles();
    QD_LOCAL bool AddCodePoints(const char* text, unsigned int length, bool count);
    QD_LOCAL void PrintFileHead(const char* what, const CQDFilePath& path);

    bool m_MessagesOpen{true}; // false while a new file's head is written: its lines must not open another
    unsigned int m_MaximumFileCount{0};
    unsigned int m_MaximumFileSize{0}; // bytes
    std::string m_FolderName;          // of the default folder
    CQDFilePath m_Folder;              // empty until it is set
    std::string m_FileName;            // invalid characters replaced
    std::list<LogFile> m_Files;        // from the oldest to the newest, which is the open one
    QDFileUnix m_File;
    char m_LineBuffer[kLineCapacity];
    unsigned int m_LineLength{0}; // bytes in the line buffer
    char m_Time[kTimeCapacity];   // of the last message, with its blank
    long long m_Second{-1};       // in which that was, since 1601; -1 before the first
};
