#pragma once

#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <system_error>

// The number of descriptors that the process has open, and one more for looking.
inline int CountOpenDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return static_cast<int>(std::distance(begin(entries), end(entries)));
}

// The descriptor by which the process has the file open; -1 when it has not. Of several any one.
inline int FindDescriptorOf(const std::string& path)
{
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(path); // as the kernel knows it
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored; // the iteration's own descriptor is gone after it
        if (std::filesystem::read_symlink(entry.path(), ignored) == resolved)
            return std::stoi(entry.path().filename());
    }
    return -1;
}
