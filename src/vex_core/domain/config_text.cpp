#include "vex_core/domain/config_text.h"

#include "vex/core/configfile.h"
#include "vex_core/domain/dom_values.h"

#include <algorithm>
#include <cwctype>
#include <iterator>

#include <wx/arrstr.h>
#include <wx/convauto.h>
#include <wx/fileconf.h>
#include <wx/log.h>
#include <wx/mstream.h>

namespace VexCore {

namespace {
// Hands text over to the framework's configuration, which takes only a stream of bytes and a conversion for them: the
// stream is empty, and this "converts" it into the text.
class DecodedText : public wxMBConv
{
public:
    explicit DecodedText(std::wstring text) : m_text(std::move(text)) {}

    std::size_t ToWChar(wchar_t* target, std::size_t room, const char*, std::size_t) const override
    {
        const std::size_t size = m_text.size() + 1; // with the NUL at its end
        if (!target)
            return size;
        if (room < size)
            return wxCONV_FAILED;
        std::copy_n(m_text.c_str(), size, target);
        return size;
    }
    std::size_t FromWChar(char*, std::size_t, const wchar_t*, std::size_t) const override { return wxCONV_FAILED; }
    wxMBConv* Clone() const override { return new DecodedText(*this); }

private:
    std::wstring m_text;
};

// A line ends for the framework where a NUL stands in it.
std::wstring WithoutNul(const std::wstring& text)
{
    std::wstring result;
    bool cut = false;
    for (const wchar_t c : text) {
        cut = c == L'\0' || (cut && c != L'\n' && c != L'\r');
        if (!cut)
            result += c;
    }
    return result;
}

// What the framework makes of a text.
class ParsedConfig
{
public:
    explicit ParsedConfig(const std::wstring& text) : m_nothing("", 0), m_config(m_nothing, DecodedText(text)) {}

    SettingsEntries Entries(const char* group)
    {
        SettingsEntries entries;
        m_config.SetPath(group);
        wxString name;
        long cookie = 0;
        for (bool more = m_config.GetFirstEntry(name, cookie); more; more = m_config.GetNextEntry(name, cookie)) {
            wxString value;
            if (!name.empty() && m_config.Read(name, &value)) // a name with a "/" leads out of the group
                entries.emplace(BytesFromText(name), BytesFromText(value));
        }
        return entries;
    }

    // The framework does not tell which entries are locked, but it refuses to change them. Changes the others.
    SettingsEntries LockedAmong(SettingsEntries entries, const char* group)
    {
        m_config.SetPath(group);
        for (auto entry = entries.begin(); entry != entries.end();) {
            const wxString name = wxString::FromUTF8(entry->first);
            m_config.Write(name, wxString::FromUTF8(entry->second) + 'x');
            wxString value;
            const bool changed = !m_config.Read(name, &value) || BytesFromText(value) != entry->second;
            entry = changed ? entries.erase(entry) : std::next(entry);
        }
        return entries;
    }

private:
    wxMemoryInputStream m_nothing;
    wxFileConfig m_config;
};

// --- lines

std::size_t PassBlanks(const std::wstring& line, std::size_t i)
{
    while (i < line.size() && std::iswspace(static_cast<std::wint_t>(line[i])))
        ++i;
    return i;
}

// Where the first such character stands before which there is no backslash.
std::size_t FindPlain(const std::wstring& line, std::size_t i, wchar_t wanted)
{
    while (i < line.size() && line[i] != wanted)
        i += line[i] == L'\\' ? 2 : 1;
    return i < line.size() ? i : std::wstring::npos;
}

std::string NameFrom(const std::wstring& raw)
{
    std::wstring name;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == L'\\' && ++i == raw.size())
            break;
        name += raw[i];
    }
    return BytesFromText(name);
}

std::string GroupFrom(const std::wstring& raw)
{
    wxArrayString steps;
    wxSplitPath(steps, '/' + wxString::FromUTF8(NameFrom(raw)));
    return BytesFromText(wxJoin(steps, '/', '\0'));
}

// What the line is; false when it says nothing.
bool ReadLine(const std::wstring& line, ConfigLine& result)
{
    const std::size_t begin = PassBlanks(line, 0);
    if (begin == line.size() || line[begin] == L';' || line[begin] == L'#')
        return false;
    const bool isGroup = line[begin] == L'[';
    const std::size_t end = FindPlain(line, begin, isGroup ? L']' : L'=');
    result.kind = ConfigLine::Kind::Neither;
    if (end == std::wstring::npos)
        return true;
    if (isGroup) {
        result.kind = ConfigLine::Kind::Group;
        result.group = GroupFrom(line.substr(begin + 1, end - begin - 1));
        return true;
    }
    result.kind = ConfigLine::Kind::Entry;
    // What is a blank at the end is not quite what is one at the begin.
    result.name = NameFrom(wxString(line.substr(begin, end - begin)).Trim().ToStdWstring());
    result.locked = StartsWith(result.name, "!");
    if (result.locked)
        result.name.erase(0, 1);
    return true;
}

} // namespace

bool IsConfigTooLarge(std::string_view bytes)
{
    CConfigFileLines lines;
    if (bytes.size() <= maxConfigFileBytes)
        lines.Add(bytes.data(), bytes.size());
    return bytes.size() > maxConfigFileBytes || lines.Count() > maxConfigFileLines;
}

wxString DecodeConfig(std::string_view bytes)
{
    return wxString(bytes.data(), wxConvAuto(), bytes.size());
}

ConfigContents ParseConfig(std::string_view bytes)
{
    ConfigContents contents;
    if (IsConfigTooLarge(bytes))
        return contents;
    // The launcher's reading of the file has told about its faults.
    const wxLogNull silence;
    const std::wstring text = WithoutNul(DecodeConfig(bytes).ToStdWstring());
    ParsedConfig config(text);
    contents.settings = config.Entries("/settings");
    contents.top = config.Entries("/");
    if (text.find(L'!') != std::wstring::npos) { // to find those takes as long as all the rest
        contents.lockedSettings = config.LockedAmong(contents.settings, "/settings");
        contents.lockedTop = config.LockedAmong(contents.top, "/");
    }
    return contents;
}

std::vector<ConfigLine> ConfigLines(std::string_view bytes)
{
    std::vector<ConfigLine> lines;
    if (IsConfigTooLarge(bytes))
        return lines;
    const wxLogNull silence;
    const std::wstring text = WithoutNul(DecodeConfig(bytes).ToStdWstring());
    ConfigLine line;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find_first_of(L"\r\n", begin), text.size());
        ++line.number;
        if (ReadLine(text.substr(begin, end - begin), line))
            lines.push_back(line);
        line.name.clear();
        line.locked = false;
        begin = end + (text.compare(end, 2, L"\r\n") == 0 ? 2 : 1);
    }
    return lines;
}

} // namespace VexCore
