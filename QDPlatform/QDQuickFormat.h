#pragma once

#include <cstdarg>

// Formats what most log lines are made of in less time than the C library's formatter, with the same result.
//
// Thread:  from any thread at any time, as vsnprintf().
// Memory:  nothing is allocated.

// Does what vsnprintf() does, and returns what it returns; or does nothing and returns -1, for the caller to call
// vsnprintf(). It does nothing unless the format holds up to 16 conversions and only these, with text between them:
//
//     %%   %c   %s %.8s %.*s   %f %.3f   %d %i %u %x %X, plain or with hh, h, l, ll or z
//
// and all but %% with a width, or with "-" or, for numbers, "0" in front of it. Numbers in the format have up to two
// digits. Nor does it anything for a text of more than 512 bytes, a null pointer for %s, and an %f that is infinite or
// not a number, or under a rounding other than to nearest or a locale with another decimal point than ".".
//
// Leaves errno alone. Uses up `args` in any case.
int qd_quick_vsnprintf(char* dst, unsigned size, const char* format, va_list args);

// vsnprintf(), the quick way where there is one.
int qd_vsnprintf(char* dst, unsigned size, const char* format, va_list args);
