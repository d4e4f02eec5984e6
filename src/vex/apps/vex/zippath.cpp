// The list of Lua archives: core archives, those that the command line names, and the extensions whose version file
// fits. Script thread, once, before the interpreter exists. Whether an extension fits is said in extension_rules.cpp;
// how the archives are searched is the core library's.

#include "vex/apps/vex/vex.h"

#include "vex/apps/vex/extension_rules.h"
#include "vex/apps/vex/file_name_bytes.h"
#include "vex/apps/vex/os/files.h"
#include "vex/apps/vex/os/folder_list.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/dom.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <wx/config.h>
#include <wx/filefn.h>
#include <wx/log.h>
#include <wx/strconv.h>

namespace {
void AppendPath(wxString& list, const wxString& path)
{
    if (!list.empty())
        list += ';';
    list += path;
}

bool FitsIntoList(const wxString& path)
{
    const wxString why = WhyPathIsRefused(path);
    if (!why.empty())
        wxLogWarning("%s", why);
    return why.empty();
}

// The list as its reader takes it: what stands for a byte of a file name that is no text is that byte again.
std::string BytesOf(const wxString& list)
{
    const wxMBConvUTF8 conversion(wxMBConvUTF8::MAP_INVALID_UTF8_TO_PUA);
    return std::string(list.mb_str(conversion));
}

bool HasWildcard(const wxString& text)
{
    return text.find_first_of("*?") != wxString::npos;
}

void AppendCoreArchives(wxString& list, const wxString& bin, const wxString& application)
{
    const auto append = [&](const wxString& name) {
        wxFileName archive;
        archive.AssignDir(bin);
        archive.AppendDir("vex_core");
        archive.SetName(name);
        archive.SetExt("vxe");
        if (archive.FileExists())
            AppendPath(list, archive.GetFullPath());
    };
    append(application);
    if (application != "vex") // whose own archive is the common one
        append("vex");
}

// Whether a listing of the folder would show a file of exactly this name.
// Thousands of named archives in one large folder would take a listing each.
bool IsListed(const wxFileName& file)
{
    const wxString path = file.GetFullPath();
    return !file.GetFullName().StartsWith(".") && wxFileName::Exists(path, wxFILE_EXISTS_ANY | wxFILE_EXISTS_NO_FOLLOW)
           && !wxDirExists(path);
}

// With what the bytes of a name end that matches the pattern: what is behind its last wildcard or quoting mark, as far
// as no character set has other bytes for it.
std::string EndOfMatches(const wxString& pattern)
{
    const std::size_t special = pattern.find_last_of("*?\\");
    const wxString end = special == wxString::npos ? pattern : pattern.substr(special + 1);
    return end.IsAscii() ? end.ToStdString() : std::string();
}

// The names in the folder that match the pattern, which is empty for all, in ascending order. No folders, and no hidden
// files.
std::vector<wxString> FindNames(const wxString& folder, const wxString& pattern)
{
    std::vector<wxString> names;
    const std::string end = EndOfMatches(pattern);
    VexOs::ListFolder(FileNameBytes(folder).c_str(), [&](const char* bytes, bool isRegular) {
        // Beside an archive lies its version file: half of the names are not worth a text.
        const std::string_view all(bytes);
        if (all[0] == '.' || all.size() < end.size() || all.substr(all.size() - end.size()) != end)
            return;
        const wxString name(bytes, *wxConvFileName); // empty where it cannot be expressed
        if (!name.empty() && (pattern.empty() || wxMatchWild(pattern, name))
            && (isRegular || !wxDirExists(folder + '/' + name)))
            names.push_back(name);
    });
    std::sort(names.begin(), names.end());
    return names;
}

// The names that match the pattern's file part, in its folder. An empty file part matches all.
std::vector<wxString> FindArchives(const wxFileName& pattern)
{
    const wxString folder = pattern.GetPath(wxPATH_GET_VOLUME);
    const wxString filePart = pattern.GetFullName();
    if (!wxIsReadable(folder))
        return {};
    if (filePart.empty() || filePart.find_first_of("*?\\") != wxString::npos)
        return FindNames(folder, filePart);
    if (IsListed(pattern))
        return {filePart};
    return {};
}

} // namespace

void Tokenize(std::vector<wxString>& list, const wxString& text, const wxString& delimiters)
{
    wxString piece;
    for (const wxUniChar c : text) {
        if (delimiters.find(c) == wxString::npos) {
            piece += c;
        } else if (!piece.empty()) {
            list.push_back(piece);
            piece.clear();
        }
    }
    if (!piece.empty())
        list.push_back(piece);
}

bool CAgentApp::ExtensionVersionIsOK(const wxString& archive)
{
    const wxString why = WhyVersionIsRefused(archive);
    if (!why.empty())
        wxLogWarning("%s", why);
    return why.empty();
}

namespace {
// The archives of one entry of the list. A wildcard anywhere in the entry asks for the version files.
void AppendEntry(wxString& list, const wxString& entry, const wxString& bin)
{
    wxFileName pattern;
    pattern.Assign(wxExpandEnvVars(entry));
    const bool checkVersions = HasWildcard(entry);
    if (!pattern.IsAbsolute())
        pattern.Normalize(normalizeFlags, bin);
    const std::vector<wxString> names = FindArchives(pattern);
    if (names.empty()) {
        // A named archive that is missing is worth a line, an empty pattern is not.
        if (!HasWildcard(pattern.GetFullName()))
            wxLogWarning("%s: no matches", entry);
        return;
    }
    pattern.Normalize(normalizeFlags);
    const wxString folder = pattern.GetPathWithSep();
    for (const wxString& name : names) {
        const wxString path = folder + name;
        if (!VexOs::IsReadable(FileNameBytes(path).c_str())) {
            wxLogWarning("Extension file '%s' isn't readable", path);
        } else if (FitsIntoList(path) && (!checkVersions || CAgentApp::ExtensionVersionIsOK(path))) {
            VEX_TRACE("ExpandZippath", "Adding extension file '%s' to the search path.", path);
            AppendPath(list, path);
        }
    }
}

} // namespace

void CAgentApp::ExpandZippath()
{
    const wxString bin = m_dom->GetWxString("app.path.bin");
    wxString list;
    AppendCoreArchives(list, bin, GetAppName());

    // The extension folder is the last entry.
    if (!m_extDir.empty()) {
        wxFileName pattern;
        pattern.AssignDir(m_extDir);
        pattern.SetFullName("*.vxe");
        pattern.Normalize(normalizeFlags, bin);
        if (pattern.DirExists() && FitsIntoList(pattern.GetPath()))
            AppendPath(m_zipPath, pattern.GetFullPath());
    }
    VEX_TRACE("ExpandZippath", "zipFilespec: %s", m_zipPath);

    std::vector<wxString> entries;
    Tokenize(entries, m_zipPath, ";");
    m_zipPath.clear();
    for (const wxString& entry : entries)
        AppendEntry(list, entry, bin);

    if (list.empty()) {
        VEX_TRACE("ExpandZippath", "app.lua.zippath empty ");
        return;
    }
    m_dom->SetWx("app.lua.zippath", list);
    if (!list.IsAscii())
        if (const std::string bytes = BytesOf(list); bytes != list.utf8_string())
            m_dom->Set("app.lua.zippath", bytes);
    VEX_TRACE("ExpandZippath", "app.lua.zippath '%s' ", list);
}
