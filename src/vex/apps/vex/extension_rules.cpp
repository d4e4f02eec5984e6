#include "vex/apps/vex/extension_rules.h"

#include "vex/apps/vex/version.h"
#include "vex/apps/vex/version_file.h"

#include <wx/filefn.h>
#include <wx/wfstream.h>

wxString WhyVersionIsRefused(const wxString& archive)
{
    const wxString file = archive + ".version";
    if (!wxFileExists(file))
        return wxString::Format(
            "Extension file '%s' does not have a corresponding '.version' file. It will not be enabled.", archive);
    wxFFileInputStream stream(file, "rb");
    const FileVersion version = stream.IsOk() ? ReadVersionFile(stream) : FileVersion();
    if (version.line == FileVersion::LineKind::Missing)
        return wxString::Format("File '%s' does not contain a 'version:' line. Extension '%s' will not be enabled.",
                                file, archive);
    // The wording differs from the one above on purpose.
    if (version.line == FileVersion::LineKind::Malformed)
        return wxString::Format(
            "File '%s' did not contain a properly formatted 'version:' line. Extension '%s' will not be enabled.", file,
            archive);
    // The build, the fourth number, must be there and is not compared, on purpose.
    const int* const numbers = version.numbers;
    if (numbers[0] == VEX_VERSION_MAJOR && numbers[1] == VEX_VERSION_MINOR && numbers[2] == VEX_VERSION_PATCH)
        return wxString();
    return wxString::Format("Ignoring extension '%s' since its version (%d.%d.%d) doesn't match ours (%d.%d.%d)",
                            archive, numbers[0], numbers[1], numbers[2], VEX_VERSION_MAJOR, VEX_VERSION_MINOR,
                            VEX_VERSION_PATCH);
}

wxString WhyPathIsRefused(const wxString& path)
{
    if (path.find(';') == wxString::npos)
        return wxString();
    return wxString::Format(
        "Extensions in '%s' are not enabled: a name with \";\" cannot be told to Lua. Give it another name.", path);
}
