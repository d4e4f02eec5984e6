#pragma once
// A file that is there whole under its name, or not at all.

#include "vex/apps/vexctl/os/leftover.h"

#include "vex_core/os/descriptor.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace Vexctl {

/// Who may read a new file, whatever the umask says.
enum class Readers { All, OwnerAlone };

/// Throws Failure unless a file may be put there: a file of that name is replaced, anything else (a folder, a device, a
/// link) is left alone.
void ExpectRoomForFile(const std::string& path);

/// Written under a hidden name in its folder, which no start of an agent looks at; gone with the object, or when a
/// signal ends the process, unless it got its own name. All functions throw Failure.
class NewFile
{
public:
    /// Expects room for it.
    NewFile(const std::string& path, Readers readers);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void Write(std::string_view bytes);
    /// Puts what was written on stable storage; nothing is written afterwards.
    void Close();
    /// Gives the closed file its name, over a file that has it, and puts that on stable storage, too.
    void Place();

    /// While it has no name of its own.
    const std::string& TemporaryPath() const { return m_temporary; }
    const std::string& Path() const { return m_path; }

private:
    [[noreturn]] void Fail() const;

    const std::string m_path;
    const std::string m_folder;
    const std::string m_temporary;
    const os::Leftover m_leftover;
    const Readers m_readers;
    VexCore::os::Descriptor m_file;
    bool m_isPlaced = false;
};

/// Is told how many bytes of how many are done.
using BytesDone = std::function<void(std::uint64_t done, std::uint64_t all)>;

/// Copies a regular file into a new one. Throws Failure.
void CopyInto(NewFile& file, const std::string& path, const BytesDone& told);

/// Makes a file of these bytes, for its owner alone. Throws Failure.
void WriteNewFile(const std::string& path, std::string_view bytes);

} // namespace Vexctl
