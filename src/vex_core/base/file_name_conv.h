#pragma once
// How names of files become text of the framework.

#include <wx/strconv.h>

namespace VexCore {

/// UTF-8, in which each byte that is none has a private character of its own: so every file name has a text that leads
/// back to it. The framework's own conversion would read such a name as Latin-1, and then not find the file.
inline wxMBConvUTF8 FileNameConv()
{
    return wxMBConvUTF8(wxMBConvUTF8::MAP_INVALID_UTF8_TO_PUA);
}

} // namespace VexCore
