// For the fake core: its answers.

#include "support/contract_arrange.h"

#include "support/fake_core.h"
#include "support/temp_folder.h"

#include <filesystem>

#include <unistd.h>

namespace Arrange {
using FakeCore::answers;

void Start()
{
    FakeCore::Reset();
}

void Archive(const std::string& path, const std::vector<std::string>& names)
{
    std::vector<FakeCore::Entry> entries;
    for (const std::string& name : names)
        entries.push_back({name, static_cast<std::int64_t>(name.size())});
    answers().unzipEntriesOf[std::filesystem::path(path).filename().string()] = entries;
}

void BrokenArchive(const std::string& path)
{
    answers().unzipResultOf[std::filesystem::path(path).filename().string()] = false;
}

void Trace(VexCore::CDom&, const std::string& module)
{
    answers().tracedModules = {module};
}

std::string Program(const std::string& folder, const std::string& output, int code)
{
    answers().executeOutput = output;
    answers().executeExitCode = code;
    return folder + "/program";
}

std::string MissingProgram(const std::string& folder)
{
    answers().executeResult = false;
    answers().executeError = "no such program";
    return folder + "/missing";
}

void PidFile(const std::string&)
{
    answers().pidFileAnswers = {::getpid()};
}

} // namespace Arrange
