#pragma once

#include <cstdlib>
#include <optional>
#include <string>

// An environment variable as long as the object lives; not set when the value is null.
class ScopedVariable
{
public:
    ScopedVariable(const char* name, const char* value) : m_Name(name)
    {
        if (const char* previous = std::getenv(name))
            m_Previous = previous;
        Set(value);
    }

    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

    ~ScopedVariable() { Set(m_Previous ? m_Previous->c_str() : nullptr); }

    void Set(const char* value)
    {
        if (value != nullptr)
            ::setenv(m_Name, value, 1);
        else
            ::unsetenv(m_Name);
    }

private:
    const char* m_Name;
    std::optional<std::string> m_Previous;
};
