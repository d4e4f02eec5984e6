#pragma once
// What the file name of a package tells: prefix-plugin-platform-version-build.machine.
// For plugins.cpp, vexctl and the tests.

#include "vex/apps/vex/version.h"

#include <wx/filename.h>
#include <wx/string.h>

// The plugin's name: the second field of the base name between dashes, or all that follows the first dash when there is
// no second, or the whole base name when there is no dash.
static wxString getPluginName(const wxFileName& file)
{
    wxString name = file.GetName();
    const std::size_t prefixEnd = name.find('-');
    if (prefixEnd == wxString::npos)
        return name;
    name = name.substr(prefixEnd + 1);
    return name.substr(0, name.find('-'));
}

// Finds the version field of a base name by peeling fields from its right: the machine behind the last dot, the build
// behind the last dash, then the version. False when there are not enough fields to carry a version. The build is for
// who asks.
static bool FindVersionField(const wxString& baseName, wxString& version, wxString* buildField = nullptr)
{
    const std::size_t machine = baseName.rfind('.');
    if (machine == wxString::npos)
        return false;
    const wxString withBuild = baseName.substr(0, machine);
    const std::size_t build = withBuild.rfind('-');
    if (build == wxString::npos)
        return false;
    const wxString withVersion = withBuild.substr(0, build);
    const std::size_t field = withVersion.rfind('-');
    if (field == wxString::npos || field + 1 == withVersion.length())
        return false;
    version = withVersion.substr(field + 1);
    if (buildField)
        *buildField = withBuild.substr(build + 1);
    return true;
}

// Whether a package of this base name is for this version. A name that carries no version is taken, on purpose; the
// build is not compared.
inline bool PackageVersionFits(const wxString& baseName)
{
    wxString version;
    if (!FindVersionField(baseName, version))
        return true;
    return version == wxString::Format("%d.%d.%d", VEX_VERSION_MAJOR, VEX_VERSION_MINOR, VEX_VERSION_PATCH);
}
