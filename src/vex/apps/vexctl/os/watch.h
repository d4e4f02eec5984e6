#pragma once
// Sleeping until something happens in a folder.

#include "vex_core/os/descriptor.h"

#include <string>

namespace Vexctl::os {

/// Wakes when a file of the folder is written, made, renamed or removed. Where the system does not tell, it wakes every
/// second instead, and whoever waits has to look.
class FolderWatch
{
public:
    explicit FolderWatch(const std::string& folder);

    enum class Woken {
        Changed, ///< perhaps
        TimeOver,
        ReaderGone, ///< nobody reads any more what is written to the descriptor
    };

    /// Up to `timeoutMs`; -1: without limit.
    Woken Wait(int outputDescriptor, long timeoutMs);

    /// Whether the system tells.
    bool IsTold() const { return static_cast<bool>(m_notices); }

private:
    void TakeNotices();

    VexCore::os::Descriptor m_notices;
};

} // namespace Vexctl::os
