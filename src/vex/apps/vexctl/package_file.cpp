#include "vex/apps/vexctl/package_file.h"

#include "vex/apps/vex/package_name.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"

#include <algorithm>

namespace Vexctl {

namespace {
using VexCore::IsDigit;

struct Suffix
{
    std::string_view text;
    PackageKind kind;
};
constexpr Suffix suffixes[] = {{".vxp", PackageKind::Package},
                               {".vxp.done", PackageKind::Done},
                               {".vxu", PackageKind::Marker},
                               {".vxe", PackageKind::Extension}};

// Takes the run of digits at the start of a text, without zeros in front.
std::string_view TakeNumber(std::string_view& text)
{
    const std::size_t length =
        static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), IsDigit) - text.begin());
    std::string_view number = text.substr(0, length);
    text.remove_prefix(length);
    while (!number.empty() && number.front() == '0')
        number.remove_prefix(1);
    return number;
}

} // namespace

const char* KindWord(PackageKind kind)
{
    switch (kind) {
    case PackageKind::Package:
        return "package";
    case PackageKind::Done:
        return "installed package";
    case PackageKind::Marker:
        return "marker";
    case PackageKind::Extension:
        break;
    }
    return "extension";
}

std::string PackageName::VersionText() const
{
    if (version.empty())
        return "-";
    return build.empty() ? version : version + "-" + build;
}

std::optional<PackageName> ParsePackageName(std::string_view file)
{
    const auto suffix = std::find_if(std::begin(suffixes), std::end(suffixes),
                                     [file](const Suffix& one) { return VexCore::EndsWith(file, one.text); });
    if (suffix == std::end(suffixes) || file.front() == '.')
        return std::nullopt;
    PackageName name;
    name.file = std::string(file);
    name.kind = suffix->kind;
    name.base = std::string(file.substr(0, file.size() - suffix->text.size()));
    if (name.kind == PackageKind::Extension) {
        name.plugin = name.base;
        return name;
    }
    // As the launcher has it: a file name of the framework's, with an extension.
    const wxFileName launchers(VexCore::FromSystemBytes(name.base + ".vxp"));
    name.plugin = VexCore::ToSystemBytes(getPluginName(launchers));
    wxString version;
    wxString build;
    if (FindVersionField(launchers.GetName(), version, &build)) {
        name.version = VexCore::ToSystemBytes(version);
        name.build = VexCore::ToSystemBytes(build);
    }
    name.fits = PackageVersionFits(launchers.GetName());
    return name;
}

int CompareInNumberOrder(std::string_view left, std::string_view right)
{
    while (!left.empty() && !right.empty()) {
        if (IsDigit(left.front()) && IsDigit(right.front())) {
            const std::string_view a = TakeNumber(left);
            const std::string_view b = TakeNumber(right);
            if (a.size() != b.size())
                return a.size() < b.size() ? -1 : 1;
            if (const int order = a.compare(b); order != 0)
                return order;
            continue;
        }
        if (left.front() != right.front())
            return static_cast<unsigned char>(left.front()) < static_cast<unsigned char>(right.front()) ? -1 : 1;
        left.remove_prefix(1);
        right.remove_prefix(1);
    }
    return static_cast<int>(!left.empty()) - static_cast<int>(!right.empty());
}

bool ComesBefore(const PackageName& left, const PackageName& right)
{
    if (left.plugin != right.plugin)
        return left.plugin < right.plugin;
    int order = CompareInNumberOrder(left.version, right.version);
    if (order == 0)
        order = CompareInNumberOrder(left.build, right.build);
    return order != 0 ? order < 0 : left.file < right.file;
}

} // namespace Vexctl
