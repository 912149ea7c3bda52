#pragma once

#include <QDPlatform/QDFilePath.h>

#include <string>

// The folder where a station keeps its log and its registers. It belongs to one station at a time.
//
// The station holds a lock on the file station.lock in it. The kernel takes the lock back when the process ends, in
// whatever way; the file stays, and means nothing by itself. Whoever removes the file, or the folder, while a station
// runs removes the guard: the next station would take the folder as well.
// Thread: one at a time.
// Owns: the descriptor of the lock file.
class StationFolder
{
public:
    StationFolder() = default;
    StationFolder(const StationFolder&) = delete;
    StationFolder& operator=(const StationFolder&) = delete;
    ~StationFolder();

    // Takes `folder`, or .quendrelscada in the user's home folder when that is empty, and keeps it from other stations
    // until this object ends. To be called once. A missing folder is created, but not its parents.
    // Returns false, with the reason in `error`, a text without a line end, when the folder cannot be had.
    bool Open(const std::string& folder, std::string& error);

    // Set by Open().
    const CQDFilePath& GetPath() const { return m_Path; }

private:
    bool Create(const std::string& folder, std::string& error);
    bool Lock(std::string& error);

    CQDFilePath m_Path;
    int m_Lock{-1};
};
