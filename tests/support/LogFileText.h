#pragma once

#include "TemporaryFolder.h"

#include <QDPlatform/QDModule.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

// What the files of a COutputLogToFile hold, for tests to look at.

// Whether the text starts with a time, as in "2020-03-04 05:06:07.008 ".
inline bool StartsWithTime(const std::string& text)
{
    const std::string form = "dddd-dd-dd dd:dd:dd.ddd ";
    return text.size() >= form.size() && std::equal(form.begin(), form.end(), text.begin(), [](char expected, char c) {
               return expected == 'd' ? c >= '0' && c <= '9' : c == expected;
           });
}

// The lines of a text without their ends; a last one without end counts too. The time that a line starts with becomes
// "<time>".
inline std::vector<std::string> LogLines(const std::string& text)
{
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, end - start);
        if (StartsWithTime(line))
            line.replace(0, 24, "<time> ");
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

inline std::vector<std::string> LogFileLines(const std::string& path)
{
    return LogLines(ReadFileText(path));
}

// The lines of the banner, as LogLines() gives them.
inline std::vector<std::string> BannerLines()
{
    std::vector<std::string> lines = {"<time> Quendrel SCADA 3.78 (20211130.3)", "<time> 3rd Party Software:"};
    for (int i = 0; i < 3; ++i) // OpenSSL, Curl, zlib
        lines.push_back(std::string("<time> \t") + g_VersionInfo[i].m_Version);
    lines.push_back("<time> Host Information:");
    for (const char* name : {"ostype", "osrelease", "version"}) {
        std::string text = ReadFileText(std::string("/proc/sys/kernel/") + name).substr(0, 80);
        text.erase(text.find_last_not_of(" \n") + 1);
        lines.push_back("<time> \t" + text);
    }
    lines.push_back("<time> \t32 Bit OS");
    return lines;
}

// What a file begins with: `first`, that line's text, and the banner.
inline std::vector<std::string> HeadLines(const std::string& first)
{
    std::vector<std::string> lines = BannerLines();
    lines.insert(lines.begin(), "<time> " + first);
    return lines;
}

// One list behind the other.
inline std::vector<std::string> operator+(std::vector<std::string> left, const std::vector<std::string>& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The names in a folder, sorted.
inline std::vector<std::string> FolderNames(const std::string& folder)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// The lines of all files of a folder, in the order of their names.
inline std::vector<std::string> FolderLines(const std::string& folder)
{
    std::vector<std::string> lines;
    for (const std::string& name : FolderNames(folder))
        lines = std::move(lines) + LogFileLines(folder + '/' + name);
    return lines;
}
