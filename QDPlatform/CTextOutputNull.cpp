#include <QDPlatform/CTextOutputNull.h>

CTextOutputNull::CTextOutputNull() = default;

CTextOutputNull::~CTextOutputNull() = default;

bool CTextOutputNull::WriteCodePoint(int)
{
    return true;
}
