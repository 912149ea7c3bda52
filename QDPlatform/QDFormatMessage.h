#pragma once

#include <QDPlatform/QDExport.h>

class CQDLocale;

// Text of an operating system error code, in the C library's words.
//
// Writes the C library's message for `code` (an errno value; any other value gets whatever the C library says for it)
// into `buffer`, in the process's message locale. At most size - 1 bytes are kept, and a NUL follows them: a longer
// message is cut, possibly inside a UTF-8 sequence. A size of 0 writes nothing.
// `locale` may be null; it is accepted for symmetry with other texts and not consulted.
// Returns the number of bytes written, terminator excluded.
// Thread: any; the C library's text is copied at once.
QD_API int QDFormatMessage(const CQDLocale* locale, int code, char* buffer, unsigned int size);

// The same with a null locale.
QD_API int QDFormatMessage(int code, char* buffer, unsigned int size);
