#pragma once

#include <QDPlatform/QDExport.h>
#include <QDPlatform/QDTimestamp.h>

#include <dirent.h>

#include <cstdint>
#include <string>

// Finds the entries of one folder whose names match a pattern with the wildcards "*" and "?".
//
//     CQDFindFiles search;
//     for (bool found = search.FirstFile("/var/log/*.log"); found; found = search.NextFile())
//         search.GetName(name);
//
// Entries come in the order of the file system, "." and ".." among them. "*" matches any run of bytes, none included,
// "?" exactly one byte, every other byte itself, upper and lower case apart; the whole name must match. The time of a
// match is bounded by the length of the pattern times that of the name.
// Accessors tell of the entry that the last FirstFile() or NextFile() found. When that call returned false, and before
// the first, there is no entry: an empty name, a size of 0, the time 1970-01-01 00:00:00, not a directory.
// Thread: one at a time.
// Owns:   one descriptor, close-on-exec, from a FirstFile() that opened the folder until the end of the search, the
//         next FirstFile() or the destructor.
class QD_API CQDFindFiles
{
public:
    // No search, no entry.
    CQDFindFiles();
    CQDFindFiles(const CQDFindFiles&) = delete;
    CQDFindFiles& operator=(const CQDFindFiles&) = delete;
    ~CQDFindFiles();

    // Ends the search that runs, and starts one for the pattern behind the last "/" in the folder before it. Folder and
    // pattern are cut to their first 1024 bytes, the folder also at a NUL. Returns whether an entry was found; no entry
    // and a folder that cannot be opened are not told apart. Without a folder ("*.log") and for the root folder
    // ("/*.log") nothing is found: their folder is the empty path, which no system opens. Kept so; see
    // PatternWithoutFolderFindsNothing.
    bool FirstFile(const std::string& pathAndPattern);

    // Goes to the next entry that matches. Returns false at the end of the folder and when it cannot be read further,
    // which ends the search, and when no search runs.
    bool NextFile();

    // Sets `name` to the entry's name without its folder: the bytes as the file system has them, which need not be
    // well-formed UTF-8.
    void GetName(std::string& name) const;

    // The entry's size in bytes when it was found. 4 GiB and more give 0xFFFFFFFF: the low 32 bits would look like a
    // small file's. This and the time are those of the file that a link leads to; 0 when that could not be looked up,
    // as for a link that leads nowhere.
    uint32_t GetSize() const;

    // Sets `time` to the entry's modification time, UTC, when it was found; 1970-01-01 00:00:00 when it could not be
    // looked up.
    void GetModificationTime(CQDTimestamp& time) const;

    // True for a directory, for a link to one, and for "." and ".." in any case. False when it could not be looked up.
    bool IsDirectory() const;

private:
    // What stat() told of the entry; as it is here when it told nothing.
    struct Status
    {
        QD_LOCAL Status();

        uint32_t m_Size{0};
        CQDTimestamp m_ModificationTime; // 1970-01-01 00:00:00
        bool m_IsDirectory{false};
    };

    QD_LOCAL void ReadStatus();
    QD_LOCAL void EndSearch();

    DIR* m_pDirectorySearch{nullptr}; // null when no search runs
    const dirent* m_pEntry{nullptr};  // lies in the stream; null when there is no entry
    std::string m_Directory;
    std::string m_Pattern;
    Status m_Status;
};
