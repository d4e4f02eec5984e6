// The version file of an extension: any bytes give an answer and, but for a yes, one warning. Without a byte-order mark the answer
// is that of a plain reading, line by line.

#include "vex/apps/vex/vex.h"
#include "vex/core/log.h"

#include "support/fake_core.h"
#include "support/temp_folder.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include <wx/init.h>

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

bool Matches(const std::string& rest)
{
    const char* at = rest.c_str();
    int numbers[4] = {};
    for (int i = 0; i < 4; ++i)
        if ((i > 0 && *at++ != "..-"[i - 1]) || !ReadNumber(at, numbers[i]))
            return false;
    return numbers[0] == 10 && numbers[1] == 0 && numbers[2] == 0;
}

bool PlainReading(const std::string& text)
{
    std::size_t begin = 0;
    while (begin <= text.size()) {
        const std::size_t end = std::min(text.find_first_of("\r\n", begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        if (line.compare(0, 8, "version:") == 0)
            return Matches(line.substr(8));
        begin = end + 1;
    }
    return false;
}

bool HasMark(const std::string& text)
{
    return text.compare(0, 2, "\xFF\xFE") == 0 || text.compare(0, 2, "\xFE\xFF") == 0
           || text.compare(0, 3, "\xEF\xBB\xBF") == 0 || text.compare(0, 4, std::string("\0\0\xFE\xFF", 4)) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const wxInitializer s_framework;
    static wxLog* const s_previous = wxLog::SetActiveTarget(new VexCore::CLog2Disk);
    static const Test::TempFolder s_folder;
    (void)s_previous;
    const std::string text(reinterpret_cast<const char*>(data), size);
    Test::WriteFile(s_folder / "x.vxe.version", text);
    FakeCore::ClearJournal();
    const bool accepted = CAgentApp::ExtensionVersionIsOK(wxString::FromUTF8(s_folder / "x.vxe"));
    if (FakeCore::Journal().size() != (accepted ? 0u : 1u))
        std::abort();
    if (!HasMark(text) && accepted != PlainReading(text))
        std::abort();
    return 0;
}
