#pragma once
// What a contract case needs around it, in the way of the core library that it is linked to:
// the real one gets files, the fake gets answers.

#include <string>
#include <vector>

namespace VexCore {
class CDom;
}

namespace Arrange {

/// Before each case.
void Start();

/// An archive at `path` with files of these names, which hold their own name.
void Archive(const std::string& path, const std::vector<std::string>& names);
/// Nothing but rubbish at `path`.
void BrokenArchive(const std::string& path);

/// `module` is traced and no other. `dom` is the only root domain.
void Trace(VexCore::CDom& dom, const std::string& module);

/// The next program prints `output` and ends with `code`. Returns its path.
std::string Program(const std::string& folder, const std::string& output, int code);
/// The next program cannot be started. Returns its path.
std::string MissingProgram(const std::string& folder);

/// A pid file of this process at `path`.
void PidFile(const std::string& path);

} // namespace Arrange
