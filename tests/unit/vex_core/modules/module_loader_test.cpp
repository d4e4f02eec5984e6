#include "vex/core/dom.h"
#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/cache_registry.h"
#include "vex_core/modules/name_hash.h"
#include "vex_core/os/call_observer.h"

#include "support/archive_clock.h"
#include "support/call_watch.h"
#include "support/joining_thread.h"
#include "support/log_catcher.h"
#include "support/need.h"
#include "support/odd_archives.h"
#include "support/other_user.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/log.h>

#include <lua.hpp>

using namespace VexCore;
using ::Test::Need;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {
using Files = std::vector<std::pair<std::string, std::string>>;

std::string Archive(const Files& files, std::uint16_t method = 8)
{
    ::Test::ZipBuilder builder;
    for (const auto& file : files)
        builder.Add(file.first, file.second, method);
    return builder.Build();
}

// A Lua state as a host prepares it.
class Lua
{
public:
    explicit Lua(CDom* dom) : m_state(luaL_newstate())
    {
        luaL_openlibs(m_state);
        Run("package.path = '' package.cpath = ''");
        lua_pushcfunction(m_state, [](lua_State* state) {
            static_cast<CDom*>(lua_touserdata(state, 1))->RegisterLoader(state);
            return 0;
        });
        lua_pushlightuserdata(m_state, dom);
        EXPECT_EQ(lua_pcall(m_state, 1, 0, 0), LUA_OK) << lua_tostring(m_state, -1);
    }
    ~Lua() { lua_close(m_state); }
    Lua(const Lua&) = delete;
    Lua& operator=(const Lua&) = delete;

    // The chunk's first result as text, or its error.
    std::string Run(const std::string& code)
    {
        std::string result;
        if (luaL_loadstring(m_state, code.c_str()) != LUA_OK || lua_pcall(m_state, 0, 1, 0) != LUA_OK)
            result = "error: ";
        std::size_t length = 0;
        const char* const text = luaL_tolstring(m_state, -1, &length);
        result.append(text, length);
        lua_pop(m_state, 2);
        return result;
    }
    lua_State* State() { return m_state; }

private:
    lua_State* m_state;
};

std::string Dumped(const std::string& code)
{
    lua_State* const state = luaL_newstate();
    EXPECT_EQ(luaL_loadbuffer(state, code.data(), code.size(), "=made elsewhere"), LUA_OK);
    std::string chunk;
    lua_dump(
        state,
        [](lua_State*, const void* data, std::size_t size, void* out) {
            static_cast<std::string*>(out)->append(static_cast<const char*>(data), size);
            return 0;
        },
        &chunk);
    lua_close(state);
    return chunk;
}

std::vector<std::string> FilesBelow(const std::string& folder)
{
    std::vector<std::string> files;
    if (std::filesystem::exists(folder))
        for (const auto& item : std::filesystem::directory_iterator(folder))
            files.push_back(item.path().string());
    return files;
}

std::vector<std::string> g_loaderCalls;
std::vector<std::string> g_opened;

int NoteCall(const os::Call& call)
{
    g_loaderCalls.push_back(call.name);
    if (g_loaderCalls.back() == "open")
        g_opened.push_back(call.path);
    return 0;
}

class ModuleSearch : public testing::Test
{
protected:
    ModuleSearch() : m_dom(CDom::New(nullptr, nullptr, nullptr, false))
    {
        std::filesystem::create_directories(m_folder / "bin/vex_core");
        std::filesystem::create_directories(m_folder / "work");
        m_dom->Set("app.path.bin", m_folder / "bin");
    }
    ~ModuleSearch() override
    {
        m_dom->Release();
        ArchiveIndex::Process().ForgetUnused();
        CacheRegistry::Process().ForgetUnused();
    }

    // Writes the archive the way an installation does, by renaming, and puts it last on the search path.
    std::string Add(const std::string& name, const Files& files) { return AddBytes(name, Archive(files)); }
    std::string AddBytes(const std::string& name, const std::string& bytes)
    {
        const std::string path = m_folder / name;
        Install(path, bytes);
        std::string list = m_dom->Get("app.lua.zippath");
        m_dom->Set("app.lua.zippath", list.empty() ? path : list + ";" + path);
        return path;
    }
    void Install(const std::string& path, const std::string& bytes)
    {
        ::Test::WriteFile(path + ".new", bytes);
        std::filesystem::rename(path + ".new", path);
    }
    // And until that has to be noticed.
    void Replace(const std::string& path, const std::string& bytes)
    {
        Install(path, bytes);
        m_clock.Pass(1000);
    }
    void UseCache() { m_dom->Set("app.path.work", m_folder / "work"); }
    std::string CacheFolder() { return m_folder / "work/cache"; }
    std::vector<std::string> CacheFiles() { return FilesBelow(CacheFolder()); }

    ::Test::TempFolder m_folder;
    ::Test::ArchiveClock m_clock;
    CDom* m_dom;
};

} // namespace

TEST_F(ModuleSearch, AModuleIsAFileNamedAfterItInAnArchive)
{
    Add("x.vxe", {{"a/b.lua", "return 'found'"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a.b'"), "found");
}

TEST_F(ModuleSearch, AModuleMayBeTheInitFileOfItsFolder)
{
    Add("x.vxe", {{"a/b/init.lua", "return 'init'"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a.b'"), "init");
}

TEST_F(ModuleSearch, TheFileComesBeforeTheInitFile)
{
    Add("x.vxe", {{"a/init.lua", "return 'init'"}, {"a.lua", "return 'file'"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "file");
}

TEST_F(ModuleSearch, TheInitFileOfAnEarlierArchiveComesBeforeTheFileOfALaterOne)
{
    Add("x.vxe", {{"a/init.lua", "return 'init of x'"}});
    Add("y.vxe", {{"a.lua", "return 'file of y'"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "init of x");
}

TEST_F(ModuleSearch, TheFirstArchiveOnThePathWins)
{
    Add("x.vxe", {{"a.lua", "return 'x'"}});
    Add("y.vxe", {{"a.lua", "return 'y'"}, {"b.lua", "return 'y'"}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "x");
    EXPECT_EQ(lua.Run("return require 'b'"), "y");
}

TEST_F(ModuleSearch, SearchesPreloadGivenPathArchivesRestOfPathInThisOrder)
{
    std::filesystem::create_directories(m_folder / "given");
    std::filesystem::create_directories(m_folder / "rest");
    const std::string archive = Add("x.vxe", {{"m.lua", "return 'archive'"}});
    ::Test::WriteFile(m_folder / "given/m.lua", "return 'given'");
    ::Test::WriteFile(m_folder / "rest/m.lua", "return 'rest'");
    m_dom->Set("app.lua.path", (m_folder / "given") + "/?.lua");
    Lua lua(m_dom);
    lua.Run("package.path = '" + (m_folder / "given/?.lua") + ";" + (m_folder / "rest/?.lua")
            + "' "
              "package.preload.m = function() return 'preload' end");
    const std::string again = "package.loaded.m = nil return require 'm'";
    EXPECT_EQ(lua.Run(again), "preload");
    lua.Run("package.preload.m = nil");
    EXPECT_EQ(lua.Run(again), "given");
    std::filesystem::remove(m_folder / "given/m.lua");
    EXPECT_EQ(lua.Run(again), "archive");
    std::filesystem::remove(archive);
    m_clock.Pass(999);
    EXPECT_EQ(lua.Run(again), "archive") << "it is open still";
    m_clock.Pass(1);
    {
        ::Test::LogCatcher log;
        EXPECT_EQ(lua.Run(again), "rest");
    }
}

TEST_F(ModuleSearch, ATemplateThatAScriptAddsIsSearchedAfterTheArchives)
{
    Add("x.vxe", {{"m.lua", "return 'archive'"}});
    ::Test::WriteFile(m_folder / "m.lua", "return 'stray'");
    ::Test::WriteFile(m_folder / "n.lua", "return 'stray'");
    Lua lua(m_dom);
    lua.Run("package.path = '" + (m_folder / "?.lua") + ";' .. package.path");
    EXPECT_EQ(lua.Run("return require 'm'"), "archive");
    EXPECT_EQ(lua.Run("return require 'n'"), "stray");
}

TEST_F(ModuleSearch, WhatIsGivenIsAskedAtEachLookup)
{
    Add("x.vxe", {{"m.lua", "return 'archive'"}});
    ::Test::WriteFile(m_folder / "m.lua", "return 'file'");
    Lua lua(m_dom);
    lua.Run("package.path = '" + (m_folder / "?.lua") + "'");
    const std::string again = "package.loaded.m = nil return require 'm'";
    EXPECT_EQ(lua.Run(again), "archive");
    m_dom->Set("app.lua.path", m_folder / "?.lua");
    EXPECT_EQ(lua.Run(again), "file");
}

TEST_F(ModuleSearch, NativeModulesComeAfterTheRestOfThePath)
{
    Lua lua(m_dom);
    lua.Run("package.path = '/p/?.lua' package.cpath = '/c/?.so'");
    const std::string error = lua.Run("return require 'm'");
    EXPECT_LT(error.find("/p/m.lua"), error.find("/c/m.so"));
    EXPECT_NE(error.find("/c/m.so"), std::string::npos);
}

TEST_F(ModuleSearch, AModuleOfAPlainFileGetsItsNameAndPath)
{
    ::Test::WriteFile(m_folder / "m.lua", "return table.concat({...}, ' ')");
    Lua lua(m_dom);
    lua.Run("package.path = '" + (m_folder / "?.lua") + "'");
    EXPECT_EQ(lua.Run("return require 'm'"), "m " + (m_folder / "m.lua"));
}

TEST_F(ModuleSearch, ABrokenPlainFileIsAnErrorThatNamesIt)
{
    ::Test::WriteFile(m_folder / "m.lua", "return return");
    Lua lua(m_dom);
    lua.Run("package.path = '" + (m_folder / "?.lua") + "'");
    EXPECT_THAT(lua.Run("return require 'm'"),
                HasSubstr("error loading module 'm' from file '" + (m_folder / "m.lua") + "'"));
}

TEST_F(ModuleSearch, APathThatIsNoTextIsLuasOwnError)
{
    Lua lua(m_dom);
    EXPECT_THAT(lua.Run("package.path = nil return require 'm'"), HasSubstr("'package.path' must be a string"));
}

TEST_F(ModuleSearch, AnArchiveAddedLaterIsFound)
{
    Add("x.vxe", {{"a.lua", "return 1"}});
    Lua lua(m_dom);
    EXPECT_THAT(lua.Run("return require 'b'"), HasSubstr("module 'b' not found"));
    Add("y.vxe", {{"b.lua", "return 2"}});
    EXPECT_EQ(lua.Run("return require 'b'"), "2");
}

TEST_F(ModuleSearch, TheChunkIsNamedAfterArchiveAndFile)
{
    const std::string path = Add("x.vxe", {{"a/b.lua", "return debug.getinfo(1, 'S').source"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a.b'"), "@" + path + "/a/b.lua");
}

TEST_F(ModuleSearch, TheChunkGetsItsModuleNameAndItsPath)
{
    const std::string path = Add("x.vxe", {{"a/b.lua", "return table.concat({...}, ' ')"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a.b'"), "a.b " + path + "/a/b.lua");
}

TEST_F(ModuleSearch, AModuleThatIsNotFoundListsEveryPlaceInItsOrder)
{
    const std::string x = Add("x.vxe", {{"a.lua", "return 1"}});
    const std::string y = Add("y.vxe", {{"a.lua", "return 1"}});
    m_dom->Set("app.lua.path", "/given/?.lua");
    Lua lua(m_dom);
    lua.Run("package.path = '/given/?.lua;/rest/?.lua' package.cpath = '/c/?.so'");
    EXPECT_THAT(
        lua.Run("return require 'p.q'"),
        EndsWith("module 'p.q' not found:\n\tno field package.preload['p.q']\n\tno file '/given/p/q.lua'\n\tno file '"
                 + x + "/p/q.lua'\n\tno file '" + x + "/p/q/init.lua'\n\tno file '" + y + "/p/q.lua'\n\tno file '" + y
                 + "/p/q/init.lua'\n\tno file '/rest/p/q.lua'\n\tno file '/c/p/q.so'\n\tno file '/c/p.so'"));
}

TEST_F(ModuleSearch, AnArchiveTwiceOnThePathIsListedOnce)
{
    const std::string x = Add("x.vxe", {{"a.lua", "return 1"}});
    m_dom->Set("app.lua.zippath", x + ";" + x + ";;");
    const std::string error = Lua(m_dom).Run("return require 'b'");
    EXPECT_EQ(error.find(x + "/b.lua"), error.rfind(x + "/b.lua"));
}

TEST_F(ModuleSearch, ARelativeArchiveLiesBesideTheLauncher)
{
    ::Test::WriteFile(m_folder / "bin/x.vxe", Archive({{"a.lua", "return ({...})[2]"}}));
    m_dom->Set("app.lua.zippath", "x.vxe");
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), m_folder / "bin/x.vxe/a.lua");
}

TEST_F(ModuleSearch, ADamagedArchiveIsOneWarningAndPassedOver)
{
    const std::string bad = AddBytes("bad.vxe", "this is no archive");
    Add("x.vxe", {{"a.lua", "return 'a'"}, {"b.lua", "return 'b'"}});
    ::Test::LogCatcher log;
    Lua lua(m_dom);
    Lua other(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "a");
    EXPECT_EQ(lua.Run("return require 'b'"), "b");
    EXPECT_EQ(other.Run("return require 'b'"), "b");
    ASSERT_EQ(log.Lines().size(), 1u);
    std::string why;
    ASSERT_FALSE(ZipArchive::Open(bad, ZipLimits(), why));
    ASSERT_FALSE(why.empty());
    EXPECT_EQ(log.All(), std::to_string(wxLOG_Warning) + " Lua archive '" + bad
                             + "' is passed over until it changes: " + why + "\n");
    EXPECT_THAT(lua.Run("return require 'c'"), HasSubstr("\n\tno archive '" + bad + "' ("));
}

TEST_F(ModuleSearch, NothingIsLoadedFromAnArchiveWhoseHeadersBreakAnyRule)
{
    // Most of the broken archives hold a sound lib/a.lua beside their fault.
    const std::string path = AddBytes("odd.vxe", "");
    Add("x.vxe", {{"lib/a.lua", "return 'from the sound archive'"}});
    for (const ::Test::BrokenArchive& broken : ::Test::BrokenArchives()) {
        SCOPED_TRACE(broken.story);
        Replace(path, broken.bytes);
        ::Test::LogCatcher log;
        EXPECT_EQ(Lua(m_dom).Run("return require 'lib.a'"), "from the sound archive");
        ASSERT_EQ(log.Lines().size(), 1u);
        EXPECT_THAT(log.Lines()[0].text, HasSubstr(broken.reason));
    }
    Replace(path, ::Test::PlainPackage().Build());
    EXPECT_EQ(Lua(m_dom).Run("return require 'lib.a'"), "1");
}

TEST_F(ModuleSearch, ADamagedArchiveIsUsedOnceItIsWhole)
{
    const std::string path = AddBytes("x.vxe", "this is no archive");
    ::Test::LogCatcher log;
    Lua lua(m_dom);
    EXPECT_THAT(lua.Run("return require 'a'"), StartsWith("error"));
    Replace(path, Archive({{"a.lua", "return 'a'"}}));
    EXPECT_EQ(lua.Run("return require 'a'"), "a");
    EXPECT_EQ(log.Lines().size(), 1u);
}

TEST_F(ModuleSearch, AnArchiveDamagedAnewIsWarnedOfAnew)
{
    const std::string path = AddBytes("x.vxe", "this is no archive");
    ::Test::LogCatcher log;
    Lua lua(m_dom);
    lua.Run("return require 'a'");
    Replace(path, "nor is this");
    lua.Run("return require 'a'");
    lua.Run("return require 'a'");
    EXPECT_EQ(log.Lines().size(), 2u);
}

TEST_F(ModuleSearch, AMissingArchiveIsPassedOverUntilItAppears)
{
    const std::string path = m_folder / "x.vxe";
    m_dom->Set("app.lua.zippath", path);
    ::Test::LogCatcher log;
    Lua lua(m_dom);
    EXPECT_THAT(lua.Run("return require 'a'"), StartsWith("error"));
    EXPECT_EQ(log.Lines().size(), 1u);
    Install(path, Archive({{"a.lua", "return 'a'"}}));
    EXPECT_EQ(lua.Run("return require 'a'"), "a") << "at once";
}

TEST_F(ModuleSearch, AnArchiveThatIsAFifoOrAFolderIsPassedOver)
{
    ASSERT_EQ(::mkfifo((m_folder / "fifo.vxe").c_str(), 0600), 0);
    std::filesystem::create_directory(m_folder / "folder.vxe");
    m_dom->Set("app.lua.zippath", (m_folder / "fifo.vxe") + ";" + (m_folder / "folder.vxe"));
    Add("x.vxe", {{"a.lua", "return 'a'"}});
    ::Test::LogCatcher log;
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "a");
    EXPECT_EQ(log.Lines().size(), 2u);
}

TEST_F(ModuleSearch, AnArchiveReplacedOnDiskIsOpenedAnew)
{
    for (const bool cached : {false, true}) {
        if (cached)
            UseCache();
        const std::string path = m_folder / "x.vxe";
        m_dom->Set("app.lua.zippath", path);
        Replace(path, Archive({{"a.lua", "return 'old'"}, {"gone.lua", "return 1"}}));
        Lua lua(m_dom);
        EXPECT_EQ(lua.Run("return require 'a'"), "old");
        Replace(path, Archive({{"a.lua", "return 'new'"}, {"b.lua", "return 'b'"}}));
        EXPECT_EQ(lua.Run("return require 'a'"), "old") << "a loaded module stays";
        EXPECT_EQ(lua.Run("package.loaded.a = nil return require 'a'"), "new");
        EXPECT_EQ(lua.Run("return require 'b'"), "b");
        EXPECT_THAT(lua.Run("return require 'gone'"), StartsWith("error"));
    }
}

TEST_F(ModuleSearch, AnArchiveThatIsReplacedOftenHasOneCacheInTheProcess)
{
    UseCache();
    const std::string path = m_folder / "x.vxe";
    m_dom->Set("app.lua.zippath", path);
    Lua lua(m_dom);
    std::size_t before = 0;
    for (int number = 0; number < 20; ++number) {
        const std::string text = std::to_string(number);
        Replace(path, Archive({{"a.lua", "return '" + text + "'"}, {"only" + text + ".lua", ""}}));
        EXPECT_EQ(lua.Run("package.loaded.a = nil return require 'a'"), text);
        if (number == 0)
            before = CacheRegistry::Process().Count();
    }
    EXPECT_EQ(CacheRegistry::Process().Count(), before);
}

TEST_F(ModuleSearch, AnArchiveOverwrittenInPlaceIsOpenedAnew)
{
    const std::string path = Add("x.vxe", {{"a.lua", "return 'old'"}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "old");
    ::Test::WriteFile(path, Archive({{"a.lua", "return 'newer'"}}));
    EXPECT_EQ(lua.Run("package.loaded.a = nil return require 'a'"), "newer");
}

TEST_F(ModuleSearch, AnEarlierArchiveThatGainsTheModuleWinsWithinASecond)
{
    const std::string x = Add("x.vxe", {{"a.lua", "return 'x'"}});
    Add("y.vxe", {{"b.lua", "return 'y'"}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'b'"), "y");
    Install(x, Archive({{"b.lua", "return 'x'"}}));
    m_clock.Pass(999);
    EXPECT_EQ(lua.Run("package.loaded.b = nil return require 'b'"), "y");
    m_clock.Pass(1);
    EXPECT_EQ(lua.Run("package.loaded.b = nil return require 'b'"), "x");
}

TEST_F(ModuleSearch, ANameThatHasTheHashOfAnotherIsNotTakenForIt)
{
    // FNV-1a gives both the same.
    const std::string one = "8yn0iYCKYHlIj4-BwPqk";
    const std::string other = "GReLUrM4wMqfg9yzV3KQ";
    ASSERT_EQ(HashName(one), HashName(other));
    Add("x.vxe", {{one + ".lua", "return 'one of x'"}});
    Add("y.vxe", {{one + ".lua", "return 'one of y'"}, {other + ".lua", "return 'other of y'"}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require '" + one + "'"), "one of x");
    EXPECT_EQ(lua.Run("return require '" + other + "'"), "other of y");
    m_dom->Set("app.lua.zippath", m_folder / "x.vxe");
    EXPECT_THAT(Lua(m_dom).Run("return require '" + other + "'"),
                HasSubstr("no file '" + (m_folder / "x.vxe") + "/" + other + ".lua'"));
}

TEST_F(ModuleSearch, AnArchiveThatWasClosedAndReplacedIsReadAsWhatItIsNow)
{
    const std::string path = Add("x.vxe", {{"a.lua", "return 'old'"}, {"b.lua", "return 'old'"}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "old");
    std::string failure;
    Need(ArchiveIndex::Process().Slot(path)->Current(ZipLimits(), failure))->Close();
    Install(path, Archive({{"b.lua", "return 'new'"}}));
    EXPECT_EQ(lua.Run("return require 'b'"), "new");
}

TEST_F(ModuleSearch, AnInterpreterThatRequiresNothingKeepsNoReplacedArchiveOpen)
{
    const std::string path = Add("x.vxe", {{"a.lua", "return 'old'"}});
    Lua idle(m_dom);
    EXPECT_EQ(idle.Run("return require 'a'"), "old");
    std::string failure;
    const std::weak_ptr<ModuleArchive> old = ArchiveIndex::Process().Slot(path)->Current(ZipLimits(), failure);
    Replace(path, Archive({{"a.lua", "return 'new'"}}));
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "new");
    EXPECT_TRUE(old.expired());
}

TEST_F(ModuleSearch, ASyntaxErrorNamesModuleAndFileAndDoesNotFallThrough)
{
    const std::string x = Add("x.vxe", {{"a.lua", "local = 1"}});
    Add("y.vxe", {{"a.lua", "return 'y'"}});
    const std::string error = Lua(m_dom).Run("return require 'a'");
    EXPECT_THAT(error, HasSubstr("error loading module 'a' from file '" + x + "/a.lua':\n\t"));
    EXPECT_THAT(error, HasSubstr("a.lua:1:"));
}

TEST_F(ModuleSearch, ADamagedEntryNamesModuleAndFileAndDoesNotFallThrough)
{
    ::Test::ZipBuilder builder;
    builder.Add("a.lua", "return 'whole'", 0).packed[0] ^= 1;
    builder.Add("b.lua", "return 'b'");
    const std::string x = AddBytes("x.vxe", builder.Build());
    Add("y.vxe", {{"a.lua", "return 'y'"}});
    Lua lua(m_dom);
    EXPECT_THAT(lua.Run("return require 'a'"), HasSubstr("error loading module 'a' from file '" + x + "/a.lua':\n\t"));
    EXPECT_EQ(lua.Run("return require 'b'"), "b");
}

TEST_F(ModuleSearch, AnArchiveThatCannotBeOpenedAgainIsAnErrorThatNamesModuleAndFile)
{
    const std::string x = Add("x.vxe", {{"a.lua", "return 'a'"}, {"b.lua", "return 'b'"}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "a");
    std::string failure;
    Need(ArchiveIndex::Process().Slot(x)->Current(ZipLimits(), failure))->Close();
    {
        const ::Test::CallWatch noDescriptors(
            [&x](const os::Call& call) { return call.name == std::string("open") && call.path == x ? EMFILE : 0; });
        EXPECT_THAT(lua.Run("return require 'b'"), HasSubstr("error loading module 'b' from file '" + x
                                                             + "/b.lua':\n\tcannot be opened: Too many open files"));
    }
    EXPECT_EQ(lua.Run("return require 'b'"), "b");
}

TEST_F(ModuleSearch, ARunTimeErrorNamesArchiveAndLine)
{
    Add("x.vxe", {{"a.lua", "\n\nerror('oh')"}});
    EXPECT_THAT(Lua(m_dom).Run("return require 'a'"), HasSubstr("x.vxe/a.lua:3: oh"));
}

TEST_F(ModuleSearch, APrecompiledChunkIsRefusedOutsideTheCoreArchives)
{
    const std::string path = Add("x.vxe", {{"a.lua", Dumped("return 'compiled'")}});
    const std::string error = Lua(m_dom).Run("return require 'a'");
    EXPECT_THAT(error, HasSubstr("error loading module 'a' from file '" + path + "/a.lua':\n\ta precompiled chunk"));
}

TEST_F(ModuleSearch, APrecompiledChunkBehindAFirstLineCommentIsRefusedToo)
{
    Add("x.vxe", {{"a.lua", "#!/usr/bin/lua\n" + Dumped("return 'compiled'")}});
    EXPECT_THAT(Lua(m_dom).Run("return require 'a'"), HasSubstr("a precompiled chunk"));
}

TEST_F(ModuleSearch, APrecompiledChunkIsLoadedFromTheCoreArchives)
{
    Add("bin/vex_core/x.vxe", {{"a.lua", Dumped("return 'compiled'")}, {"b.lua", "#x\n" + Dumped("return 'b'")}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "compiled");
    EXPECT_EQ(lua.Run("return require 'b'"), "b");
}

TEST_F(ModuleSearch, APathThatOnlyLooksLikeTheCoreFolderIsNotCore)
{
    Add("bin/vex_core/../x.vxe", {{"a.lua", Dumped("return 'compiled'")}});
    EXPECT_THAT(Lua(m_dom).Run("return require 'a'"), HasSubstr("a precompiled chunk"));
    std::filesystem::create_directories(m_folder / "vex_core");
    Add("vex_core/y.vxe", {{"b.lua", Dumped("return 'compiled'")}});
    EXPECT_THAT(Lua(m_dom).Run("return require 'b'"), HasSubstr("a precompiled chunk"));
}

TEST_F(ModuleSearch, AByteOrderMarkAndAFirstLineCommentAreSkippedAsInPlainFiles)
{
    Add("x.vxe", {{"a.lua", "\xEF\xBB\xBF#!/usr/bin/lua\nreturn debug.getinfo(1, 'l').currentline"},
                  {"b.lua", "\xEF\xBB\xBFreturn 'b'"},
                  {"c.lua", "#"},
                  {"d.lua", ""}});
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "2");
    EXPECT_EQ(lua.Run("return require 'b'"), "b");
    EXPECT_EQ(lua.Run("return require 'c'"), "true");
    EXPECT_EQ(lua.Run("return require 'd'"), "true");
}

TEST_F(ModuleSearch, OddModuleNamesAreNotFoundAndDoNoHarm)
{
    Add("x.vxe", {{"a.lua", "return 1"}, {"a/b.lua", "return 'b'"}});
    Lua lua(m_dom);
    for (const char* name : {"", ".", "..", "..a", "a.", "/a", "%s", "a%d"})
        EXPECT_THAT(lua.Run(std::string("return require '") + name + "'"), StartsWith("error: ")) << name;
    EXPECT_EQ(lua.Run("return require 'a/b'"), "b");
    EXPECT_THAT(lua.Run("return require(string.rep('x', 100000))"), HasSubstr("not found"));
    EXPECT_THAT(lua.Run("return require {}"), HasSubstr("string expected"));
}

TEST_F(ModuleSearch, NamesWithAccentsAreFound)
{
    const std::string path = Add("pl\xC3\xA4ne.vxe", {{"gr\xC3\xB6\xC3\x9F"
                                                       "e.lua",
                                                       "return ({...})[2]"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'gr\xC3\xB6\xC3\x9F"
                             "e'"),
              path
                  + "/gr\xC3\xB6\xC3\x9F"
                    "e.lua");
}

TEST_F(ModuleSearch, AnEmptySearchPathIsNoError)
{
    EXPECT_THAT(Lua(m_dom).Run("return require 'a'"), HasSubstr("module 'a' not found:"));
}

TEST_F(ModuleSearch, RegisteringTwiceChangesNothing)
{
    Lua lua(m_dom);
    const std::string count = lua.Run("return #package.searchers");
    m_dom->RegisterLoader(lua.State());
    EXPECT_EQ(lua.Run("return #package.searchers"), count);
    EXPECT_EQ(count, "6");
}

TEST_F(ModuleSearch, RegisteringLeavesTheStackAsItWas)
{
    Lua lua(m_dom);
    EXPECT_EQ(lua_gettop(lua.State()), 0);
}

TEST_F(ModuleSearch, WithoutThePackageLibraryRegisteringIsALuaError)
{
    lua_State* const state = luaL_newstate();
    lua_pushcfunction(state, [](lua_State* inner) {
        static_cast<CDom*>(lua_touserdata(inner, 1))->RegisterLoader(inner);
        return 0;
    });
    lua_pushlightuserdata(state, m_dom);
    EXPECT_EQ(lua_pcall(state, 1, 0, 0), LUA_ERRRUN);
    EXPECT_THAT(lua_tostring(state, -1), HasSubstr("'package'"));
    lua_close(state);
}

TEST_F(ModuleSearch, TheLoadersMetatableDoesNotMakeAnotherUserdataOne)
{
    Add("x.vxe", {{"a.lua", "return 'loaded'"}});
    Lua lua(m_dom);
    std::memset(lua_newuserdata(lua.State(), 200), 0x41, 200);
    lua_setglobal(lua.State(), "large");
    lua_newuserdata(lua.State(), 1);
    lua_setglobal(lua.State(), "small");
    lua_pushlightuserdata(lua.State(), m_dom);
    lua_setglobal(lua.State(), "light");
    EXPECT_EQ(lua.Run("local meta = debug.getregistry()['VexCore.ModuleLoader']\n"
                      "for _, one in ipairs{io.tmpfile(), large, small, light} do debug.setmetatable(one, meta)\n"
                      "  meta.__gc(one) end\n"
                      "debug.setmetatable(light, nil) large, small = nil collectgarbage() return require('a')"),
              "loaded");
}

TEST_F(ModuleSearch, AnotherValueInThePlaceOfTheLoaderIsAnError)
{
    Add("x.vxe", {{"a.lua", "return 1"}});
    for (const char* const other : {"io.stdout", "{}", "nil"})
        EXPECT_EQ(Lua(m_dom).Run(std::string("debug.setupvalue(package.searchers[3], 1, ") + other
                                 + ") return select(2, pcall(require, 'a'))"),
                  "another value stands in the place of the module loader")
            << other;
}

TEST_F(ModuleSearch, AFinaliserThatRequiresWhileTheStateClosesIsHarmless)
{
    Add("x.vxe", {{"a.lua", "return 1"}});
    lua_State* const state = luaL_newstate();
    luaL_openlibs(state);
    ASSERT_EQ(luaL_dostring(state, "early = setmetatable({}, {__gc = function() pcall(require, 'a') end})"), LUA_OK);
    m_dom->RegisterLoader(state);
    lua_close(state);
}

TEST_F(ModuleSearch, EveryFailingAllocationOfLuaIsALuaError)
{
    UseCache();
    Add("x.vxe", {{"a/init.lua", "local t = {...} return {1, 'text', function() return t end}"}});
    static std::atomic<long> s_budget;
    const auto allocate = [](void*, void* block, std::size_t oldSize, std::size_t size) -> void* {
        if (size == 0) {
            std::free(block);
            return nullptr;
        }
        const bool shrinks = block && size <= oldSize; // which Lua takes for granted
        return shrinks || s_budget-- > 0 ? std::realloc(block, size) : nullptr;
    };
    int failures = 0;
    for (long n = 0; n < 1000; ++n) {
        CacheRegistry::Process().ForgetUnused();
        std::filesystem::remove_all(CacheFolder());
        s_budget = 1000000;
        lua_State* const state = lua_newstate(allocate, nullptr);
        luaL_openlibs(state);
        lua_pushcfunction(state, [](lua_State* inner) {
            static_cast<CDom*>(lua_touserdata(inner, 1))->RegisterLoader(inner);
            lua_getglobal(inner, "require");
            lua_pushliteral(inner, "a");
            lua_call(inner, 1, 0);
            return 0;
        });
        lua_pushlightuserdata(state, m_dom);
        s_budget = n;
        const int status = lua_pcall(state, 1, 0, 0);
        s_budget = 1000000;
        lua_close(state);
        if (status == LUA_OK)
            break;
        ASSERT_EQ(status, LUA_ERRMEM) << n;
        ++failures;
    }
    EXPECT_GT(failures, 20);
    EXPECT_LT(failures, 999);
}

TEST_F(ModuleSearch, ManyThreadsLoadFromTheSameArchivesWhileTheyAreReplaced)
{
    UseCache();
    Files files;
    for (int i = 0; i < 40; ++i)
        files.emplace_back("m" + std::to_string(i) + ".lua", "return " + std::to_string(i));
    const std::string x = Add("x.vxe", {{"other.lua", "return 1"}});
    const std::string y = Add("y.vxe", files);
    std::atomic<int> wrong{0};
    std::vector<::Test::JoiningThread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int round = 0; round < 3; ++round) {
                Lua lua(m_dom);
                for (int i = 0; i < 40; ++i)
                    if (lua.Run("return require 'm" + std::to_string(i) + "'") != std::to_string(i))
                        ++wrong;
            }
        });
    for (int i = 0; i < 10; ++i) {
        Replace(x, Archive({{"other" + std::to_string(i) + ".lua", "return 1"}}));
        Replace(y, Archive(files));
    }
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST_F(ModuleSearch, AnArchiveIsOpenedOnceForAllInterpreters)
{
    const std::vector<std::string> both = {Add("x.vxe", {{"a.lua", "return 'a'"}, {"b.lua", "return 'b'"}}),
                                           Add("y.vxe", {{"c.lua", "return 'c'"}})};
    g_opened.clear();
    const ::Test::CallWatch observed(NoteCall);
    {
        Lua one(m_dom);
        Lua two(m_dom);
        EXPECT_EQ(one.Run("return require 'a' .. require 'c'"), "ac");
        EXPECT_EQ(two.Run("return require 'c' .. require 'b'"), "cb");
    }
    EXPECT_EQ(Lua(m_dom).Run("return require 'b' .. require 'a'"), "ba");
    EXPECT_EQ(g_opened, both);
}

TEST_F(ModuleSearch, ALimitOfArchivesCountsHereToo)
{
    m_dom->SetWx("app.unzip.maxentries", static_cast<std::int64_t>(1));
    Add("x.vxe", {{"a.lua", "return 'x'"}, {"b.lua", "return 'x'"}});
    Add("y.vxe", {{"a.lua", "return 'y'"}});
    ::Test::LogCatcher log;
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'a'"), "y");
    EXPECT_EQ(log.Lines().size(), 1u);

    // What is on the path next is opened by the limits of now, not by those of a second ago.
    m_dom->SetWx("app.unzip.maxentries", static_cast<std::int64_t>(2));
    m_dom->SetWx("app.unzip.maxbytes", static_cast<std::int64_t>(10));
    m_dom->Set("app.lua.zippath", "");
    Add("z.vxe", {{"a.lua", "return 'more than ten bytes'"}});
    Add("short.vxe", {{"a.lua", "return 1"}});
    EXPECT_EQ(lua.Run("package.loaded.a = nil return require 'a'"), "1");
    EXPECT_EQ(log.Lines().size(), 2u);
}

TEST_F(ModuleSearch, FiveHundredArchivesAreOpenedOnceEach)
{
    std::string list;
    for (int i = 0; i < 500; ++i) {
        const std::string path = m_folder / ("x" + std::to_string(i) + ".vxe");
        ::Test::WriteFile(path, Archive({{"m" + std::to_string(i) + ".lua", "return " + std::to_string(i)}}));
        list += path + ";";
    }
    m_dom->Set("app.lua.zippath", list);
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("return require 'm499'"), "499");
    std::string error;
    std::vector<std::shared_ptr<const ZipArchive>> open;
    std::string failure;
    for (int i = 0; i < 500; ++i) {
        const auto slot = ArchiveIndex::Process().Slot(m_folder / ("x" + std::to_string(i) + ".vxe"));
        open.push_back(Need(slot->Current(ZipLimits(), failure))->Zip(error));
    }
    EXPECT_EQ(lua.Run("local n = 0 for i = 0, 499 do n = n + require('m' .. i) end return n"),
              std::to_string(499 * 250));
    for (int i = 0; i < 500; ++i) {
        const auto slot = ArchiveIndex::Process().Slot(m_folder / ("x" + std::to_string(i) + ".vxe"));
        EXPECT_EQ(Need(slot->Current(ZipLimits(), failure))->Zip(error), open[static_cast<std::size_t>(i)]);
    }
}

// --- the cache

TEST_F(ModuleSearch, CompiledChunksAreWrittenWhenTheStateIsClosedAndUsedNextTime)
{
    UseCache();
    const std::string path = Add("x.vxe", {{"a.lua", "return debug.getinfo(1, 'S').source .. ' ' .. ..."}});
    const std::string expected = "@" + path + "/a.lua a";
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), expected);
    ASSERT_EQ(CacheFiles().size(), 1u);
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), expected);

    // Proof that the second one did not come from the source: a cached chunk that was changed, with right checksums.
    const std::string key = std::filesystem::path(CacheFiles()[0]).stem().string();
    ASSERT_EQ(key.size(), 64u);
    const std::string name = path + "/a.lua";
    const std::string chunk = Dumped("return 'from the cache'");
    const ChunkCacheFormat::Item item{name, static_cast<std::uint32_t>(path.size()), chunk};
    ::Test::WriteFile(CacheFiles()[0], ChunkCacheFormat::Build(key, {item}));
    ASSERT_EQ(::chmod(CacheFiles()[0].c_str(), 0600), 0);
    CacheRegistry::Process().ForgetUnused();
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "from the cache");
}

TEST_F(ModuleSearch, TheCacheFileIsNamedByTheArchivesDirectoryAndThisLuasFormat)
{
    UseCache();
    const std::string path = Add("x.vxe", {{"a.lua", "return 1"}});
    Lua(m_dom).Run("return require 'a'");
    const std::string format = Dumped("return 1").substr(0, 18);
    ASSERT_EQ(format.substr(0, 5), "\x1BLua\x52");
    ASSERT_EQ(format.substr(7, 4), (std::string{sizeof(int), sizeof(std::size_t), 4, sizeof(lua_Number)}));
    std::string error;
    const std::string key =
        ChunkCache::Key(Need(ZipArchive::Open(path, ZipLimits(), error))->DirectorySha256(), LUA_RELEASE " " + format);
    EXPECT_EQ(CacheFiles(), std::vector<std::string>{CacheFolder() + "/" + key + ".luac"});
}

TEST_F(ModuleSearch, TheCacheLiesInTheWorkFolderOfNow)
{
    Add("x.vxe", {{"a.lua", "return 'a'"}, {"b.lua", "return 'b'"}, {"c.lua", "return 'c'"}});
    std::filesystem::create_directory(m_folder / "other");
    {
        Lua lua(m_dom);
        EXPECT_EQ(lua.Run("return require 'a'"), "a") << "there is no work folder yet";
        UseCache();
        EXPECT_EQ(lua.Run("return require 'b'"), "b");
        m_dom->Set("app.path.work", m_folder / "other");
        EXPECT_EQ(lua.Run("return require 'c'"), "c");
    }
    EXPECT_EQ(CacheFiles().size(), 1u);
    EXPECT_EQ(FilesBelow(m_folder / "other/cache").size(), 1u);
}

TEST_F(ModuleSearch, TheCacheFolderAndItsFilesAreOurs)
{
    UseCache();
    Add("x.vxe", {{"a.lua", "return 1"}});
    Lua(m_dom).Run("return require 'a'");
    struct stat status;
    ASSERT_EQ(::stat(CacheFolder().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700u);
    ASSERT_EQ(CacheFiles().size(), 1u);
    ASSERT_EQ(::stat(CacheFiles()[0].c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(ModuleSearch, TheSameArchiveAtTwoPathsHasOneCacheFileAndTwoChunkNames)
{
    UseCache();
    const Files files{{"a.lua", "return debug.getinfo(1, 'S').source"}};
    const std::string x = Add("x.vxe", files);
    const std::string y = Add("y.vxe", files);
    for (int round = 0; round < 2; ++round) {
        for (const std::string& path : {x, y}) {
            m_dom->Set("app.lua.zippath", path);
            EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "@" + path + "/a.lua") << round;
        }
        CacheRegistry::Process().ForgetUnused();
    }
    EXPECT_EQ(CacheFiles().size(), 1u);
}

TEST_F(ModuleSearch, TheSettingTurnsTheCacheOff)
{
    UseCache();
    m_dom->Set("app.lua.cache", false);
    Add("x.vxe", {{"a.lua", "return 1"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "1");
    EXPECT_FALSE(std::filesystem::exists(CacheFolder()));
}

TEST_F(ModuleSearch, TheSettingsFileTurnsTheCacheOff)
{
    UseCache();
    ::Test::WriteFile(m_folder / "x.ini", "[settings]\napp.lua.cache=false\n");
    m_dom->Set("app.path.ini", m_folder / "x.ini");
    Add("x.vxe", {{"a.lua", "return 1"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "1");
    EXPECT_FALSE(std::filesystem::exists(CacheFolder()));
}

TEST_F(ModuleSearch, AChangedSettingsFileCountsFromTheNextSecondOn)
{
    UseCache();
    ::Test::WriteFile(m_folder / "x.ini", "[settings]\napp.lua.cache=false\n");
    m_dom->Set("app.path.ini", m_folder / "x.ini");
    Add("x.vxe", {{"a.lua", "return 1"}, {"b.lua", "return 2"}});
    {
        Lua lua(m_dom);
        EXPECT_EQ(lua.Run("return require 'a'"), "1");
        ::Test::WriteFile(m_folder / "x.ini", "[settings]\napp.lua.cache=true\n");
        std::this_thread::sleep_for(std::chrono::milliseconds(1050));
        EXPECT_EQ(lua.Run("return require 'b'"), "2");
    }
    EXPECT_EQ(CacheFiles().size(), 1u);
}

namespace {
// All files below a folder with their sizes.
std::vector<std::string> WholeTree(const std::string& folder)
{
    std::vector<std::string> files;
    for (const auto& item : std::filesystem::recursive_directory_iterator(folder))
        files.push_back(item.path().string() + (item.is_regular_file() ? " " + std::to_string(item.file_size()) : ""));
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

TEST_F(ModuleSearch, NoModuleIsUnpackedToDisk)
{
    UseCache();
    m_dom->Set("app.lua.cache", false);
    Add("x.vxe", {{"a.lua", "return 'a'"},
                  {"b/init.lua", "return 'b'"},
                  {"big.lua", "return #'" + std::string(200000, 'x') + "'"}});
    Add("bin/vex_core/y.vxe", {{"c.lua", Dumped("return 'c'")}});
    const std::vector<std::string> before = WholeTree(m_folder.Path());
    const ::Test::Variable temporaries("TMPDIR", m_folder / "work");
    g_loaderCalls.clear();
    {
        const ::Test::CallWatch observed(NoteCall);
        EXPECT_EQ(Lua(m_dom).Run("return require 'a' .. require 'b' .. require 'big' .. require 'c'"), "ab200000c");
    }
    EXPECT_THAT(g_loaderCalls, testing::Contains("pread"));
    EXPECT_THAT(g_loaderCalls, testing::Each(testing::AnyOf("stat", "open", "fstat", "pread", "close")));
    EXPECT_EQ(WholeTree(m_folder.Path()), before);
}

TEST_F(ModuleSearch, AModuleOfAbsurdSizeIsAnErrorAndNoMemoryIsSpentOnIt)
{
    // Well formed, and a thousandth of what it unpacks to.
    const std::string path =
        AddBytes("x.vxe", Archive({{"big.lua", "--" + std::string((64 << 20) - 1, 'x')}, {"a.lua", "return 1"}}));
    ASSERT_LT(std::filesystem::file_size(path), 200000u);
    Lua lua(m_dom);
    EXPECT_EQ(lua.Run("require 'big'"), "error: error loading module 'big' from file '" + path
                                            + "/big.lua':\n\tit has 67108865 bytes, and a module may have 67108864");
    EXPECT_EQ(lua.Run("return require 'a'"), "1");
}

TEST_F(ModuleSearch, ACacheFolderThatOthersMayEnterIsNotUsed)
{
    UseCache();
    std::filesystem::create_directory(CacheFolder());
    ASSERT_EQ(::chmod(CacheFolder().c_str(), 0755), 0);
    Add("x.vxe", {{"a.lua", "return 1"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "1");
    EXPECT_TRUE(CacheFiles().empty());
}

TEST_F(ModuleSearch, ACacheFolderThatIsAnotherUsersLinkOrAFileIsNotUsed)
{
    UseCache();
    std::filesystem::create_directory(m_folder / "elsewhere");
    ASSERT_EQ(::chmod((m_folder / "elsewhere").c_str(), 0700), 0);
    ASSERT_EQ(::symlink((m_folder / "elsewhere").c_str(), CacheFolder().c_str()), 0);
    GIVE_AWAY(CacheFolder());
    const ::Test::LogCatcher log;
    Add("x.vxe", {{"a.lua", "return 1"}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "1");
    EXPECT_TRUE(FilesBelow(m_folder / "elsewhere").empty());
    std::filesystem::remove(CacheFolder());
    ::Test::WriteFile(CacheFolder(), "a file");
    CacheRegistry::Process().ForgetUnused();
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "1");
}

TEST_F(ModuleSearch, ACacheFolderOfAnotherUserIsNotUsed)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    UseCache();
    const std::string path = Add("x.vxe", {{"a.lua", "return 'source'"}});
    Lua(m_dom).Run("return require 'a'");
    const std::string file = CacheFiles().at(0);
    const std::string key = std::filesystem::path(file).stem().string();
    const std::string name = path + "/a.lua";
    const std::string chunk = Dumped("return 'poison'");
    const ChunkCacheFormat::Item item{name, static_cast<std::uint32_t>(path.size()), chunk};
    ::Test::WriteFile(file, ChunkCacheFormat::Build(key, {item}));

    ASSERT_EQ(::chown(CacheFolder().c_str(), 12345, 12345), 0);
    CacheRegistry::Process().ForgetUnused();
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "source");
    ASSERT_EQ(::chown(CacheFolder().c_str(), 0, 0), 0);
    ASSERT_EQ(::chown(file.c_str(), 12345, 12345), 0);
    CacheRegistry::Process().ForgetUnused();
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "source");
}

TEST_F(ModuleSearch, AnyDamageOfTheCacheFileCostsOnlyTime)
{
    UseCache();
    Add("x.vxe", {{"a.lua", "return 'right ' .. ..."}, {"b/init.lua", "local t = {1, 2.5, 'x'} return #t"}});
    const std::string code = "return require 'a' .. require 'b'";
    ASSERT_EQ(Lua(m_dom).Run(code), "right a3");
    const std::string file = CacheFiles().at(0);
    const std::string good = ::Test::ReadFile(file);
    m_dom->Set("app.lua.cache", true);
    std::vector<std::string> damaged;
    const std::size_t step = std::getenv("VEX_FULL") ? 1 : 7;
    for (std::size_t i = 0; i < good.size(); i += step) {
        std::string bad = good;
        bad[i] = static_cast<char>(bad[i] ^ (1 << (i % 8)));
        damaged.push_back(bad);
    }
    for (std::size_t length = 0; length < good.size(); length += 3 * step)
        damaged.push_back(good.substr(0, length));
    damaged.push_back(good + "more");
    damaged.push_back(std::string(good.size(), '\0'));
    for (const std::string& bad : damaged) {
        ::Test::WriteFile(file, bad);
        CacheRegistry::Process().ForgetUnused();
        ASSERT_EQ(Lua(m_dom).Run(code), "right a3");
    }
    EXPECT_EQ(CacheFiles().size(), 1u);
    EXPECT_EQ(::Test::ReadFile(file).size(), good.size()) << "it is mended";
}

TEST_F(ModuleSearch, PrecompiledChunksAreNotCached)
{
    UseCache();
    Add("bin/vex_core/x.vxe", {{"a.lua", Dumped("return 'compiled'")}});
    EXPECT_EQ(Lua(m_dom).Run("return require 'a'"), "compiled");
    EXPECT_TRUE(CacheFiles().empty());
}

TEST_F(ModuleSearch, AFinaliserThatLoadsAModuleLeavesTheOneThatIsBeingCompiledAlone)
{
    const auto listOf = [](const std::string& word) {
        std::string code = "return {";
        for (int i = 0; i < 1000; ++i)
            code += "'" + word + std::to_string(i) + "',";
        return code + "}";
    };
    Add("x.vxe", {{"outer.lua", listOf("outer")}, {"inner.lua", listOf("INNER")}});
    // The compiler makes strings, and that may run finalisers; with these settings it surely does.
    EXPECT_EQ(
        Lua(m_dom).Run("collectgarbage('setpause', 0) collectgarbage('setstepmul', 100000)"
                       "local finalised = 0 "
                       "setmetatable({}, {__gc = function() finalised = finalised + 1; require 'inner' end}) "
                       "local list = require 'outer' "
                       "local wrong = 1000 - #list "
                       "for i, text in ipairs(list) do if text ~= 'outer' .. i - 1 then wrong = wrong + 1 end end "
                       "return finalised .. ' ' .. wrong"),
        "1 0");
}
