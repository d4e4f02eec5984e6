// The settings in a configuration file: any bytes give entries that a setting can be found by, and the same text gives
// the same ones in another encoding.

#include "vex_core/domain/config_text.h"

#include <cstdint>
#include <cstdlib>
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const wxInitializer s_framework;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const auto entries = VexCore::ParseSettings(bytes);
    for (const auto& [name, value] : entries) {
        Check(!name.empty());
        Check(name.find_first_of("\r\n") == std::string::npos);
        Check(name.find('\0') == std::string::npos && value.find('\0') == std::string::npos);
        Check(wxString::FromUTF8(name).utf8_str() == name && wxString::FromUTF8(value).utf8_str() == value);
    }
    const wxString text = VexCore::DecodeConfig(bytes);
    Check(VexCore::ParseSettings(Encoded(text)) == entries);
    return 0;
}
