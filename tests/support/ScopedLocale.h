#pragma once

#include <gtest/gtest.h>

#include <clocale>
#include <string>

// Sets the process locale for one test, or for one turn of a loop in a test.
class ScopedLocale
{
public:
    explicit ScopedLocale(const char* name) : m_Old(std::setlocale(LC_ALL, nullptr))
    {
        EXPECT_NE(std::setlocale(LC_ALL, name), nullptr);
    }

    ~ScopedLocale() { std::setlocale(LC_ALL, m_Old.c_str()); }

    ScopedLocale(const ScopedLocale&) = delete;
    ScopedLocale& operator=(const ScopedLocale&) = delete;

private:
    std::string m_Old;
};
