#pragma once

// Marks what the shared library exports, and lets the compiler check printf formats.

// On a class, function or datum: visible to users of the library. Everything else is hidden.
#define QD_API __attribute__((visibility("default")))

// On a private member function of a class that is marked QD_API: not visible, since only the library calls it.
#define QD_LOCAL __attribute__((visibility("hidden")))

// On a function: argument formatIndex is a printf format for the arguments from firstArgument on (0 for a va_list).
// Both count from 1; in a member function `this` is argument 1.
#define QD_PRINTF_FORMAT(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))
