#pragma once
// The version of an agent, as it tells it itself. Main thread.

#include "vex/apps/vexctl/place.h"

#include "vex_core/os/file_identity.h"

#include <string>

namespace Vexctl {

/// Out of the report that the agent leaves for collectors at each beat (docs/FORMATS.md, "Metrics"), so that it is the
/// version of the agent that runs, or ran last, whichever vexctl has been installed since.
class AgentVersion
{
public:
    /// `otherwise` is what holds where there is no such report, it may not be read, or does not tell.
    AgentVersion(const Place& place, std::string otherwise) : m_path(place.OutReportFile()), m_version(otherwise) {}

    /// Looks at the file, and reads it where it is another than at the last call. A report that does not tell leaves
    /// the version as it was.
    const std::string& Load();

private:
    const std::string m_path;
    std::string m_version;
    VexCore::os::FileIdentity m_read;
};

} // namespace Vexctl
