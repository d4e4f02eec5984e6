#pragma once
// Names of files as the system has them. Any thread.

#include <string>

#include <wx/strconv.h>
#include <wx/string.h>

/// As the framework's functions for files convert a path; empty where it cannot be expressed.
inline std::string FileNameBytes(const wxString& path)
{
    // The framework's conversion takes ten times as long. Character sets that are without some of ASCII, as few are and
    // none that systems of today have for file names, are not cared for.
    const wxCharBuffer bytes = path.IsAscii() ? path.ToAscii() : wxCharBuffer(path.mb_str(*wxConvFileName));
    return bytes.data() ? std::string(bytes.data()) : std::string();
}
