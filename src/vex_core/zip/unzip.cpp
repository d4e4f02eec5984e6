// Unpacks an archive into a folder: what is asked in which order, and what becomes of a failure. The archive is checked
// whole by the reader before the first question; folders, temporary files and writing are in unzip_*.cpp.
#include "vex/core/unzip.h"

#include "vex_core/base/text.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/domain/settings.h"
#include "vex_core/os/descriptor_path.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/zip/unzip_check.h"
#include "vex_core/zip/unzip_writer.h"
#include "vex_core/zip/zip_names.h"

#include <cerrno>
#include <exception>
#include <new>

#include <wx/filename.h>
#include <wx/log.h>
#include <wx/zipstrm.h>

namespace VexCore {
namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::size_t maxOpenFolders = 4;
#else
constexpr std::size_t maxOpenFolders = 64;
#endif

ZipLimits LimitsFromSettings()
{
    ZipLimits limits;
    const RootDom root;
    if (!root)
        return limits;
    limits.maxBytes = static_cast<std::uint64_t>(IntSetting(*root, "app.unzip.maxbytes"));
    limits.maxEntries = static_cast<std::uint64_t>(IntSetting(*root, "app.unzip.maxentries"));
    return limits;
}

std::shared_ptr<const ZipArchive> OpenChecked(const std::string& path)
{
    std::string error;
    auto archive = OpenToUnzip(path, LimitsFromSettings(), error);
    if (!archive)
        throw UnzipFailure(error);
    return archive;
}

// One `Unzip` from the first question to the last flush.
class UnzipRun
{
public:
    UnzipRun(const ZipArchive& archive, const wxString& folder, UnzipCallback callback, void* context)
        : m_archive(archive), m_shownFolder(folder + '/'), m_callback(callback), m_context(context),
          m_folders(ToSystemBytes(folder)), m_temporaries(m_folders, archive), m_writer(m_folders, m_temporaries)
    {}

    // Throws UnzipFailure, or what the callback threw.
    void Run()
    {
        m_temporaries.SweepOldRuns();
        try {
            for (const ZipEntry& entry : m_archive.Entries())
                Process(entry);
            Finish();
        } catch (...) {
            FinishQuietly();
            throw;
        }
    }

private:
    enum class Target { Missing, There };

    void Process(const ZipEntry& entry)
    {
        try {
            const Target target = LookAtTarget(entry);
            if (!Ask(entry, target))
                NoteRemoval(entry, target);
            else if (entry.isFolder)
                m_folders.Make(Zip::PathOf(entry.name));
            else
                m_writer.Write(m_archive, entry);
        } catch (const UnzipFailure& failure) {
            throw UnzipFailure("entry \"" + EscapeForLog(entry.name) + "\": " + failure.what());
        }
        if (m_writer.IsFull())
            m_writer.Commit();
        if (m_folders.OpenCount() > maxOpenFolders) {
            m_writer.Commit();
            m_folders.Flush();
            m_folders.Close();
        }
    }

    // What stands where the entry goes. Throws when that, or a folder before it, is not of the right kind: the entry is
    // then neither shown nor written.
    Target LookAtTarget(const ZipEntry& entry)
    {
        if (entry.isFolder)
            return m_folders.Find(Zip::PathOf(entry.name)) < 0 ? Target::Missing : Target::There;
        const int folder = m_folders.Find(FolderOf(entry.name));
        struct stat status;
        if (folder < 0)
            return Target::Missing;
        if (os::LStatAt(folder, LastOf(entry.name).c_str(), status) != 0) {
            if (os::LastError() != ENOENT)
                throw UnzipFailure("cannot look at its destination", os::LastError());
            return Target::Missing;
        }
        if (!S_ISREG(status.st_mode))
            throw UnzipFailure("something other than a regular file stands in its place");
        return Target::There;
    }

    bool Ask(const ZipEntry& entry, Target target)
    {
        m_shown.SetName(FromForeignBytes(entry.name), wxPATH_UNIX);
        m_shown.SetSize(wxFileOffset(entry.size));
        m_shown.SetMethod(entry.method);
        const wxString destination = DestinationOf(entry, target);
        return m_callback(m_context, &m_shown, &destination);
    }

    // The last slash of a folder stays, so that nothing but a folder can be meant. The name on disk is the archive's
    // bytes, in every locale.
    //
    // A callback may remove what it is shown, by the path. Where somebody else can put a link on the way there after we
    // have looked, the path leads through the folder that we hold open, if the system has such paths.
    wxString DestinationOf(const ZipEntry& entry, Target target)
    {
        if (const auto folder = FolderOf(entry.name);
            !entry.isFolder && target == Target::There && m_folders.OthersMayExchange(folder))
            if (const std::string held = os::PathThroughDescriptor(m_folders.Find(folder)); !held.empty())
                return FromSystemBytes(held + '/' + LastOf(entry.name));
        return m_shownFolder + FromSystemBytes(entry.name);
    }

    // A callback may remove the file that it is shown; that too is to be on stable storage in the end.
    void NoteRemoval(const ZipEntry& entry, Target before)
    {
        if (before == Target::There && !entry.isFolder && LookAtTarget(entry) == Target::Missing)
            m_folders.NoteChange(FolderOf(entry.name));
    }

    void Finish()
    {
        m_writer.Commit();
        // The list goes when nothing can bring a temporary name back, not even a power failure.
        m_folders.FlushRenames();
        m_temporaries.RemoveList();
        m_folders.Flush();
    }

    // After a failure: the files that were finished stay, and what the first failure said is all that is said.
    void FinishQuietly() noexcept
    {
        const auto attempt = [](auto step) {
            try {
                step();
            } catch (const std::exception&) {
            }
        };
        attempt([this] { m_writer.Commit(); });
        attempt([this] { m_folders.Flush(); });
        attempt([this] { m_temporaries.RemoveList(); });
        attempt([this] { m_folders.Flush(); });
    }

    const ZipArchive& m_archive;
    const wxString m_shownFolder; // with a last slash
    const UnzipCallback m_callback;
    void* const m_context;
    UnzipFolders m_folders;
    UnzipTemporaries m_temporaries;
    UnzipWriter m_writer;
    wxZipEntry m_shown; // one for all entries: to make one is to ask for the time of day
};

// The full path of a folder without a last slash, however the file name was made.
wxString FolderPath(wxFileName folder)
{
    if (!folder.IsAbsolute())
        folder.MakeAbsolute();
    wxString path = folder.GetFullPath(wxPATH_UNIX);
    while (path.length() > 1 && path.Last() == '/')
        path.RemoveLast();
    return path;
}

} // namespace

bool Unzip(const wxFileName& archive, const wxFileName& folder, UnzipCallback callback, void* context)
{
    wxCHECK_MSG(callback, false, "Unzip needs a callback");
    const std::string path = ToSystemBytes(archive.GetFullPath());
    std::string reason;
    try {
        const auto opened = OpenChecked(path);
        UnzipRun(*opened, FolderPath(folder), callback, context).Run();
        return true;
    } catch (const UnzipFailure& failure) {
        reason = failure.what();
    } catch (const std::bad_alloc&) {
        reason = "there is not enough memory";
    }
    const std::string shown = EscapeForLog(path);
    wxLogError("Cannot process the archive \"%s\": %s", FromForeignBytes(shown), FromForeignBytes(reason));
    return false;
}

} // namespace VexCore
