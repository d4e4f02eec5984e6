#include "vex/apps/vexctl/package_check.h"

#include "vex/apps/vexctl/agent_settings.h"
#include "vex/apps/vexctl/heartbeat_history.h"

#include "vex/apps/vex/extension_rules.h"
#include "vex/apps/vex/version.h"

#include "vex_core/base/text.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/zip/unzip_check.h"

#include <algorithm>
#include <iterator>

#include <fcntl.h>
#include <wx/log.h>

namespace Vexctl {

namespace {
using VexCore::ZipEntry;

// Why the file cannot be read by whoever asks, empty where it can. What is no regular file is the reader's to refuse.
std::string WhyUnreadable(const std::string& path)
{
    struct stat status = {};
    if (VexCore::os::Stat(path.c_str(), status) != 0)
        return VexCore::os::ErrorText(VexCore::os::LastError());
    if (!S_ISREG(status.st_mode))
        return std::string();
    const VexCore::os::Descriptor file(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    return file ? std::string() : VexCore::os::ErrorText(VexCore::os::LastError());
}

void JudgeName(Verdict& verdict)
{
    if (!verdict.name || verdict.name->kind == PackageKind::Done)
        verdict.reasons.push_back(
            "the agent does not look at a file of this name: it ends in .vxp, .vxu or .vxe and does "
            "not begin with a dot");
    else if (verdict.name->kind == PackageKind::Package && !verdict.name->fits)
        verdict.reasons.push_back("it is for version " + verdict.name->version + ", and the agent is "
                                  + std::to_string(VEX_VERSION_MAJOR) + "." + std::to_string(VEX_VERSION_MINOR) + "."
                                  + std::to_string(VEX_VERSION_PATCH));
}

void JudgeExtension(Verdict& verdict)
{
    const wxLogNull silence; // the reasons say it
    const wxString path = VexCore::FromSystemBytes(verdict.path);
    for (const wxString& why : {WhyPathIsRefused(path), WhyVersionIsRefused(path)})
        if (!why.empty())
            verdict.reasons.push_back(VexCore::ToSystemBytes(why));
}

void JudgeArchive(Verdict& verdict, const VexCore::ZipLimits& limits)
{
    const bool isExtension = verdict.name && verdict.name->kind == PackageKind::Extension;
    std::vector<std::string> reasons;
    verdict.archive = isExtension ? VexCore::ZipArchive::Open(verdict.path, VexCore::ZipLimits(), reasons)
                                  : VexCore::OpenToUnzip(verdict.path, limits, reasons);
    if (verdict.archive) {
        for (const ZipEntry& entry : verdict.archive->Entries()) {
            verdict.files += entry.isFolder ? 0 : 1;
            verdict.bytes += entry.size;
        }
        // What a marker's entries hold is not looked at.
        if (!verdict.name || verdict.name->kind != PackageKind::Marker) {
            std::vector<std::string> damaged = VexCore::DamagedEntries(*verdict.archive);
            std::move(damaged.begin(), damaged.end(), std::back_inserter(reasons));
        }
    }
    std::move(reasons.begin(), reasons.end(), std::back_inserter(verdict.reasons));
}

} // namespace

VexCore::ZipLimits LimitsOf(const Place& place)
{
    VexCore::ZipLimits limits;
    for (const VexCore::SettingInForce& setting : ReadAgentSettings(place, std::string()).report.inForce) {
        if (setting.key == "app.unzip.maxbytes")
            limits.maxBytes = std::stoull(setting.value); // the unit stands behind it
        else if (setting.key == "app.unzip.maxentries")
            limits.maxEntries = std::stoull(setting.value);
    }
    return limits;
}

Verdict CheckPackage(const std::string& path, const VexCore::ZipLimits& limits, const std::string& name)
{
    Verdict verdict;
    verdict.path = path;
    verdict.name = ParsePackageName(name.empty() ? path.substr(path.rfind('/') + 1) : name);
    verdict.unread = WhyUnreadable(path);
    if (!verdict.unread.empty())
        return verdict;
    JudgeName(verdict);
    if (verdict.name && verdict.name->kind == PackageKind::Extension)
        JudgeExtension(verdict);
    JudgeArchive(verdict, limits);
    return verdict;
}

std::string Counted(std::size_t count, const char* singular)
{
    return std::to_string(count) + " " + singular + (count == 1 ? "" : "s");
}

std::string Verdict::Summary() const
{
    if (!unread.empty())
        return "cannot be read: " + unread;
    if (!reasons.empty())
        return "refused, for " + Counted(reasons.size(), "reason");
    const std::string content = Counted(files, "file");
    const std::string ofPlugin = " of plugin " + name->plugin + ", " + name->VersionText();
    const auto size = static_cast<std::int64_t>(std::min<std::uint64_t>(bytes, INT64_MAX));
    switch (name->kind) {
    case PackageKind::Marker:
        return "would delete " + content + ofPlugin;
    case PackageKind::Extension:
        return "would be enabled: " + content + ", " + BytesText(size);
    case PackageKind::Package:
    case PackageKind::Done:
        break;
    }
    return "would be installed: " + content + ofPlugin + ", " + BytesText(size);
}

} // namespace Vexctl
