#include <QDPlatform/QDFormatMessage.h>

#include <QDPlatform/QDString.h>

#include <cstdint>
#include <cstring>

int QDFormatMessage(const CQDLocale*, int code, char* buffer, unsigned int size)
{
    if (size == 0)
        return 0;
    const char* text = std::strerror(code);
    const unsigned int length = qd_qdchar_from_utf8(reinterpret_cast<const uint8_t*>(text),
                                                    static_cast<unsigned int>(std::strlen(text)), buffer, size - 1);
    buffer[length] = '\0';
    return static_cast<int>(length);
}

int QDFormatMessage(int code, char* buffer, unsigned int size)
{
    return QDFormatMessage(nullptr, code, buffer, size);
}
