#pragma once

#include <QDPlatform/QDExport.h>

#include <string>

class CQDLocale;

// Base of the classes that wrap system calls: keeps the errno of the last failed call and gives its text.
//
// Thread: none of its own; an object belongs to its owner and takes no lock.
class QD_API CQDError
{
public:
    // The code starts at 0: no error.
    CQDError() = default;
    CQDError(const CQDError&) = default;
    CQDError& operator=(const CQDError&) = default;

    // Sets `code` to the stored code and `message` to its text as QDFormatMessage() gives it, at most 255 bytes.
    // `locale` may be null and is not consulted.
    void GetErrorCodeAndMessage(const CQDLocale* locale, int& code, std::string& message) const;

    // Writes the text of the stored code into `buffer`: at most size - 1 bytes and a NUL; nothing when size is 0.
    // Returns `buffer`.
    char* GetLastErrorString(char* buffer, unsigned int size);

    // The errno of the last failed call; 0 when none failed yet. A successful call does not reset it.
    int GetLastErrorCode() const;

protected:
    // To be called with errno right after each failed system call, before anything else runs.
    void SetLastErrorCode(int code);

private:
    int m_LastErrorCode{0};
};
