#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

// A new, empty folder, which goes with all that it holds when the object ends.
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string name = std::filesystem::temp_directory_path() / "qdplatform-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            std::perror("TemporaryFolder");
            std::abort();
        }
        m_Path = name;
    }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    ~TemporaryFolder()
    {
        std::error_code ignored; // a test that removed the folder itself has said what it wanted to say
        std::filesystem::remove_all(m_Path, ignored);
    }

    // Absolute, without a "/" at the end.
    const std::string& GetPath() const { return m_Path; }

    // The path of an entry of the folder.
    std::string operator/(const std::string& name) const { return m_Path + '/' + name; }

private:
    std::string m_Path;
};

// The whole content of a file; empty when there is none.
inline std::string ReadFileText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Makes the file, or replaces its content.
inline void WriteFileText(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    if (!file.flush()) {
        std::perror(path.c_str());
        std::abort();
    }
}
