#pragma once

#include <QDPlatform/QDError.h>
#include <QDPlatform/QDExport.h>

#include <string>

// A file name in UTF-8, with the rules for its parts, the operations on the file that it names, and the product's
// folders.
//
// Only "/" separates components; nothing is normalised when a path is set. The bytes may be anything: the text
// operations look at "/" and "." only, and the system calls take the bytes up to the first NUL. A `const char*` that is
// null counts as an empty text; where a `const std::string&` is taken, null must not be passed.
//
// Errors:  a system call that fails leaves its errno in the CQDError part. A success does not reset it.
// Thread:  one at a time, like any plain value. Nothing is logged; no lock is taken.
class QD_API CQDFilePath : public CQDError
{
public:
    // What FindExtension() returns when there is none: the largest value of its type.
    static constexpr std::string::size_type npos = std::string::npos;

    // --- Construction and access ---

    // The empty path.
    CQDFilePath() = default;

    // The given text; not explicit, so that a text can be passed wherever a path is wanted.
    CQDFilePath(const std::string& path);
    CQDFilePath(const char* path);

    // The `length` bytes at `path`, which may be null when `length` is 0.
    CQDFilePath(const char* path, unsigned int length);

    // Copies take the text and the stored error.
    CQDFilePath(const CQDFilePath&) = default;
    CQDFilePath& operator=(const CQDFilePath&) = default;

    // Replaces the text; the stored error stays. The arguments are as those of the constructors; a null text needs the
    // length.
    void SetFromString(const std::string& path);
    void SetFromString(const char* path, unsigned int length);

    // Makes the path empty; the stored error stays.
    void Clear();

    // Makes room for a path of `length` bytes, so that it can grow to that length without another allocation.
    void Reserve(unsigned int length);

    bool IsEmpty() const;

    // The text, valid until the path changes or ends; GetPathCStr() with a NUL behind it.
    const std::string& GetPath() const;
    const char* GetPathCStr() const;

    // --- Parts of the path ---
    //
    // Positions are byte indexes. None of these looks at the file system.

    // True when the path begins with "/".
    bool IsAbsolute() const;

    // The index just behind the last "/", or 0 when there is none; never npos.
    std::string::size_type FindName() const;

    // The index of the last "." behind the last "/", or npos. A name that begins with its only "." is all extension:
    // 8 for "/home/u/.profile". Kept so; see FindExtension in the tests.
    std::string::size_type FindExtension() const;

    // Sets `name` to the text from FindName() to FindExtension(), or to the end when there is no extension.
    void GetName(std::string& name) const;

    // Sets `name` to the text from FindName() to the end.
    void GetNameAndExtension(std::string& name) const;

    // Sets `extension` to the text behind FindExtension(), without the "."; empty when there is none.
    void GetExtension(std::string& extension) const;

    // Sets `directory` to the text before the last "/". Empty for a name alone and for "/file" as well. The stored
    // error of the second form's argument stays; the argument may be this path itself.
    void GetDirectory(std::string& directory) const;
    void GetDirectory(CQDFilePath& directory) const;

    // Removes the extension, if any, with its "." and appends "." and `extension`.
    void ChangeExtension(const char* extension);

    // Appends "." and `extension` when there is no extension.
    void SetExtensionIfNotSpecified(const char* extension);

    // Without an extension, or with one that differs from `extension` in more than the case of ASCII letters, appends
    // "." and `extension` ("a.txt" becomes "a.txt.csv"); with one that differs in case alone, replaces it ("a.CSV"
    // becomes "a.csv").
    void MakeSureFileHasExtension(const char* extension);

    // True when there is an extension and it equals `type`, byte by byte: with its "." when `type` begins with one,
    // else without.
    bool IsFileOfType(const char* type) const;

    // Replaces everything from FindName() on.
    void ChangeNameAndExtension(const std::string& nameAndExtension);

    // Appends `name`, behind a "/" unless the path is empty or ends in one.
    void AppendFileName(const std::string& name);

    // Inserts `text` before the extension's ".", or at the end when there is none: "_001" makes "log_001.txt" of
    // "log.txt".
    void AppendName(const std::string& text);

    // Appends to `result` this path as seen from the directory `base`: "../" for each component of `base` that is not
    // shared, then the rest of this path. "/a/b/c.txt" from "/a/x" gives "../b/c.txt". `result` should be empty: it is
    // not cleared. Where the first components differ, or this path has no "/", `result` is set to the whole path.
    void GetRelativePathTo(const std::string& base, std::string& result) const;

    // Resolves the components of this path onto `result`, which is empty or holds a base directory. For each component
    // before a "/": ".." removes the last component of `result`, "." is skipped, any other is appended, and makes an
    // empty `result` absolute ("a/b" gives "/a/b"). What stands behind the last "/" is appended as it is, even "." and
    // "..", and an empty one as a "/" at the end unless `result` is empty. A path without "/" in an empty `result`
    // stays as it is. The file system is not asked, so symbolic links are not followed. The stored error of `result`
    // stays.
    void GetCanonicalPath(CQDFilePath& result) const;

    // --- The file that the path names ---
    //
    // Each returns true on success; false leaves the errno of the call that failed. CopyFileTo() alone repeats a call
    // that a signal interrupts: that is no error of the file.

    // True when stat() succeeds, for a folder too. It follows symbolic links: one that leads nowhere gives false.
    bool FileExists();

    // Makes the folder, with mode 0775 less the umask; its parent must exist. True also when the path exists already
    // (even as a file); EEXIST is then stored all the same.
    bool MakeDirectory();

    // rmdir(): the folder must be empty.
    bool EraseDirectory();

    // unlink(): not for folders.
    bool EraseFile();

    // Copies the content into a new file of mode 0666 less the umask; that `destination` exists is an error (EEXIST),
    // and it is then left alone. A failed write or close of the destination ends the copy with false, and what was
    // written stays. A failed read ends it as a success: of a folder, for one, comes an empty file. Kept so; see
    // CopyFileToTakesAReadErrorForTheEnd in the tests. An opening, a read or a write that a signal interrupts (EINTR)
    // is repeated. Blocks until all is copied.
    bool CopyFileTo(const CQDFilePath& destination);

    // rename(): replaces a file that `destination` names. This object keeps its text.
    bool RenameFile(const CQDFilePath& destination);

    // Removes the file that this path names, then renames `replacement` to this path. When there is no such file,
    // the removal fails and nothing is renamed; in between there is no file of this name.
    bool ReplaceFileWith(const CQDFilePath& replacement);

    // Not available on this platform: returns false and changes nothing. `prefix` is not looked at.
    bool GenerateTemporaryFileName(const char* prefix);

    // --- Standard folders ---
    //
    // Each but GetFontFolderPathCount() sets the path; those with a result return true on success. Those that make a
    // folder make it as MakeDirectory() does, and leave the path set when that fails. Those that take the name of a
    // folder normalise it: white space of ASCII (space, tab, LF, VT, FF, CR) is removed, and all else is lower-cased by
    // the simple mapping of UnicodeCharTable, without regard to the locale; bytes that are not UTF-8 stay as they are.

    // The value of the environment variable HOME, as it is. When it is not set, the path is cleared and the result is
    // false, without an error code.
    bool SetToHOMEFolder();

    // "/usr/share/quendrel-scada", made when it is missing.
    bool SetDefaultConfigurationFolder();

    // The folder of the normalised `name` in the home folder, with a "." before the name when `hidden`; made when it is
    // missing. False when HOME is not set.
    bool CreateUserFolder(const char* name, bool hidden);

    // CreateUserFolder(name, true).
    bool CreateUserLogFileFolder(const char* name);

    // "/opt/quendrelscadaserver/" and `subfolder` as it is; both are made when they are missing.
    bool CreateCommonSamplesFolder(const char* subfolder);

    // `root`, "/" and the normalised `name`; made when it is missing. `root` is taken as it is and must exist.
    bool UnixCreateCommonFolder(const char* root, const char* name);

    // The number of font folders: 1.
    static int GetFontFolderPathCount();

    // "/usr/share/fonts", for any index; always true. The folder is not looked at.
    bool SetFontsFolder(int index);

    // The program that this process runs, from "/proc/PID/exe"; a path of more than 512 bytes is cut there. When the
    // link cannot be read, the path is cleared and errno is stored.
    void SetToModuleFileName();

private:
    // Stores `error` and returns false.
    QD_LOCAL bool FailWith(int error);

    std::string m_Path; // any bytes
};
