// The list of Lua archives: core archives, those that the command line names, and the extensions whose version file fits. Script
// thread, once, before the interpreter exists. How the archives are searched is the core library's.

#include "vex/apps/vex/vex.h"

#include "vex/apps/vex/vex_p.h"

#include "vex/core/dom.h"

#include <limits>

#include <wx/arrstr.h>
#include <wx/dir.h>
#include <wx/filefn.h>
#include <wx/log.h>
#include <wx/wfstream.h>

namespace {
void AppendPath(wxString& list, const wxString& path)
{
    if (!list.empty())
        list += ';';
    list += path;
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

// Whether a listing of the folder would show a file of exactly this name. Thousands of named archives in one large folder would take
// a listing each.
bool IsListed(const wxFileName& file)
{
    const wxString path = file.GetFullPath();
    return !file.GetFullName().StartsWith(".") && wxFileName::Exists(path, wxFILE_EXISTS_ANY | wxFILE_EXISTS_NO_FOLLOW)
           && !wxDirExists(path);
}

// Files of the pattern's folder that match its file part, by full path in ascending order. An empty file part matches all.
wxArrayString FindArchives(const wxFileName& pattern)
{
    const wxString folder = pattern.GetPath(wxPATH_GET_VOLUME);
    const wxString filePart = pattern.GetFullName();
    wxArrayString files;
    if (!wxIsReadable(folder))
        return files;
    if (!filePart.empty() && filePart.find_first_of("*?\\") == wxString::npos) {
        if (IsListed(pattern))
            files.push_back(pattern.GetFullPath());
        return files;
    }
    {
        const wxLogNull silence; // what cannot be listed has no matches, and that is reported or not by our own rule
        wxDir::GetAllFiles(folder, &files, filePart, wxDIR_FILES);
    }
    files.Sort();
    return files;
}

// --- version files

// Takes a version file apart as it comes in, so that neither the length of the file nor that of a line matters. Finds the first
// line that begins with "version:" and reads four numbers behind it as the scan format "%d.%d.%d-%d" would.
class VersionLine
{
public:
    enum class EResult { NoLine, Malformed, WellFormed };

    /// Takes one character. False when the answer is known.
    bool Feed(char32_t c);
    /// The answer; at the end of the file at the latest.
    EResult Finish();
    const int* Fields() const { return m_fields; }

private:
    bool FeedNumber(char32_t c);
    bool EndNumber(char32_t c);

    enum class EState { Prefix, OtherLine, Blanks, Digits, Done };
    EState m_state = EState::Prefix;
    std::size_t m_matched = 0; // characters of the prefix
    int m_field = 0;
    bool m_signed = false; // a sign was read
    bool m_negative = false;
    bool m_hasDigits = false;
    std::int64_t m_value = 0; // without its sign; stays put once it is too large for a field
    int m_fields[4] = {};
    EResult m_result = EResult::NoLine;
};

bool VersionLine::Feed(char32_t c)
{
    static const char prefix[] = "version:";
    const bool lineEnd = c == '\n' || c == '\r';
    switch (m_state) {
    case EState::Prefix:
        if (lineEnd) {
            m_matched = 0;
        } else if (c != static_cast<unsigned char>(prefix[m_matched])) {
            m_state = EState::OtherLine;
        } else if (prefix[++m_matched] == '\0') {
            m_state = EState::Blanks;
            m_result = EResult::Malformed; // until the fourth number has been read
        }
        return true;
    case EState::OtherLine:
        if (lineEnd) {
            m_state = EState::Prefix;
            m_matched = 0;
        }
        return true;
    case EState::Blanks:
        if (!m_signed && (c == ' ' || c == '\t' || c == '\v' || c == '\f'))
            return true;
        if (!m_signed && (c == '-' || c == '+')) {
            m_signed = true;
            m_negative = c == '-';
            return true;
        }
        m_state = EState::Digits;
        return FeedNumber(c);
    case EState::Digits:
        return FeedNumber(c);
    case EState::Done:
        break;
    }
    return false;
}

bool VersionLine::FeedNumber(char32_t c)
{
    constexpr std::int64_t enough = static_cast<std::int64_t>(1) << 40;
    if (c >= '0' && c <= '9') {
        m_hasDigits = true;
        if (m_value < enough)
            m_value = m_value * 10 + static_cast<std::int64_t>(c - '0');
        return true;
    }
    return EndNumber(c);
}

// The number ends before `c`, which must be what stands between the numbers.
bool VersionLine::EndNumber(char32_t c)
{
    static const char separators[] = "..-";
    const std::int64_t value = m_negative ? -m_value : m_value;
    m_state = EState::Done;
    // A number that an int cannot hold is no version; the framework's scan would wrap it around.
    if (!m_hasDigits || value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max())
        return false;
    m_fields[m_field] = static_cast<int>(value);
    if (m_field == 3) {
        m_result = EResult::WellFormed; // whatever follows
        return false;
    }
    if (c != static_cast<unsigned char>(separators[m_field]))
        return false;
    ++m_field;
    m_signed = m_negative = m_hasDigits = false;
    m_value = 0;
    m_state = EState::Blanks;
    return true;
}

VersionLine::EResult VersionLine::Finish()
{
    if (m_state == EState::Digits)
        EndNumber('\n');
    return m_result;
}

// Turns bytes into characters as far as a version line needs it: the width of a character and the order of its bytes come from
// the mark at the start. Without a mark every byte stands for itself, which is right for all that is ASCII.
class Characters
{
public:
    /// The first bytes of a file, as many as there are up to four. Answers how many of them are the mark.
    std::size_t SetMark(const unsigned char* bytes, std::size_t count);
    /// Takes one byte; true when it completes a character.
    bool Feed(unsigned char byte, char32_t& character);

private:
    unsigned m_width = 1; // bytes of a character
    bool m_bigEndian = false;
    unsigned m_count = 0; // bytes of the character that were read
    char32_t m_character = 0;
};

std::size_t Characters::SetMark(const unsigned char* bytes, std::size_t count)
{
    struct Mark
    {
        std::size_t size;
        unsigned char bytes[4];
        unsigned width;
        bool bigEndian;
    };
    // The mark of 16 bits little-endian begins that of 32 bits: the longer ones stand first.
    static const Mark marks[] = {
        {4, {0xFF, 0xFE, 0, 0}, 4, false}, {4, {0, 0, 0xFE, 0xFF}, 4, true}, {3, {0xEF, 0xBB, 0xBF, 0}, 1, false},
        {2, {0xFF, 0xFE, 0, 0}, 2, false}, {2, {0xFE, 0xFF, 0, 0}, 2, true},
    };
    for (const Mark& mark : marks) {
        if (count >= mark.size && std::equal(mark.bytes, mark.bytes + mark.size, bytes)) {
            m_width = mark.width;
            m_bigEndian = mark.bigEndian;
            return mark.size;
        }
    }
    return 0;
}

bool Characters::Feed(unsigned char byte, char32_t& character)
{
    m_character = m_bigEndian ? m_character << 8 | byte : m_character | static_cast<char32_t>(byte) << (8 * m_count);
    if (++m_count < m_width)
        return false;
    character = m_character;
    m_character = 0;
    m_count = 0;
    return true;
}

// Feeds the whole stream, in blocks. What lies behind the limit is not looked at: no version file is that long, and a file
// with holes can pretend any length.
VersionLine::EResult ReadVersionLine(wxInputStream& stream, VersionLine& line)
{
    constexpr std::size_t maxBytes = static_cast<std::size_t>(256) << 20;
    constexpr std::size_t blockBytes = 64 << 10;
    std::vector<unsigned char> block(blockBytes);
    Characters characters;
    for (std::size_t total = 0; total < maxBytes; total += blockBytes) {
        const std::size_t count = stream.Read(block.data(), block.size()).LastRead();
        std::size_t i = total == 0 ? characters.SetMark(block.data(), count) : 0;
        char32_t character = 0;
        for (; i < count; ++i)
            if (characters.Feed(block[i], character) && !line.Feed(character))
                return line.Finish();
        if (count < block.size())
            break;
    }
    return line.Finish();
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
    const wxString file = archive + ".version";
    if (!wxFileExists(file)) {
        wxLogWarning("Extension file '%s' does not have a corresponding '.version' file. It will not be enabled.",
                     archive);
        return false;
    }
    wxFFileInputStream stream(file, "rb");
    VersionLine line;
    const VersionLine::EResult result = stream.IsOk() ? ReadVersionLine(stream, line) : VersionLine::EResult::NoLine;
    if (result == VersionLine::EResult::NoLine) {
        wxLogWarning("File '%s' does not contain a 'version:' line. Extension '%s' will not be enabled.", file,
                     archive);
        return false;
    }
    // The wording differs from the one above on purpose.
    if (result == VersionLine::EResult::Malformed) {
        wxLogWarning(
            "File '%s' did not contain a properly formatted 'version:' line. Extension '%s' will not be enabled.", file,
            archive);
        return false;
    }
    // The build, the fourth number, must be there and is not compared, on purpose.
    const int* const version = line.Fields();
    if (version[0] == VEX_VERSION_MAJOR && version[1] == VEX_VERSION_MINOR && version[2] == VEX_VERSION_PATCH)
        return true;
    wxLogWarning("Ignoring extension '%s' since its version (%d.%d.%d) doesn't match ours (%d.%d.%d)", archive,
                 version[0], version[1], version[2], VEX_VERSION_MAJOR, VEX_VERSION_MINOR, VEX_VERSION_PATCH);
    return false;
}

namespace {
// The archives of one entry of the list. A wildcard anywhere in the entry asks for the version files.
void AppendEntry(wxString& list, const wxString& entry, const wxString& bin)
{
    wxFileName pattern;
    pattern.Assign(wxExpandEnvVars(entry));
    const bool checkVersions = HasWildcard(entry);
    if (!pattern.IsAbsolute())
        pattern.Normalize(NormalizeFlags, bin);
    const wxArrayString files = FindArchives(pattern);
    if (files.empty()) {
        // A named archive that is missing is worth a line, an empty pattern is not.
        if (!HasWildcard(pattern.GetFullName()))
            wxLogWarning("%s: no matches", entry);
        return;
    }
    for (const wxString& file : files) {
        const wxString path = NormalizedFile(file).GetFullPath();
        if (!wxIsReadable(path)) {
            wxLogWarning("Extension file '%s' isn't readable", path);
        } else if (!checkVersions || CAgentApp::ExtensionVersionIsOK(path)) {
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
        pattern.Normalize(NormalizeFlags, bin);
        if (pattern.DirExists())
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
    VEX_TRACE("ExpandZippath", "app.lua.zippath '%s' ", list);
}
