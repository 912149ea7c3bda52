#include <QDPlatform/CTextOutputFile.h>

#include <QDPlatform/QDFilePath.h>
#include <QDPlatform/QDTextLocation.h>

#include <algorithm>
#include <utility>

CTextOutputFile::CTextOutputFile() = default;

CTextOutputFile::~CTextOutputFile()
{
    CloseFile();
}

bool CTextOutputFile::OpenTextFileForWrite(const CQDFilePath& path)
{
    CQDTextLocation source(new CQDTextLocationSourceName(path.GetPath())); // may throw, so before any change
    GiveUpOpenFile();
    return m_File.OpenFileForWrite(path) && BeginFile(source, true);
}

bool CTextOutputFile::OpenTextFileForAppend(const CQDFilePath& path)
{
    CQDTextLocation source(new CQDTextLocationSourceName(path.GetPath())); // may throw, so before any change
    GiveUpOpenFile();
    return m_File.OpenFileForAppend(path) && BeginFile(source, m_File.GetFileSize() == 0);
}

bool CTextOutputFile::CloseFile()
{
    const bool isFlushed = FlushBuffer();
    const CQDError flushError = m_File.GetError();
    const bool isClosed = m_File.CloseFile();
    if (!isFlushed)
        m_File.GetError() = flushError; // which closing has set to 0
    if (m_pSourceName != nullptr)
        std::exchange(m_pSourceName, nullptr)->Release();
    return isFlushed && isClosed;
}

bool CTextOutputFile::FlushBuffer()
{
    if (m_BufferLength == 0)
        return true;
    if (!m_File.WriteBytes(m_Buffer, m_BufferLength))
        return false;
    m_BufferLength = 0;
    ++m_BufferWriteCount;
    return true;
}

char* CTextOutputFile::GetLastErrorString(char* buffer, unsigned int size)
{
    return m_File.GetError().GetLastErrorString(buffer, size);
}

unsigned int CTextOutputFile::GetBufferWriteCount() const
{
    return m_BufferWriteCount;
}

bool CTextOutputFile::WriteBytes(const unsigned char* bytes, unsigned int length)
{
    while (true) {
        const unsigned int count = std::min(length, static_cast<unsigned int>(sizeof m_Buffer) - m_BufferLength);
        std::copy_n(bytes, count, m_Buffer + m_BufferLength);
        m_BufferLength += count;
        bytes += count;
        length -= count;
        if (length == 0)
            return true;
        if (!FlushBuffer())
            return false;
    }
}

void CTextOutputFile::GiveUpOpenFile()
{
    if (m_File.IsFileOpen())
        CloseFile(); // a file that cannot be written is no reason against another
}

bool CTextOutputFile::BeginFile(CQDTextLocation& source, bool isEmpty)
{
    m_BufferLength = 0;
    if (isEmpty && !WriteEncoding()) {
        const CQDError markError = m_File.GetError();
        m_File.CloseFile();
        m_File.GetError() = markError; // which closing has set to 0
        m_BufferLength = 0;
        return false;
    }
    m_pSourceName = source.GetSourceNameRef();
    m_TextLocation.SetSourceName(m_pSourceName);
    return true;
}
