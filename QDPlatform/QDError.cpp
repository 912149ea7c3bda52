#include <QDPlatform/QDError.h>

#include <QDPlatform/QDFormatMessage.h>

#include <cstddef>

void CQDError::GetErrorCodeAndMessage(const CQDLocale* locale, int& code, std::string& message) const
{
    char buffer[256];
    code = m_LastErrorCode;
    const int length = QDFormatMessage(locale, code, buffer, sizeof buffer);
    message.assign(buffer, static_cast<std::size_t>(length));
}

char* CQDError::GetLastErrorString(char* buffer, unsigned int size)
{
    QDFormatMessage(m_LastErrorCode, buffer, size);
    return buffer;
}

int CQDError::GetLastErrorCode() const
{
    return m_LastErrorCode;
}

void CQDError::SetLastErrorCode(int code)
{
    m_LastErrorCode = code;
}
