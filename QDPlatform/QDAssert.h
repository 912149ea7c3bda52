#pragma once

// Stops the process on a programming error, in every build type.

// Prints the source file, the function and the expression's own text to standard error and aborts. Allocates nothing,
// so it may be called in any state.
[[noreturn]] void qd_assertion_failed(const char* file, const char* function, const char* expression);

// For a caller's bugs only; what the world can cause is reported, not asserted. The expression's text is part of the
// message that users see, hence variable names such as `Result` and `pStr` where it is fixed.
#define QD_ASSERT(expression)                                                                                          \
    (__builtin_expect(static_cast<bool>(expression), 1)                                                                \
         ? static_cast<void>(0)                                                                                        \
         : qd_assertion_failed(__FILE__, __PRETTY_FUNCTION__, #expression))
