// For the fake core: its answers.

#include "support/contract_arrange.h"

#include "support/fake_core.h"
#include "support/temp_folder.h"

#include <filesystem>

#include <unistd.h>

namespace Arrange {
using FakeCore::Answers;

void Start()
{
    FakeCore::Reset();
}

void Archive(const std::string& path, const std::vector<std::string>& names)
{
    std::vector<FakeCore::Entry> entries;
    for (const std::string& name : names)
        entries.push_back({name, static_cast<std::int64_t>(name.size())});
    Answers().unzipEntriesOf[std::filesystem::path(path).filename().string()] = entries;
}

void BrokenArchive(const std::string& path)
{
    Answers().unzipResultOf[std::filesystem::path(path).filename().string()] = false;
}

void Trace(VexCore::CDom&, const std::string& module)
{
    Answers().tracedModules = {module};
}

std::string Program(const std::string& folder, const std::string& output, int code)
{
    Answers().executeOutput = output;
    Answers().executeExitCode = code;
    return folder + "/program";
}

std::string MissingProgram(const std::string& folder)
{
    Answers().executeResult = false;
    Answers().executeError = "no such program";
    return folder + "/missing";
}

void PidFile(const std::string&)
{
    Answers().pidFileAnswers = {::getpid()};
}

} // namespace Arrange
