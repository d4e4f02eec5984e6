// File names of packages: any name gives a plugin name without a dash, and the version check agrees with
// a reading from the left.

#include "vex/apps/vex/vex.h"

#include "support/our_version.h"
#include "vex/apps/vex/package_name.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {
// True unless the base name reads "anything-VERSION-build.machine" with a version that is not ours.
bool ReadFromTheLeft(std::wstring name)
{
    const std::size_t dot = name.find_last_of(L'.');
    if (dot == std::wstring::npos)
        return true;
    name.resize(dot);
    std::size_t dashes[2] = {std::wstring::npos, std::wstring::npos}; // the last and the one before
    for (std::size_t i = 0; i < name.size(); ++i)
        if (name[i] == L'-') {
            dashes[1] = dashes[0];
            dashes[0] = i;
        }
    if (dashes[1] == std::wstring::npos || dashes[1] + 1 == dashes[0])
        return true;
    static const std::string s_ours = Test::Ours("{version}");
    return name.substr(dashes[1] + 1, dashes[0] - dashes[1] - 1) == std::wstring(s_ours.begin(), s_ours.end());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const char* const bytes = reinterpret_cast<const char*>(data);
    wxString text = wxString::FromUTF8(bytes, size);
    if (text.empty())
        text = wxString(bytes, wxConvISO8859_1, size);
    const wxFileName file(text);
    const wxString plugin = getPluginName(file);
    if (plugin.find('-') != wxString::npos || file.GetName().find(plugin) == wxString::npos)
        std::abort();
    wxString version;
    if (FindVersionField(file.GetName(), version) && file.GetName().find("-" + version + "-") == wxString::npos)
        std::abort();
    if (CAgentApp::CheckVXPVersion(file) != ReadFromTheLeft(file.GetName().ToStdWstring()))
        std::abort();
    return 0;
}
