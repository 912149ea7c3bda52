#include <QDPlatform/QDRandomGenerator.h>

#include <openssl/rand.h>
#include <string.h>

bool QDRandomGenerator::GenerateRandom(int count, void* buffer)
{
    if (count > 0)
        RAND_bytes(static_cast<unsigned char*>(buffer), count);
    return true;
}

void QDRandomGenerator::ClearMemory(void* buffer, unsigned int size)
{
    if (size != 0)
        ::explicit_bzero(buffer, size);
}
