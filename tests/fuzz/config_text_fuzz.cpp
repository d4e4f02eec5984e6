// The settings in a configuration file: any bytes give entries that a setting can be found by, the same text gives the
// same ones in another encoding, each entry has its line, and a report on all of them can be made.

#include "vex_core/domain/config_text.h"
#include "vex_core/domain/settings_report.h"

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include <wx/init.h>

namespace {
void Check(bool good)
{
    if (!good)
        std::abort();
}

// UTF-16, the low byte first, behind its mark; and behind an empty line, for with a NUL the mark would be that of
// UTF-32.
std::string Encoded(const wxString& text)
{
    std::string bytes = "\xFF\xFE";
    const auto put = [&bytes](std::uint32_t unit) {
        bytes += static_cast<char>(unit & 0xFF);
        bytes += static_cast<char>(unit >> 8);
    };
    for (const wchar_t c : L'\n' + text.ToStdWstring()) {
        const auto point = static_cast<std::uint32_t>(c);
        if (point < 0x10000) {
            put(point);
        } else {
            put(0xD800 + ((point - 0x10000) >> 10));
            put(0xDC00 + ((point - 0x10000) & 0x3FF));
        }
    }
    return bytes;
}

// Where an entry stands is found by a reading of our own, which must find what the framework's does: no less, and no
// more than names that lead out of the group, or to nothing.
void CheckLines(const std::string& bytes, const VexCore::SettingsEntries& entries)
{
    std::set<std::string, VexCore::LessInAnyCase> names;
    const VexCore::LessInAnyCase less;
    for (const VexCore::ConfigLine& line : VexCore::ConfigLines(bytes)) {
        const bool inGroup = !less(line.group, "settings") && !less("settings", line.group);
        if (line.kind == VexCore::ConfigLine::Kind::Entry && inGroup && !line.name.empty()
            && line.name.find('/') == std::string::npos)
            names.insert(line.name);
    }
    for (const auto& [name, value] : entries)
        Check(names.erase(name) == 1);
    Check(names.empty());
    for (const auto& [name, value] : VexCore::ParseConfig(bytes).lockedSettings)
        Check(entries.at(name) == value);
}

void CheckReport(const std::string& bytes)
{
    for (const auto role : {VexCore::SettingsSource::Role::DropIn, VexCore::SettingsSource::Role::Global})
        for (const VexCore::SettingFinding& finding :
             VexCore::ReportOn({{role, "f", bytes, "", VexCore::ParseConfig(bytes)}}, {}).findings)
            Check(!finding.text.empty() && (finding.line > 0 || finding.fault == VexCore::SettingFault::NotUsed));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const wxInitializer s_framework;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const VexCore::SettingsEntries entries = VexCore::ParseConfig(bytes).settings;
    for (const auto& [name, value] : entries) {
        Check(!name.empty());
        Check(name.find_first_of("\r\n") == std::string::npos);
        Check(name.find('\0') == std::string::npos && value.find('\0') == std::string::npos);
        Check(wxString::FromUTF8(name).utf8_str() == name && wxString::FromUTF8(value).utf8_str() == value);
    }
    const wxString text = VexCore::DecodeConfig(bytes);
    Check(VexCore::ParseConfig(Encoded(text)).settings == entries);
    CheckLines(bytes, entries);
    CheckReport(bytes);
    return 0;
}
