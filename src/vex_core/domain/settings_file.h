#pragma once
// One configuration file as a source of settings.

#include "vex_core/domain/config_text.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/file_identity.h"

#include <string>
#include <string_view>

namespace VexCore {

/// What such a file says, read when it is first looked at and again when it is another file or has changed. One thread
/// at a time.
class SettingsFile
{
public:
    enum class Place {
        WorkFolder, ///< where somebody else may have had a hand in it (os/guarded_place.h)
        System,
    };

    /// `parse` is another than `ParseConfig` in tests.
    explicit SettingsFile(Place place, ConfigContents (*parse)(std::string_view bytes) = ParseConfig)
        : m_place(place), m_parse(parse)
    {}

    /// Looks at the file as it is now. Whether anything below is another than before.
    bool Look(const std::string& path);

    // --- as the last look found it

    const std::string& Path() const { return m_path; }
    /// False also for one that is there and not used.
    bool IsRead() const { return m_read; }
    /// Why one that is there is not used, and what to do: a sentence. Empty otherwise.
    const std::string& Refused() const { return m_refused; }
    const std::string& Bytes() const { return m_bytes; }
    const ConfigContents& Contents() const { return m_contents; }

private:
    os::Descriptor Open(struct stat& status, std::string& refused) const;
    bool IsAsBefore(const struct stat& status) const;
    bool Take(bool read, std::string bytes, std::string refused);

    const Place m_place;
    ConfigContents (*const m_parse)(std::string_view bytes);
    std::string m_path;
    os::FileIdentity m_version;
    bool m_read = false;
    bool m_fresh = false; // read so soon after its last change that a later one may not show in its time
    std::string m_refused;
    std::string m_bytes;
    ConfigContents m_contents;
};

/// What to say of a file or folder that is there and cannot be used for the last error.
std::string CannotBeUsed(const std::string& path);

} // namespace VexCore
