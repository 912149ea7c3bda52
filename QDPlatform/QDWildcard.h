#pragma once

#include <string_view>

// Matches names against a pattern with the wildcards "*" and "?", byte by byte.
//
// "*" matches any run of bytes, none included, "?" exactly one byte, every other byte itself. Returns whether the whole
// of `name` matches. Takes time in proportion to pattern.size() * name.size() at worst, and allocates nothing.
bool qd_wildcard_matches(std::string_view pattern, std::string_view name);
