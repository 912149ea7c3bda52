#include <QDPlatform/QDCommandArguments.h>

#include <cstdint>
#include <cstring>
#include <cwchar>

CQDCommandArguments::CQDCommandArguments() : m_Position(m_Arguments.cend()) {}

CQDCommandArguments::~CQDCommandArguments() = default;

bool CQDCommandArguments::ReadArguments(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        char text[1024];
        const unsigned int length =
            qd_qdchar_from_utf8(reinterpret_cast<const uint8_t*>(argv[i]),
                                static_cast<unsigned int>(std::strlen(argv[i])), text, sizeof text);
        if (!AddArgument(i, text, length))
            return false;
    }
    m_Position = m_Arguments.cbegin();
    return true;
}

bool CQDCommandArguments::AddArgument(int number, const qdchar* text, unsigned int length)
{
    if (length == 0 || text[0] != '-') {
        m_Arguments.push_back({ArgumentValue, std::string(text, length)});
        return true;
    }
    if (length < 2) {
        std::wprintf(L"Error: Argument #%d invalid", number);
        return false;
    }
    m_Arguments.push_back({ArgumentOption, std::string(text + 1, length - 1)});
    return true;
}

int CQDCommandArguments::GetCount() const
{
    return static_cast<int>(m_Arguments.size());
}

const CQDCommandArguments::CommandArgument* CQDCommandArguments::GetNextArgument() const
{
    if (m_Position == m_Arguments.cend())
        return nullptr;
    return &*m_Position++;
}
