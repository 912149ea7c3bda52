#include <QDPlatform/QDFile.h>

QDFile::~QDFile() = default;

const CQDError& QDFile::GetError() const
{
    return m_Error;
}

CQDError& QDFile::GetError()
{
    return m_Error;
}
