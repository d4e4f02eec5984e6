// Three lives: a path keeps its slot for as long as an interpreter searches it, an archive lives until the file is
// another one, and its descriptor until too many are open. All on the threads that require modules; the first that
// comes opens, the others wait.

#include "vex_core/modules/archive_index.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"
#include "vex_core/modules/name_hash.h"
#include "vex_core/modules/searched_archives.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <new>

#include <fcntl.h>

#include <wx/log.h>
#include <wx/string.h>

namespace VexCore {
namespace {
// The archives that hold a descriptor now, the longest open first. Beyond the limit that one is closed; five eighths of
// the process's descriptors leave room for everything else, and for 600 archives under the usual limit of 1024.
class OpenArchives
{
public:
    // Never destroyed, as the archives in it: interpreters may be closed by static destructors.
    static OpenArchives& Process()
    {
        static OpenArchives* const s_instance = new OpenArchives;
        return *s_instance;
    }

    void Add(const std::shared_ptr<ModuleArchive>& archive)
    {
        const std::size_t limit = std::max<std::size_t>(os::OpenFileLimit() * 5 / 8, 16);
        std::vector<std::weak_ptr<ModuleArchive>> closing;
        {
            const std::lock_guard lock(m_lock);
            m_open.push_back(archive);
            if (m_open.size() > limit) {
                m_open.erase(
                    std::remove_if(m_open.begin(), m_open.end(), [](const auto& item) { return item.expired(); }),
                    m_open.end());
                for (; m_open.size() > limit; m_open.pop_front())
                    closing.push_back(m_open.front());
            }
        }
        for (const auto& item : closing)
            if (const auto old = item.lock())
                old->Close();
    }

private:
    std::mutex m_lock;
    std::deque<std::weak_ptr<ModuleArchive>> m_open; // guarded by m_lock
};

// Whether a file that could not be opened failed for want of descriptors or memory, which says nothing about the file.
bool OutOfResources(const std::string& path)
{
    if (os::Descriptor(os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY)))
        return false;
    const int error = os::LastError();
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

bool IsLuaFile(const ZipEntry& entry)
{
    return !entry.isFolder && EndsWith(entry.name, ".lua");
}

} // namespace

std::shared_ptr<ModuleArchive> ModuleArchive::Open(const std::string& path, const ZipLimits& limits, std::string& error)
{
    auto zip = ZipArchive::Open(path, limits, error);
    if (!zip)
        return nullptr;
    std::shared_ptr<ModuleArchive> archive(new ModuleArchive);
    archive->m_path = path;
    archive->m_limits = limits;
    archive->m_identity = zip->Identity();
    const std::vector<ZipEntry>& entries = zip->Entries();
    archive->m_luaFiles.reserve(static_cast<std::size_t>(std::count_if(entries.begin(), entries.end(), IsLuaFile)));
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (IsLuaFile(entries[i]))
            archive->m_luaFiles.push_back({HashName(entries[i].name), static_cast<std::uint32_t>(i)});
    archive->m_zip = std::move(zip);
    OpenArchives::Process().Add(archive);
    return archive;
}

bool ModuleArchive::MayHave(std::uint64_t nameHash) const
{
    return std::any_of(m_luaFiles.begin(), m_luaFiles.end(),
                       [nameHash](const LuaFile& file) { return file.nameHash == nameHash; });
}

std::shared_ptr<const ZipArchive> ModuleArchive::Zip(std::string& error)
{
    std::shared_ptr<const ZipArchive> zip;
    {
        const std::lock_guard lock(m_lock);
        if (m_zip)
            return m_zip;
        zip = ZipArchive::Open(m_path, m_limits, error);
        if (!zip)
            return nullptr;
        if (zip->Identity() != m_identity) {
            error = "the file was replaced meanwhile";
            return nullptr;
        }
        m_zip = zip;
    }
    OpenArchives::Process().Add(shared_from_this());
    return zip;
}

std::string ModuleArchive::DirectorySha256()
{
    {
        const std::lock_guard lock(m_lock);
        if (!m_directorySha256.empty())
            return m_directorySha256;
    }
    std::string error;
    const auto zip = Zip(error);
    if (!zip)
        return std::string();
    std::string sha256 = zip->DirectorySha256();
    const std::lock_guard lock(m_lock);
    m_directorySha256 = sha256;
    return sha256;
}

void ModuleArchive::Close()
{
    const std::lock_guard lock(m_lock);
    m_zip.reset();
}

// Nobody can be told that there is no memory for a line.
LaterWarnings::~LaterWarnings()
{
    try {
        for (const wxString& warning : m_warnings)
            wxLogWarning(wxS("%s"), warning);
    } catch (const std::bad_alloc&) {
    }
}

ArchiveSlot::ArchiveSlot(std::string path) : m_path(std::move(path)) {}

std::shared_ptr<ModuleArchive> ArchiveSlot::Current(const ZipLimits& limits, std::string& failure)
{
    LaterWarnings warnings;
    return Current(limits, failure, warnings);
}

std::shared_ptr<ModuleArchive> ArchiveSlot::Current(const ZipLimits& limits, std::string& failure,
                                                    LaterWarnings& warnings)
{
    const std::lock_guard lock(m_lock);
    struct stat status;
    const bool there = os::Stat(m_path.c_str(), status) == 0;
    const os::FileIdentity identity = there ? os::IdentityOf(status) : os::FileIdentity();
    if (!m_known || there != m_there || identity != m_identity) {
        m_there = there;
        m_identity = identity;
        OpenAnew(limits, warnings);
    }
    if (!m_archive)
        failure = m_failure;
    return m_archive;
}

void ArchiveSlot::OpenAnew(const ZipLimits& limits, LaterWarnings& warnings)
{
    m_known = false; // should opening throw
    m_failure.clear();
    m_archive = ModuleArchive::Open(m_path, limits, m_failure);
    if (m_archive) {
        m_known = m_there = true;
        m_identity = m_archive->Identity();
        m_warned = false;
        return;
    }
    if (m_failure.empty())
        m_failure = "cannot be opened";
    m_known = !OutOfResources(m_path);
    if (m_warned && m_warnedIdentity == m_identity && m_warnedFailure == m_failure)
        return;
    m_warned = true;
    m_warnedIdentity = m_identity;
    m_warnedFailure = m_failure;
    warnings.Add(wxString::Format("Lua archive '%s' is passed over until it changes: %s", FromForeignBytes(m_path),
                                  FromForeignBytes(m_failure)));
}

bool ArchiveSlot::WantsAnotherLook()
{
    const std::lock_guard lock(m_lock);
    return !m_known;
}

ArchiveIndex& ArchiveIndex::Process()
{
    static ArchiveIndex* const s_instance = new ArchiveIndex;
    return *s_instance;
}

std::shared_ptr<ArchiveSlot> ArchiveIndex::SlotLocked(const std::string& path)
{
    std::shared_ptr<ArchiveSlot>& slot = m_slots[path];
    if (!slot)
        slot = std::make_shared<ArchiveSlot>(path);
    return slot;
}

std::shared_ptr<ArchiveSlot> ArchiveIndex::Slot(const std::string& path)
{
    const std::lock_guard lock(m_lock);
    return SlotLocked(path);
}

std::shared_ptr<SearchedArchives> ArchiveIndex::Search(const std::vector<std::string>& paths)
{
    const std::lock_guard lock(m_lock);
    std::shared_ptr<SearchedArchives>& search = m_searches[paths];
    if (!search) {
        std::vector<std::shared_ptr<ArchiveSlot>> slots;
        for (const std::string& path : paths)
            slots.push_back(SlotLocked(path));
        search = std::make_shared<SearchedArchives>(std::move(slots));
    }
    return search;
}

namespace {
// Erases what this map alone holds.
template <class Map>
void EraseUnused(Map& map)
{
    for (auto item = map.begin(); item != map.end();) {
        if (item->second.use_count() == 1)
            item = map.erase(item);
        else
            ++item;
    }
}

} // namespace

void ArchiveIndex::ForgetUnused()
{
    const std::lock_guard lock(m_lock);
    EraseUnused(m_searches); // which hold slots
    EraseUnused(m_slots);
}

} // namespace VexCore
