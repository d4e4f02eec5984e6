// Any bytes as a package that is unpacked into a folder: what comes out is inside it, regular, and whole; when an
// archive is refused by its headers nothing was asked; nothing temporary stays.
#include "vex/core/unzip.h"

#include "fuzz/zip_recipe.h"
#include "support/temp_folder.h"

#include <cstdint>
#include <cstdlib>

#include <unistd.h>
#include <wx/filename.h>
#include <wx/init.h>
#include <wx/log.h>
#include <wx/zipstrm.h>

namespace fs = std::filesystem;

namespace {
void Require(bool claim)
{
    if (!claim)
        std::abort();
}

struct World
{
    World() : folder(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") { wxLog::EnableLogging(false); }
    wxInitializer framework;
    Test::TempFolder folder;
};

bool Answer(void* context, const wxZipEntry* entry, const wxString* destination)
{
    const std::string& root = *static_cast<const std::string*>(context);
    Require(entry && std::string(destination->utf8_str()).rfind(root + "/", 0) == 0);
    return entry->GetSize() % 7 != 6;
}

void CheckTree(const std::string& root)
{
    for (const auto& item : fs::recursive_directory_iterator(root)) {
        Require(!item.is_symlink() && (item.is_directory() || item.is_regular_file()));
        Require(item.path().filename().string().rfind(".vex-unzip-", 0) != 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static World s_world;
    static std::string s_root = s_world.folder / "root";
    static const std::string archive = s_world.folder / "x.vxp";
    fs::remove_all(s_root);
    fs::create_directory(s_root);
    Test::WriteFile(archive, Test::ArchiveFromRecipe(data, size));
    const wxFileName file(wxString::FromUTF8(archive));
    const wxFileName folder = wxFileName::DirName(wxString::FromUTF8(s_root));
    const bool first = VexCore::Unzip(file, folder, Answer, &s_root);
    CheckTree(s_root);
    Require(VexCore::Unzip(file, folder, Answer, &s_root) == first); // over its own files it fares alike
    CheckTree(s_root);
    std::size_t beside = 0;
    for (const auto& item : fs::directory_iterator(s_world.folder.Path()))
        beside += item.path() != s_root && item.path() != archive;
    Require(beside == 0);
    return 0;
}
