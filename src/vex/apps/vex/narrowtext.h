#pragma once
// Text on standard error, as bytes. The framework's own calls make the stream wide, after which narrow output, Lua's
// included, prints nothing.

#include <cstdio>
#include <string_view>

#include <wx/string.h>

inline void WriteErrorBytes(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stderr);
}

/// The text in UTF-8.
inline void WriteErrorText(const wxString& text)
{
    const wxScopedCharBuffer bytes = text.utf8_str();
    WriteErrorBytes(std::string_view(bytes.data(), bytes.length()));
}

/// The text in UTF-8 and a line end.
inline void WriteErrorLine(const wxString& text)
{
    WriteErrorText(text);
    WriteErrorBytes("\n");
}
