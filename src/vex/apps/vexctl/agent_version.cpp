#include "vex/apps/vexctl/agent_version.h"

#include "vex/apps/vexctl/json_text.h"

#include "vex_core/os/descriptor.h"
#include "vex_core/os/files.h"

#include <fcntl.h>

namespace Vexctl {

namespace {
// Of a report; what is longer is not worth the memory.
constexpr off_t maxReportBytes = 16 * 1024 * 1024;

} // namespace

const std::string& AgentVersion::Load()
{
    const VexCore::os::Descriptor file(VexCore::os::Open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!file || VexCore::os::FStat(file.Get(), status) != 0 || !S_ISREG(status.st_mode)
        || status.st_size > maxReportBytes || m_read == VexCore::os::IdentityOf(status))
        return m_version;
    std::string text;
    if (!VexCore::os::ReadToEnd(file.Get(), text))
        return m_version;
    m_read = VexCore::os::IdentityOf(status);
    const Json report = Json::parse(text, nullptr, false);
    const auto agent = report.is_object() ? report.find("agent") : report.end();
    if (agent == report.end() || !agent->is_object())
        return m_version;
    const auto version = agent->find("version");
    if (version != agent->end() && version->is_string() && !version->get_ref<const std::string&>().empty())
        m_version = version->get<std::string>();
    return m_version;
}

} // namespace Vexctl
