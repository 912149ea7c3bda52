#pragma once

#include <QDPlatform/QDExport.h>

// Random bytes that nobody can predict, and the wiping of memory that held a secret.
//
// Thread: any thread at any time.
class QD_API QDRandomGenerator
{
public:
    QDRandomGenerator() = delete;

    // Fills the first `count` bytes at `buffer` from OpenSSL's generator; writes nothing when count is 0 or below, and
    // `buffer` may be null then. Returns true in every case, also when the generator failed and left the buffer as it
    // was: its result is not looked at. Kept so; see FailingGeneratorStillReturnsTrue. The generator then leaves its
    // reason in the thread's OpenSSL error queue.
    static bool GenerateRandom(int count, void* buffer);

    // Sets `size` bytes at `buffer` to zero, also where the compiler sees that nobody reads them again. `buffer` may be
    // null when size is 0.
    static void ClearMemory(void* buffer, unsigned int size);
};
