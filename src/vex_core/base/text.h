#pragma once
// Text of the framework as the bytes that system calls take, and back.

#include <string>
#include <string_view>

#include <wx/string.h>

namespace VexCore {

/// As a file name or program argument: in the locale's character set, which is UTF-8 nearly everywhere; in
/// UTF-8 where that set cannot express the text.
inline std::string ToSystemBytes(const wxString& text)
{
    const wxWX2MBbuf bytes = text.mb_str(*wxConvFileName);
    if (!bytes.data() || (*bytes.data() == '\0' && !text.empty()))
        return std::string(text.utf8_str());
    return std::string(bytes.data());
}

/// Bytes of others: as UTF-8, and as Latin-1 when they are not, so that nothing vanishes.
inline wxString FromForeignBytes(const char* data, std::size_t size)
{
    wxString text = wxString::FromUTF8(data, size);
    if (text.empty() && size > 0)
        text = wxString(data, wxConvISO8859_1, size);
    return text;
}

inline wxString FromForeignBytes(std::string_view bytes)
{
    return FromForeignBytes(bytes.data(), bytes.size());
}

/// A file name's bytes as text that leads back to them when the framework takes it for a file name.
inline wxString FromSystemBytes(const std::string& bytes)
{
    const wxString text(bytes.data(), *wxConvFileName, bytes.size());
    return ToSystemBytes(text) == bytes ? text : FromForeignBytes(bytes);
}

/// For a log line: the framework's formatting ends a text at its first NUL, so NULs are written as the log writes
/// control characters.
inline wxString TextWithoutNul(std::string_view bytes)
{
    wxString text = FromForeignBytes(bytes);
    text.Replace(wxUniChar(0), "\\x00");
    return text;
}

} // namespace VexCore
