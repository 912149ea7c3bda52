#pragma once

#include "ScopedVariable.h"
#include "TemporaryFolder.h"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

// Sets a locale whose decimal point is a comma, for one test: one of the system's, or one made for the purpose.
class CommaLocale
{
public:
    CommaLocale() : m_OldLocale(std::setlocale(LC_ALL, nullptr))
    {
        for (const char* const name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "ru_RU.UTF-8", "nl_NL.UTF-8"}) {
            if (Set(name))
                return;
        }
        const TemporaryFolder& folder = m_Folder.emplace();
        const std::string command = "localedef -i de_DE -f UTF-8 " + folder / "comma" + " >/dev/null 2>&1";
        m_IsMade = std::system(command.c_str()) == 0;
        m_Path.emplace("LOCPATH", folder.GetPath().c_str());
        Set("comma");
    }

    ~CommaLocale() { std::setlocale(LC_ALL, m_OldLocale.c_str()); }

    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

    bool IsSet() const { return m_IsSet; }

    const char* GetReason() const
    {
        return m_IsMade ? "the C library does not take the locale that localedef made"
                        : "there is no locale with a comma, and localedef cannot make one";
    }

private:
    bool Set(const char* name)
    {
        m_IsSet = std::setlocale(LC_ALL, name) != nullptr && std::strcmp(std::localeconv()->decimal_point, ",") == 0;
        if (!m_IsSet)
            std::setlocale(LC_ALL, m_OldLocale.c_str());
        return m_IsSet;
    }

    std::string m_OldLocale;
    std::optional<TemporaryFolder> m_Folder; // of the locale that was made
    std::optional<ScopedVariable> m_Path;
    bool m_IsMade{false};
    bool m_IsSet{false};
};
