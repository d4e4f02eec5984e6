#include "vex_core/domain/config_text.h"

#include "vex/core/configfile.h"
#include "vex_core/domain/dom_values.h"

#include <algorithm>

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

bool IsTooLarge(std::string_view bytes)
{
    CConfigFileLines lines;
    if (bytes.size() <= maxConfigFileBytes)
        lines.Add(bytes.data(), bytes.size());
    return bytes.size() > maxConfigFileBytes || lines.Count() > maxConfigFileLines;
}

} // namespace

wxString DecodeConfig(std::string_view bytes)
{
    return wxString(bytes.data(), wxConvAuto(), bytes.size());
}

SettingsEntries ParseSettings(std::string_view bytes)
{
    SettingsEntries entries;
    if (IsTooLarge(bytes))
        return entries;
    // The launcher's reading of the file has told about its faults.
    const wxLogNull silence;
    const std::wstring text = WithoutNul(DecodeConfig(bytes).ToStdWstring());
    wxMemoryInputStream nothing("", 0);
    wxFileConfig config(nothing, DecodedText(text));
    config.SetPath("/settings");
    wxString name;
    long cookie = 0;
    for (bool more = config.GetFirstEntry(name, cookie); more; more = config.GetNextEntry(name, cookie)) {
        wxString value;
        if (!name.empty() && config.Read(name, &value)) // a name with a "/" leads out of the group
            entries.emplace(BytesFromText(name), BytesFromText(value));
    }
    return entries;
}

} // namespace VexCore
