#pragma once

#include <cstdlib>

// What tests must know of scripts/emulate, under which the tests of other architectures run: qemu's user emulation
// translates system calls, and some of them incompletely.

// True when a test runs emulated. A test skips with this, saying which call the emulator lacks.
inline bool RunsEmulated()
{
    return std::getenv("QEMU_LD_PREFIX") != nullptr; // which scripts/emulate sets
}

// The end of a pattern for a death test's output: a line feed and nothing more, but for the emulator's own line.
#define QD_TEST_END_OF_OUTPUT "\n(qemu: [^\n]*\n)?$"
