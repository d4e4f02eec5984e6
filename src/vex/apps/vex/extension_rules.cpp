#include "vex/apps/vex/extension_rules.h"

#include "vex/apps/vex/file_name_bytes.h"
#include "vex/apps/vex/os/regular_file.h"
#include "vex/apps/vex/version.h"
#include "vex/apps/vex/version_file.h"

#include <wx/wfstream.h>

namespace {
FileVersion VersionIn(const wxString& archive, VexOs::RegularFile& file)
{
    const FileVersion version =
        ReadVersionFile([&file](void* data, std::size_t size) { return file.Read(data, size); });
    if (file.IsGood())
        return version;
    // The framework, which is slower at it, tries the same again and logs why it fails.
    wxFFileInputStream stream(archive + ".version", "rb");
    return stream.IsOk() ? ReadVersionFile(stream) : FileVersion();
}

// The build, the fourth number, must be there and is not compared, on purpose.
bool IsOurs(const FileVersion& version)
{
    const int* const numbers = version.numbers;
    return version.line == FileVersion::LineKind::WellFormed && numbers[0] == VEX_VERSION_MAJOR
           && numbers[1] == VEX_VERSION_MINOR && numbers[2] == VEX_VERSION_PATCH;
}

} // namespace

wxString WhyVersionIsRefused(const wxString& archive)
{
    const std::string path = FileNameBytes(archive);
    VexOs::RegularFile bytes(path.empty() ? "" : (path + ".version").c_str());
    if (!bytes.Exists())
        return wxString::Format(
            "Extension file '%s' does not have a corresponding '.version' file. It will not be enabled.", archive);
    const FileVersion version = VersionIn(archive, bytes);
    if (IsOurs(version))
        return wxString();
    const wxString file = archive + ".version";
    if (version.line == FileVersion::LineKind::Missing)
        return wxString::Format("File '%s' does not contain a 'version:' line. Extension '%s' will not be enabled.",
                                file, archive);
    // The wording differs from the one above on purpose.
    if (version.line == FileVersion::LineKind::Malformed)
        return wxString::Format(
            "File '%s' did not contain a properly formatted 'version:' line. Extension '%s' will not be enabled.", file,
            archive);
    const int* const numbers = version.numbers;
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
