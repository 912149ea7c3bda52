#include <QDPlatform/QDTextLocation.h>

#include <QDPlatform/QDString.h>

#include <utility>

namespace
{

constexpr unsigned int kLocationTextCapacity = 512;

// Added unsigned: it wraps, where signed arithmetic may not overflow.
int Sum(int left, unsigned int right)
{
    return static_cast<int>(static_cast<unsigned int>(left) + right);
}

} // namespace

CQDTextLocationSourceName::CQDTextLocationSourceName(const std::string& name) : m_Name(name) {}

const std::string& CQDTextLocationSourceName::GetName() const
{
    return m_Name;
}

void CQDTextLocationSourceName::AddRef()
{
    ++m_RefCount;
}

void CQDTextLocationSourceName::Release()
{
    --m_RefCount;
    if (m_RefCount == 0)
        delete this;
}

CQDTextLocation::CQDTextLocation(CQDTextLocationSourceName* name)
{
    SetSourceName(name);
}

CQDTextLocation::CQDTextLocation(const CQDTextLocation& other) :
    m_Line(other.m_Line), m_Column(other.m_Column), m_IndexInLine(other.m_IndexInLine)
{
    SetSourceName(other.m_pSourceName);
}

CQDTextLocation::CQDTextLocation(CQDTextLocation&& other) noexcept :
    m_Line(other.m_Line),
    m_Column(other.m_Column),
    m_IndexInLine(other.m_IndexInLine),
    m_pSourceName(std::exchange(other.m_pSourceName, nullptr))
{
    other.Reset();
}

CQDTextLocation& CQDTextLocation::operator=(const CQDTextLocation& other)
{
    SetSourceName(other.m_pSourceName);
    m_Line = other.m_Line;
    m_IndexInLine = other.m_IndexInLine;
    m_Column = other.m_Column;
    return *this;
}

CQDTextLocation& CQDTextLocation::operator=(CQDTextLocation&& other) noexcept
{
    if (this == &other)
        return *this;
    SetSourceName(nullptr);
    m_Line = other.m_Line;
    m_Column = other.m_Column;
    m_IndexInLine = other.m_IndexInLine;
    m_pSourceName = std::exchange(other.m_pSourceName, nullptr);
    other.Reset();
    return *this;
}

CQDTextLocation::~CQDTextLocation()
{
    SetSourceName(nullptr);
}

void CQDTextLocation::SetSourceName(CQDTextLocationSourceName* name)
{
    // The new one first: it may be the one that is released.
    if (name != nullptr)
        name->AddRef();
    if (m_pSourceName != nullptr)
        m_pSourceName->Release();
    m_pSourceName = name;
}

void CQDTextLocation::GetSourceName(std::string& name) const
{
    name.clear();
    if (m_pSourceName != nullptr)
        name = m_pSourceName->GetName();
}

const char* CQDTextLocation::GetSourceNamePtr() const
{
    return m_pSourceName != nullptr ? m_pSourceName->GetName().c_str() : nullptr;
}

CQDTextLocationSourceName* CQDTextLocation::GetSourceNameRef()
{
    if (m_pSourceName != nullptr)
        m_pSourceName->AddRef();
    return m_pSourceName;
}

void CQDTextLocation::Reset()
{
    m_Line = 1;
    m_Column = 1;
    m_IndexInLine = 0;
}

void CQDTextLocation::IncrementByCodePoint(int cp)
{
    if (cp == '\n') {
        m_Line = Sum(m_Line, 1);
        m_Column = 1;
        m_IndexInLine = 0;
        return;
    }
    const auto tabWidth = static_cast<unsigned int>(m_TabWidth);
    const unsigned int columns = cp == '\t' ? tabWidth - (static_cast<unsigned int>(m_Column) - 1) % tabWidth : 1;
    m_Column = Sum(m_Column, columns);
    m_IndexInLine = Sum(m_IndexInLine, 1);
}

void CQDTextLocation::IncrementByOffset(int n)
{
    m_Column = Sum(m_Column, static_cast<unsigned int>(n));
    m_IndexInLine = Sum(m_IndexInLine, static_cast<unsigned int>(n));
}

int CQDTextLocation::PrintLocation(char* buffer) const
{
    const char* name = m_pSourceName != nullptr ? m_pSourceName->GetName().c_str() : "NoFile";
    return qd_sprintf(buffer, kLocationTextCapacity, "%s(%d,%d)", name, m_Line, m_Column);
}

int CQDTextLocation::GetLine() const
{
    return m_Line;
}

int CQDTextLocation::GetColumn() const
{
    return m_Column;
}

int CQDTextLocation::GetIndexInLine() const
{
    return m_IndexInLine;
}
