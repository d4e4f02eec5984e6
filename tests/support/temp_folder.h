#pragma once
// A folder of the test's own, gone with the object; and short ways to write and read whole files.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace Test {

class TempFolder
{
public:
    explicit TempFolder(const std::string& below = std::filesystem::temp_directory_path().string())
    {
        std::string pattern = below + "/vextestXXXXXX";
        if (!::mkdtemp(&pattern[0]))
            throw std::runtime_error("mkdtemp");
        m_path = pattern;
    }
    ~TempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

inline void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream << bytes;
    if (!stream.flush())
        throw std::runtime_error("cannot write " + path);
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream)
        throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// Without their ends.
inline std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

/// Rights of the file itself, also of a link; mode_t(-1) where there is none.
inline mode_t ModeOf(const std::string& path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : mode_t(-1);
}

} // namespace Test
