// The version file of an extension: any bytes give an answer.
// Without a byte-order mark it is that of a plain reading, line by line.

#include "vex/apps/vex/version_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <wx/mstream.h>

namespace {
bool ReadNumber(const char*& at, int& number)
{
    while (*at == ' ' || *at == '\t' || *at == '\v' || *at == '\f')
        ++at;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(at, &end, 10);
    if (end == at || errno != 0 || value < INT_MIN || value > INT_MAX)
        return false;
    at = end;
    number = static_cast<int>(value);
    return true;
}

FileVersion Numbers(const std::string& rest)
{
    const char* at = rest.c_str();
    FileVersion version;
    version.line = FileVersion::LineKind::Malformed;
    for (int i = 0; i < 4; ++i)
        if ((i > 0 && *at++ != "..-"[i - 1]) || !ReadNumber(at, version.numbers[i]))
            return version;
    version.line = FileVersion::LineKind::WellFormed;
    return version;
}

FileVersion PlainReading(const std::string& text)
{
    std::size_t begin = 0;
    while (begin <= text.size()) {
        const std::size_t end = std::min(text.find_first_of("\r\n", begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        if (line.compare(0, 8, "version:") == 0)
            return Numbers(line.substr(8));
        begin = end + 1;
    }
    return {};
}

bool HasMark(const std::string& text)
{
    return text.compare(0, 2, "\xFF\xFE") == 0 || text.compare(0, 2, "\xFE\xFF") == 0
           || text.compare(0, 3, "\xEF\xBB\xBF") == 0 || text.compare(0, 4, std::string("\0\0\xFE\xFF", 4)) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    wxMemoryInputStream stream(data, size);
    const FileVersion version = ReadVersionFile(stream);
    const FileVersion plain = PlainReading(text);
    if (HasMark(text))
        return 0;
    if (version.line != plain.line)
        std::abort();
    if (version.line == FileVersion::LineKind::WellFormed
        && !std::equal(version.numbers, version.numbers + 4, plain.numbers))
        std::abort();
    return 0;
}
