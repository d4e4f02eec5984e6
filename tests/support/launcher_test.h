#pragma once
// What the launcher's tests have in common.

#include "support/agent_app.h"
#include "support/fake_core.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"

#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Access = AgentAppTestAccess;
using Lines = std::vector<std::string>;

// Inside a test the name of their namespace is the test class.
using Test::ReadFile;
using Test::TempFolder;
using Test::Variable;
using Test::WriteFile;

/// Starts each test with an empty journal and the fake's own answers.
class LauncherTest : public testing::Test
{
protected:
    void SetUp() override { FakeCore::Reset(); }
    void TearDown() override
    {
        for (const std::string& line : FakeCore::Journal({"Log(Error, \"Assertion"}))
            ADD_FAILURE() << line;
    }
};

/// While it lives, "~" is this folder.
class Home : public Variable
{
public:
    explicit Home(const std::string& folder) : Variable("HOME", folder) {}
};

/// Starts an application in a folder of its own: the program is bin/NAME there, the working folder is given with an
/// option, so that nothing is made beside it.
struct StartedApp
{
    explicit StartedApp(std::vector<std::string> options = {}, const std::string& name = "vx_agent")
        : arguments(Arguments(folder.Path(), std::move(options), name)), app(arguments)
    {}
    static std::vector<std::string> Arguments(const std::string& folder, std::vector<std::string> options,
                                              const std::string& name)
    {
        std::vector<std::string> all = {folder + "/bin/" + name, "-w", folder};
        all.insert(all.end(), options.begin(), options.end());
        return all;
    }
    bool Init()
    {
        FakeCore::ClearJournal();
        return app->OnInit();
    }

    TempFolder folder;
    std::vector<std::string> arguments;
    AgentApp app;
};

/// Runs statements in a process of their own that has run nothing else, for what works once a process.
/// The test's name must say DeathTest.
#define EXPECT_IN_FRESH_PROCESS(...)                                                                                   \
    do {                                                                                                               \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                                                \
        EXPECT_EXIT(                                                                                                   \
            {                                                                                                          \
                __VA_ARGS__;                                                                                           \
                std::fflush(nullptr);                                                                                  \
                _exit(testing::Test::HasFailure() ? 1 : 0);                                                            \
            },                                                                                                         \
            testing::ExitedWithCode(0), "");                                                                           \
    } while (false)
