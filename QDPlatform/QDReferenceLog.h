#pragma once

class COutputLog;
class CQDRefCount;

// AddRef and Release of the counted objects of the TCP server, with their log lines.
//
// log: where the line goes, or null for no line. prefix, prefixLength: as in COutputLog::PrefixedPrintInfoVA.

// Counts a reference. Prints "AddRef, RefCount = %ld".
void qd_add_reference(CQDRefCount& count, COutputLog* log, const char* prefix, unsigned int prefixLength);

// Takes a reference back. Prints "Release, RefCount = %ld". Returns true when it was the last one; the caller must then
// destroy the object, and must not touch it otherwise: another thread may have destroyed it meanwhile.
[[nodiscard]] bool qd_release_reference(CQDRefCount& count, COutputLog* log, const char* prefix,
                                        unsigned int prefixLength);
