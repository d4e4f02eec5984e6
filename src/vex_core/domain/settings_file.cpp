#include "vex_core/domain/settings_file.h"

#include "vex_core/base/ascii.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"

#include <cstdlib>
#include <ctime>

#include <fcntl.h>

namespace VexCore {

namespace {
// As much as the host takes of its configuration file, which is the same one; what lies behind is not looked at.
constexpr std::size_t maxBytes = static_cast<std::size_t>(4) << 20;

std::string InLowerCase(std::string_view text)
{
    std::string lower(text);
    for (char& c : lower)
        c = LowerAscii(c);
    return lower;
}

std::string_view Trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\f\v";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/// Takes the next line off `rest`.
std::string_view TakeLine(std::string_view& rest)
{
    const std::size_t end = rest.find_first_of("\n");
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return line;
}

bool IsNameCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

/// The variable reference at the start of `text` ("$X", "${X}", "$(X)"): its name and its whole length, 0 for none.
std::size_t VariableAt(std::string_view text, std::string_view& name)
{
    std::size_t begin = 1;
    char close = '\0';
    if (text.size() > 1 && (text[1] == '{' || text[1] == '(')) {
        close = text[1] == '{' ? '}' : ')';
        begin = 2;
    }
    std::size_t end = begin;
    while (end < text.size() && IsNameCharacter(text[end]))
        ++end;
    if (end == begin || (close != '\0' && (end == text.size() || text[end] != close)))
        return 0;
    name = text.substr(begin, end - begin);
    return close != '\0' ? end + 1 : end;
}

std::string WithVariables(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        if (text.substr(0, 2) == "\\$") {
            result += '$';
            text.remove_prefix(2);
            continue;
        }
        std::string_view name;
        const std::size_t length = text.front() == '$' ? VariableAt(text, name) : 0;
        const char* const value = length > 0 ? std::getenv(std::string(name).c_str()) : nullptr;
        const std::size_t taken = length > 0 ? length : 1;
        if (value)
            result += value;
        else
            result += text.substr(0, taken);
        text.remove_prefix(taken);
    }
    return result;
}

std::string ValueOf(std::string_view text)
{
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        text = text.substr(1, text.size() - 2);
    return WithVariables(text);
}

} // namespace

std::map<std::string, std::string> ParseSettings(std::string_view content)
{
    if (content.substr(0, 3) == "\xEF\xBB\xBF")
        content.remove_prefix(3);
    std::map<std::string, std::string> entries;
    bool inGroup = false;
    while (!content.empty()) {
        const std::string_view line = Trimmed(TakeLine(content));
        if (line.empty() || line.front() == ';' || line.front() == '#')
            continue;
        if (line.front() == '[') {
            inGroup = InLowerCase(line.substr(0, line.find(']'))) == "[settings";
            continue;
        }
        const std::size_t equals = line.find('=');
        if (!inGroup || equals == std::string_view::npos)
            continue;
        std::string name = InLowerCase(Trimmed(line.substr(0, equals)));
        if (!name.empty())
            entries.insert_or_assign(std::move(name), ValueOf(Trimmed(line.substr(equals + 1))));
    }
    return entries;
}

bool SettingsFile::Find(const std::string& path, std::string_view name, std::string& value)
{
    const std::lock_guard lock(m_lock);
    Refresh(path);
    const auto found = m_entries.find(InLowerCase(name));
    if (found == m_entries.end())
        return false;
    value = found->second;
    return true;
}

void SettingsFile::Refresh(const std::string& path)
{
    struct stat status = {};
    const os::Descriptor file(os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!file || os::FStat(file.Get(), status) != 0 || !S_ISREG(status.st_mode)) {
        m_entries.clear();
        m_readable = false;
        return;
    }
    const os::FileIdentity version = os::IdentityOf(status);
    if (!m_readable || !m_settled || path != m_path || !version.HasContentOf(m_version)) {
        // A change within the file system's clock tick of the last one leaves the time as it was, so a file that is read
        // right after it was written is read again next time.
        m_settled = std::time(nullptr) - status.st_mtim.tv_sec > 2;
        std::string content(std::min<std::size_t>(maxBytes, static_cast<std::size_t>(status.st_size)), '\0');
        const ssize_t count = os::PReadFull(file.Get(), content.data(), content.size(), 0);
        m_readable = count >= 0;
        content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        m_entries = ParseSettings(content);
        m_path = path;
        m_version = version;
    }
}

} // namespace VexCore
