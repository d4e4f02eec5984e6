// For the real core library: files and settings.

#include "support/contract_arrange.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include "vex/core/dom.h"

#include <filesystem>

#include <unistd.h>

namespace Arrange {

void Start() {}

void Archive(const std::string& path, const std::vector<std::string>& names)
{
    Test::ZipBuilder builder;
    for (const std::string& name : names)
        builder.Add(name, name);
    Test::WriteFile(path, builder.Build());
}

void BrokenArchive(const std::string& path)
{
    Test::WriteFile(path, "no archive");
}

void Trace(VexCore::CDom& dom, const std::string& module)
{
    dom.Set("app.trace", module);
}

std::string Program(const std::string& folder, const std::string& output, int code)
{
    const std::string path = folder + "/program";
    Test::WriteFile(path, "#!/bin/sh\nprintf '" + output + "'\nexit " + std::to_string(code) + "\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

std::string MissingProgram(const std::string& folder)
{
    return folder + "/missing";
}

void PidFile(const std::string& path)
{
    Test::WriteFile(path, std::to_string(::getpid()) + "\n");
}

} // namespace Arrange
