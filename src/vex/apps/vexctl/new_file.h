#pragma once
// A file that is there whole under its name, or not at all.

#include "vex_core/os/descriptor.h"

#include <cstddef>
#include <string>

namespace Vexctl {

/// Written under a hidden name in its folder, which no start of an agent looks at; gone with the object unless it got
/// its own name. All functions throw Failure.
class NewFile
{
public:
    NewFile(const std::string& folder, const std::string& name);
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    void Write(const char* data, std::size_t size);
    /// Puts what was written on stable storage; nothing is written afterwards.
    void Close();
    /// Gives it its name, over a file that has it, and puts that on stable storage, too.
    void Place();

    /// While it has no name of its own.
    const std::string& TemporaryPath() const { return m_temporary; }
    const std::string& Path() const { return m_path; }

private:
    [[noreturn]] void Fail() const;

    const std::string m_folder;
    const std::string m_path;
    std::string m_temporary;
    VexCore::os::Descriptor m_file;
    bool m_isPlaced = false;
};

/// Copies a regular file into a new one. Throws Failure.
void CopyInto(NewFile& file, const std::string& path);

} // namespace Vexctl
