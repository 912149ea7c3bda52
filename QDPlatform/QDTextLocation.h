#pragma once

#include <QDPlatform/QDExport.h>

#include <string>

// A position in a text, in lines, columns and code points, that a reader or writer moves along as it goes.

// The name of a text, shared by the locations in it.
//
// Made with new by whoever opens the text; the count starts at 0, and the last Release() deletes the object.
// Thread:  one at a time, for the name and all locations that share it: the count is not atomic.
class QD_API CQDTextLocationSourceName
{
public:
    // Copies `name`.
    explicit CQDTextLocationSourceName(const std::string& name);
    CQDTextLocationSourceName(const CQDTextLocationSourceName&) = delete;
    CQDTextLocationSourceName& operator=(const CQDTextLocationSourceName&) = delete;

    // The name, as given. Valid until the last Release().
    const std::string& GetName() const;

    // Adds one to the count.
    void AddRef();

    // Takes one from the count; at 0 the object deletes itself. Each call gives back one AddRef().
    void Release();

private:
    ~CQDTextLocationSourceName() = default;

    std::string m_Name;
    int m_RefCount{0};
};

// A line, a column and an index in the line, and the name of the text that they are in.
//
// A location may name its source, such as a file. The name is a counted object of its own, so that any number of saved
// locations share one copy of it. Lines, columns and indexes wrap when they pass 0x7FFFFFFF.
// Thread:  one at a time, together with all locations that share its name.
// Owns:    one reference on the name it holds.
class QD_API CQDTextLocation
{
public:
    // Line 1, column 1, index 0; no source name.
    CQDTextLocation() = default;

    // As above, with a reference on `name`, which may be null.
    explicit CQDTextLocation(CQDTextLocationSourceName* name);

    // The other's position, with a reference on its name.
    CQDTextLocation(const CQDTextLocation& other);

    // Takes the other's position and name over; leaves the other at line 1, column 1, index 0 with no name.
    CQDTextLocation(CQDTextLocation&& other) noexcept;

    // As the copy constructor, but that the name held so far is released.
    CQDTextLocation& operator=(const CQDTextLocation& other);

    // As the move constructor, but that the name held so far is released. Moving onto itself changes nothing.
    CQDTextLocation& operator=(CQDTextLocation&& other) noexcept;

    // Releases the name.
    ~CQDTextLocation();

    // Holds `name` from now on, which may be null for none, and releases the name held so far. Setting the name that is
    // held already is safe, also for its only holder.
    void SetSourceName(CQDTextLocationSourceName* name);

    // Sets `name` to the source name; to an empty text when there is none.
    void GetSourceName(std::string& name) const;

    // The source name, or null when there is none. Valid while the name lives.
    const char* GetSourceNamePtr() const;

    // The source name with a reference for the caller, who must Release() it; null when there is none.
    CQDTextLocationSourceName* GetSourceNameRef();

    // Back to line 1, column 1, index 0; the name is kept.
    void Reset();

    // Moves past one code point. A line feed begins the next line; a tab moves to the next tab stop, which are the
    // columns 5, 9, 13 and so on; everything else, a carriage return too, takes one column.
    void IncrementByCodePoint(int cp);

    // Moves `n` columns and code points on, past a run without tabs and line feeds.
    void IncrementByOffset(int n);

    // Writes "NAME(LINE,COLUMN)", or "NoFile(LINE,COLUMN)" without a name, into `buffer`, which has room for 512 bytes.
    // Returns the length, or QDFormatTruncated when the name did not fit; the text is then cut and terminated.
    int PrintLocation(char* buffer) const;

    // The line, from 1.
    int GetLine() const;

    // The column, from 1, with tabs expanded.
    int GetColumn() const;

    // Code points since the start of the line, from 0.
    int GetIndexInLine() const;

private:
    int m_TabWidth{4}; // of every location
    int m_Line{1};
    int m_Column{1};
    int m_IndexInLine{0};
    CQDTextLocationSourceName* m_pSourceName{nullptr}; // one reference, or null
};
