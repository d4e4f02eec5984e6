#include "vex/core/dom.h"

#include "vex/core/runnable.h"
#include "vex_core/base/wait.h"
#include "vex_core/domain/dom_values.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/domain/wait_list.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <thread>

#include <sys/stat.h>
#include <unistd.h>

#include "support/dom_ptr.h"
#include "support/heap_in_use.h"
#include "support/joining_thread.h"
#include "support/log_catcher.h"
#include "support/other_user.h"
#include "support/process_guards.h"
#include "support/sanitized.h"
#include "support/temp_folder.h"

using Test::DomPtr;
using Test::NewRoot;
using Test::TempFolder;
using Test::WriteFile;
using VexCore::CDom;
using VexCore::CDomObject;
using VexCore::RootDom;
using EWait = CDom::EWait;
using EType = CDom::EType;

namespace {
DomPtr NewView(const char* name, const DomPtr& parent, bool* created = nullptr)
{
    return DomPtr(CDom::New(name, parent.get(), created, false));
}

std::int64_t MillisSince(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
}

using Texts = std::vector<std::string>;

} // namespace

// --- values

TEST(Dom, AbsentKeyReadsAsNothing)
{
    const DomPtr dom = NewRoot();
    EXPECT_EQ(dom->Get("a"), "");
    std::string text = "untouched";
    EXPECT_FALSE(dom->Get("a", text));
    EXPECT_EQ(text, "untouched");
    bool flag = true;
    EXPECT_FALSE(dom->Get("a", flag));
    EXPECT_TRUE(flag);
    std::int64_t number = 7;
    EXPECT_FALSE(dom->Get("a", number));
    EXPECT_EQ(number, 7);
    EXPECT_EQ(dom->GetWxString("a"), wxString());
    EXPECT_EQ(dom->GetObject("a"), nullptr);
    EXPECT_EQ(dom->TypeOf("a"), EType::Absent);
    EXPECT_FALSE(dom->Has("a"));
}

TEST(Dom, TextIsAnyBytes)
{
    const DomPtr dom = NewRoot();
    dom->Set("zero", "a\0b", 3);
    EXPECT_EQ(dom->Get("zero"), std::string("a\0b", 3));
    dom->Set("null", static_cast<const char*>(nullptr));
    EXPECT_EQ(dom->TypeOf("null"), EType::Text);
    EXPECT_EQ(dom->Get("null"), "");
    dom->Set("string", std::string("text"));
    EXPECT_EQ(dom->Get("string"), "text");
    dom->Set("a", nullptr, 5);
    EXPECT_EQ(dom->Get("a"), "") << "no text is an empty one, whatever its length is said to be";
}

TEST(Dom, EveryKindReadsAsTextButObjects)
{
    const DomPtr dom = NewRoot();
    dom->Set("yes", true);
    dom->Set("no", false);
    dom->SetWx("max", INT64_MAX);
    dom->SetWx("min", INT64_MIN);
    dom->SetObject("object", std::make_shared<CDomObject>());
    EXPECT_EQ(dom->Get("yes"), "true");
    EXPECT_EQ(dom->Get("no"), "false");
    EXPECT_EQ(dom->Get("max"), "9223372036854775807");
    EXPECT_EQ(dom->Get("min"), "-9223372036854775808");
    std::string text = "untouched";
    EXPECT_FALSE(dom->Get("object", text));
    EXPECT_EQ(text, "untouched");
}

TEST(Dom, BooleansAreReadFromTheirTexts)
{
    const struct
    {
        const char* text;
        bool readable;
        bool value;
    } rows[] = {{"true", true, true},   {"TRUE", true, true},   {"1", true, true},       {"Yes", true, true},
                {"false", true, false}, {"False", true, false}, {"0", true, false},      {"nO", true, false},
                {"", false, false},     {"on", false, false},   {" true", false, false}, {"true ", false, false},
                {"2", false, false},    {"01", false, false},   {"y", false, false}};
    const DomPtr dom = NewRoot();
    for (const auto& row : rows) {
        dom->Set("key", row.text);
        bool value = !row.value;
        EXPECT_EQ(dom->Get("key", value), row.readable) << row.text;
        EXPECT_EQ(value, row.readable ? row.value : !row.value) << row.text;
    }
}

TEST(Dom, BooleanIsReadFromTheIntegersOneAndNought)
{
    const DomPtr dom = NewRoot();
    bool value = false;
    dom->SetWx("key", static_cast<std::int64_t>(1));
    EXPECT_TRUE(dom->Get("key", value) && value);
    dom->SetWx("key", static_cast<std::int64_t>(0));
    EXPECT_TRUE(dom->Get("key", value) && !value);
    dom->SetWx("key", static_cast<std::int64_t>(2));
    EXPECT_FALSE(dom->Get("key", value));
}

TEST(Dom, IntegersAreReadFromWholeDecimalTexts)
{
    const struct
    {
        const char* text;
        bool readable;
        std::int64_t value;
    } rows[] = {{"0", true, 0},
                {"-0", true, 0},
                {"42", true, 42},
                {"-42", true, -42},
                {"0042", true, 42},
                {"", false, 0},
                {"-", false, 0},
                {"+1", false, 0},
                {" 1", false, 0},
                {"1 ", false, 0},
                {"1.0", false, 0},
                {"0x10", false, 0},
                {"1e3", false, 0},
                {"true", false, 0},
                {"9223372036854775807", true, INT64_MAX},
                {"-9223372036854775808", true, INT64_MIN},
                {"9223372036854775808", false, 0}};
    const DomPtr dom = NewRoot();
    for (const auto& row : rows) {
        dom->Set("key", row.text);
        std::int64_t value = 77;
        EXPECT_EQ(dom->Get("key", value), row.readable) << row.text;
        EXPECT_EQ(value, row.readable ? row.value : 77) << row.text;
    }
    dom->Set("key", true);
    std::int64_t value = 77;
    EXPECT_FALSE(dom->Get("key", value)) << "a boolean is no integer";
}

TEST(Dom, FrameworkTextIsKeptAsUtf8)
{
    const DomPtr dom = NewRoot();
    dom->SetWx("key", wxString::FromUTF8("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"));
    EXPECT_EQ(dom->Get("key"), "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(dom->GetWxString("key"), wxString::FromUTF8("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"));
    dom->SetWx("key", wxString(wxS("a\0b"), 3));
    EXPECT_EQ(dom->Get("key"), std::string("a\0b", 3));
    EXPECT_EQ(dom->GetWxString("key").length(), 3u);
    dom->SetWx("key", wxString());
    EXPECT_EQ(dom->TypeOf("key"), EType::Text);
}

TEST(Dom, FrameworkCharacterWithoutUtf8BecomesTheReplacementCharacter)
{
    const ::Test::AssertionsAreQuiet quiet;
    const DomPtr dom = NewRoot();
    dom->SetWx("k", wxString(L"x\x110000"));
    EXPECT_EQ(dom->Get("k"), "x\xEF\xBF\xBD");
}

TEST(Dom, BytesThatAreNotUtf8AreTakenAsLatin1)
{
    const DomPtr dom = NewRoot();
    dom->Set("key", "caf\xE9");
    EXPECT_EQ(dom->GetWxString("key"), wxString::FromUTF8("caf\xC3\xA9"));
}

TEST(Dom, ObjectLivesAsLongAsTheKeyOrAHolder)
{
    struct Counted : CDomObject
    {
        explicit Counted(int& n) : count(n) { ++count; }
        ~Counted() override { --count; }
        int& count;
    };
    int alive = 0;
    DomPtr dom = NewRoot();
    dom->SetObject("key", std::make_shared<Counted>(alive));
    EXPECT_EQ(dom->TypeOf("key"), EType::Object);
    std::shared_ptr<CDomObject> held = dom->GetObject("key");
    dom->Set("key", "text");
    EXPECT_EQ(dom->GetObject("key"), nullptr);
    EXPECT_EQ(alive, 1);
    held.reset();
    EXPECT_EQ(alive, 0);
    dom->SetObject("key", std::make_shared<Counted>(alive));
    dom.reset();
    EXPECT_EQ(alive, 0);
}

TEST(Dom, EndOfAnObjectMayUseTheDomain)
{
    struct Writer : CDomObject
    {
        explicit Writer(CDom& d) : dom(d) {}
        ~Writer() override { dom.Set("last.words", true); }
        CDom& dom;
    };
    const DomPtr dom = NewRoot();
    dom->SetObject("key", std::make_shared<Writer>(*dom));
    EXPECT_TRUE(dom->Remove("key"));
    EXPECT_TRUE(dom->Has("last.words"));
    dom->SetObject("key", std::make_shared<Writer>(*dom));
    dom->Remove("last.words");
    dom->Set("key", "overwritten");
    EXPECT_TRUE(dom->Has("last.words"));
}

TEST(Dom, NullAndEmptyKeyAreOneKey)
{
    const DomPtr dom = NewRoot();
    dom->Set(nullptr, "root");
    EXPECT_EQ(dom->Get(""), "root");
    EXPECT_TRUE(dom->Remove(""));
    EXPECT_FALSE(dom->Has(nullptr));
}

// --- the tree

TEST(Dom, KeyHoldsAValueAndHasChildren)
{
    const DomPtr dom = NewRoot();
    dom->Set("a", "1");
    dom->Set("a.b", "2");
    dom->Set("a.b.c", "3");
    dom->Set("ab", "4");
    EXPECT_EQ(dom->Keys("a"), (Texts{"a.b", "a.b.c"}));
    EXPECT_EQ(dom->Keys(""), (Texts{"a", "a.b", "a.b.c", "ab"}));
    EXPECT_EQ(dom->Keys(nullptr), (Texts{"a", "a.b", "a.b.c", "ab"}));
    EXPECT_EQ(dom->Keys("zz"), Texts());
}

TEST(Dom, RemoveLeavesTheChildren)
{
    const DomPtr dom = NewRoot();
    dom->Set("a", "1");
    dom->Set("a.b", "2");
    EXPECT_TRUE(dom->Remove("a"));
    EXPECT_FALSE(dom->Remove("a"));
    EXPECT_EQ(dom->Get("a.b"), "2");
    EXPECT_EQ(dom->Keys("a"), (Texts{"a.b"}));
}

TEST(Dom, KeysAreSorted)
{
    const DomPtr dom = NewRoot();
    for (const char* key : {"x.c", "x.a", "x.b", "x.a.z", "x.B"})
        dom->Set(key, true);
    EXPECT_EQ(dom->Keys("x"), (Texts{"x.B", "x.a", "x.a.z", "x.b", "x.c"}));
}

TEST(Dom, ManyKeysKeepTheirValues)
{
    const DomPtr dom = NewRoot();
    for (int i = 0; i < 10000; ++i)
        dom->SetWx(("k." + std::to_string(i)).c_str(), static_cast<std::int64_t>(i));
    for (int i = 0; i < 10000; i += 2)
        EXPECT_TRUE(dom->Remove(("k." + std::to_string(i)).c_str()));
    for (int i = 0; i < 10000; ++i)
        EXPECT_EQ(i % 2 ? std::to_string(i) : "", dom->Get(("k." + std::to_string(i)).c_str()));
    EXPECT_EQ(dom->Keys("k").size(), 5000u);
}

// --- views and lives

TEST(Dom, ViewShowsTheKeysBelowItsName)
{
    const DomPtr root = NewRoot();
    root->Set("a.b.c", "deep");
    root->Set("a", "own");
    bool created = true;
    const DomPtr view = NewView("a", root, &created);
    EXPECT_FALSE(created);
    EXPECT_EQ(view->Get("b.c"), "deep");
    EXPECT_EQ(view->Keys(""), (Texts{"b.c"}));
    EXPECT_EQ(view->Keys("b"), (Texts{"b.c"}));
    view->Set("x", "1");
    EXPECT_EQ(root->Get("a.x"), "1");
    const DomPtr inner = NewView("b", view, &created);
    EXPECT_FALSE(created);
    EXPECT_EQ(inner->Get("c"), "deep");
    EXPECT_TRUE(inner->Remove("c"));
    EXPECT_FALSE(root->Has("a.b.c"));
}

TEST(Dom, ViewTellsWhetherItsNameWasNew)
{
    const DomPtr root = NewRoot();
    bool created = false;
    NewView("fresh", root, &created);
    EXPECT_TRUE(created);
    root->Set("fresh", 1 == 1);
    NewView("fresh", root, &created);
    EXPECT_FALSE(created);
    root->Set("freshly", true);
    NewView("fres", root, &created);
    EXPECT_TRUE(created) << "a longer name is another name";
}

TEST(Dom, ViewWithoutNameShowsAllOfItsParent)
{
    const DomPtr root = NewRoot();
    root->Set("a", "1");
    EXPECT_EQ(NewView(nullptr, root)->Get("a"), "1");
    EXPECT_EQ(NewView("", root)->Get("a"), "1");
}

TEST(Dom, ViewOutlivesItsRoot)
{
    DomPtr root = NewRoot();
    root->Set("a.b", "1");
    const DomPtr view = NewView("a", root);
    root.reset();
    EXPECT_EQ(view->Get("b"), "1");
}

TEST(Dom, ViewTakesKeysOfAnyLength)
{
    const DomPtr root = NewRoot();
    const DomPtr view = NewView("prefix", root);
    const std::string longKey(5000, 'k');
    view->Set(longKey.c_str(), "1");
    EXPECT_EQ(view->Get(longKey.c_str()), "1");
    EXPECT_EQ(root->Get(("prefix." + longKey).c_str()), "1");
}

TEST(Dom, LastReferenceDestroys)
{
    CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
    const auto object = std::make_shared<CDomObject>();
    dom->SetObject("key", object);
    dom->AddRef();
    dom->Release();
    EXPECT_EQ(object.use_count(), 2);
    dom->Release();
    EXPECT_EQ(object.use_count(), 1);
}

TEST(Dom, ReleaseIsTheSlotBehindTheDestructor)
{
    // Hosts are compiled against another core library, too, and release through that slot. A destructor takes two.
    CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set("is", "alive");
    dom->AddRef();
    void (**slots)(CDom*) = nullptr;
    std::memcpy(&slots, static_cast<const void*>(dom), sizeof slots);
    slots[2](dom);
    EXPECT_EQ(dom->Get("is"), "alive");
    slots[2](dom);
    const RootDom root;
    EXPECT_FALSE(root) << "that was the last reference";
}

TEST(Dom, FirstLiveRootIsTheProcesss)
{
    DomPtr first = NewRoot();
    const DomPtr second = NewRoot();
    first->Set("who", "first");
    second->Set("who", "second");
    const DomPtr view = NewView("x", second);
    EXPECT_EQ(RootDom()->Get("who"), "first");
    first.reset();
    EXPECT_EQ(RootDom()->Get("who"), "second");
}

TEST(Dom, ThereIsNoRootBeforeAndAfter)
{
    EXPECT_FALSE(RootDom());
    NewRoot();
    EXPECT_FALSE(RootDom());
}

TEST(Dom, RootDomKeepsTheDomainAlive)
{
    DomPtr root = NewRoot();
    root->Set("a", "1");
    const RootDom held;
    root.reset();
    EXPECT_EQ(held->Get("a"), "1");
}

// --- settings

TEST(Dom, SettingComesFromTheKeyAndElseFromTheFile)
{
    const TempFolder folder;
    WriteFile(folder / "x.ini", "[settings]\nvex.text=file\nvex.flag=yes\nvex.number=42\nvex.bad=4x\n");
    const DomPtr dom = NewRoot();
    std::string text = "none";
    EXPECT_FALSE(dom->GetSetting("vex.text", text)) << "no file is known";
    dom->Set("app.path.ini", (folder / "x.ini"));
    EXPECT_TRUE(dom->GetSetting("vex.text", text));
    EXPECT_EQ(text, "file");
    bool flag = false;
    EXPECT_TRUE(dom->GetSetting("vex.flag", flag) && flag);
    std::int64_t number = 0;
    EXPECT_TRUE(dom->GetSetting("vex.number", number));
    EXPECT_EQ(number, 42);
    EXPECT_FALSE(dom->GetSetting("vex.bad", number));
    EXPECT_EQ(number, 42);
    EXPECT_FALSE(dom->GetSetting("vex.absent", text));
    EXPECT_EQ(text, "file");

    dom->Set("vex.text", "key");
    EXPECT_TRUE(dom->GetSetting("vex.text", text));
    EXPECT_EQ(text, "key");
    dom->SetWx("vex.number", static_cast<std::int64_t>(7));
    EXPECT_TRUE(dom->GetSetting("vex.number", number));
    EXPECT_EQ(number, 7);
    EXPECT_EQ(dom->Get("vex.flag"), "") << "Get does not look into the file";
}

TEST(Dom, SettingOfAViewHasItsFullName)
{
    const TempFolder folder;
    WriteFile(folder / "x.ini", "[settings]\nvex.number=42\n");
    const DomPtr root = NewRoot();
    root->Set("app.path.ini", (folder / "x.ini"));
    std::int64_t number = 0;
    EXPECT_TRUE(NewView("vex", root)->GetSetting("number", number));
    EXPECT_EQ(number, 42);
}

// --- plugin folders

TEST(Dom, PluginFolderIsMadePrivate)
{
    const TempFolder folder;
    const DomPtr dom = NewRoot();
    dom->Set("app.path.work", (folder / "work"));
    const ::Test::FileModeMask open(0);
    const wxString path = dom->GetPluginWorkdirWx(wxS("diag"));
    EXPECT_EQ(wxString::FromUTF8((folder / "work/plugins/diag").c_str()), path);
    for (const char* each : {"work", "work/plugins", "work/plugins/diag"}) {
        struct stat status = {};
        ASSERT_EQ(::stat((folder / each).c_str(), &status), 0) << each;
        EXPECT_EQ(status.st_mode, mode_t(S_IFDIR | 0700)) << each;
    }
    EXPECT_EQ(dom->GetPluginWorkdirWx(wxS("diag")), path) << "there already is fine";
    dom->Set("app.path.work", (folder / "work/"));
    EXPECT_EQ(dom->GetPluginWorkdirWx(wxS("diag")), path) << "with one slash in between";
}

TEST(Dom, PluginNameThatIsNoFileNameGivesThePluginsFolder)
{
    const TempFolder folder;
    const DomPtr dom = NewRoot();
    dom->Set("app.path.work", (folder / "work"));
    for (const wxString& name : {wxString(), wxString(wxS(".")), wxString(wxS("..")), wxString(wxS("a/b")),
                                 wxString(wxS("../x")), wxString(wxS("/")), wxString(wxS("a\0b"), 3)})
        EXPECT_EQ(dom->GetPluginWorkdirWx(name), wxString::FromUTF8((folder / "work/plugins").c_str())) << name;
    EXPECT_NE(::access((folder / "x").c_str(), F_OK), 0);
}

TEST(Dom, PluginFolderIsNotMadeThroughALinkOfAnotherUserWhichIsSaidOnce)
{
    const TempFolder folder;
    const TempFolder victim;
    std::filesystem::create_directory_symlink(victim.Path(), folder / "plugins");
    GIVE_AWAY(folder / "plugins");
    const DomPtr dom = NewRoot();
    dom->Set("app.path.work", folder.Path());
    const ::Test::LogCatcher log;
    for (const char* name : {"diag", "diag", "x"})
        EXPECT_EQ(dom->GetPluginWorkdirWx(name), wxString::FromUTF8((folder / "plugins/") + name));
    EXPECT_TRUE(std::filesystem::is_empty(victim.Path()));
    ASSERT_EQ(log.Text(),
              "'"
                  + folder
                        / "plugins' is not followed, because the link belongs to user 1000: give it to root or to "
                          "the user of this process, or remove it\n");
    EXPECT_EQ(log.Lines()[0].level, wxLogLevel(wxLOG_Warning));
}

TEST(Dom, PluginFolderIsMadeThroughALinkOfOurs)
{
    const TempFolder folder;
    std::filesystem::create_directory(folder / "elsewhere");
    std::filesystem::create_directory_symlink("elsewhere", folder / "plugins");
    const DomPtr dom = NewRoot();
    dom->Set("app.path.work", folder.Path());
    const ::Test::LogCatcher log;
    EXPECT_EQ(dom->GetPluginWorkdirWx("x"), wxString::FromUTF8(folder / "plugins/x"));
    EXPECT_TRUE(std::filesystem::is_directory(folder / "elsewhere/x")) << log.Text();
}

TEST(Dom, PluginFolderThatCannotBeMadeIsStillNamed)
{
    const TempFolder folder;
    WriteFile(folder / "work", "a file");
    const DomPtr dom = NewRoot();
    dom->Set("app.path.work", (folder / "work"));
    EXPECT_EQ(dom->GetPluginWorkdirWx(wxS("x")), wxString::FromUTF8((folder / "work/plugins/x").c_str()));
    dom->Remove("app.path.work");
    EXPECT_EQ(dom->GetPluginWorkdirWx(wxS("x")), wxString(wxS("plugins/x")));
    EXPECT_NE(::access("plugins", F_OK), 0) << "nothing is made in the current folder";
}

// --- waiting

TEST(DomWait, TimeIsOver)
{
    const DomPtr dom = NewRoot();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(dom->Wait("a", 30), EWait::TimedOut);
    EXPECT_GE(MillisSince(begin), 29);
    EXPECT_EQ(dom->Wait("a", 0), EWait::TimedOut);
}

namespace {
// Waits for `key` on this thread while another does `write`, again and again until the wait has ended.
EWait WaitWhile(const DomPtr& dom, const char* key, const std::function<void(CDom&)>& write, std::int64_t timeoutMs)
{
    ::Test::JoiningThread writer([&](const std::atomic<bool>& stop) {
        while (!stop) {
            write(*dom);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const EWait result = dom->Wait(key, timeoutMs);
    writer.Stop();
    return result;
}

} // namespace

TEST(DomWait, WriteOfTheKeyWakes)
{
    EXPECT_EQ(WaitWhile(
                  NewRoot(), "a.b", [](CDom& dom) { dom.Set("a.b", true); }, -1),
              EWait::Written);
}

TEST(DomWait, WriteBelowTheKeyWakes)
{
    EXPECT_EQ(WaitWhile(
                  NewRoot(), "a", [](CDom& dom) { dom.Set("a.b.c", "x"); }, -1),
              EWait::Written);
}

TEST(DomWait, EveryKindOfWriteWakes)
{
    const std::function<void(CDom&)> writes[] = {
        [](CDom& dom) { dom.Set("k", "text"); },
        [](CDom& dom) { dom.Set("k", "text", 2); },
        [](CDom& dom) { dom.Set("k", std::string("text")); },
        [](CDom& dom) { dom.Set("k", true); },
        [](CDom& dom) { dom.SetWx("k", wxString(wxS("x"))); },
        [](CDom& dom) { dom.SetWx("k", static_cast<std::int64_t>(1)); },
        [](CDom& dom) { dom.SetObject("k", nullptr); },
    };
    for (const auto& write : writes)
        EXPECT_EQ(WaitWhile(NewRoot(), "k", write, -1), EWait::Written);
}

TEST(DomWait, RemovalWakes)
{
    const DomPtr dom = NewRoot();
    dom->Set("a", "x");
    ::Test::JoiningThread remover([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        dom->Remove("a");
    });
    EXPECT_EQ(dom->Wait("a", 60000), EWait::Written);
    remover.join();
}

TEST(DomWait, RemovalOfNothingDoesNotWake)
{
    EXPECT_EQ(WaitWhile(
                  NewRoot(), "a", [](CDom& dom) { dom.Remove("a"); }, 30),
              EWait::TimedOut);
}

TEST(DomWait, OtherKeysDoNotWake)
{
    EXPECT_EQ(WaitWhile(
                  NewRoot(), "a.b",
                  [](CDom& dom) {
                      dom.Set("a", true);
                      dom.Set("a.bc", true);
                      dom.Set("b", true);
                      dom.Set("", true);
                  },
                  30),
              EWait::TimedOut);
}

TEST(DomWait, EmptyKeyWaitsForAnything)
{
    EXPECT_EQ(WaitWhile(
                  NewRoot(), "", [](CDom& dom) { dom.Set("x.y", true); }, -1),
              EWait::Written);
    EXPECT_EQ(WaitWhile(
                  NewRoot(), nullptr, [](CDom& dom) { dom.Set("x.y", true); }, -1),
              EWait::Written);
}

TEST(DomWait, WriteThroughAViewWakesARootsWaiterAndBack)
{
    const DomPtr root = NewRoot();
    const DomPtr view = NewView("a", root);
    EXPECT_EQ(WaitWhile(
                  root, "a.b", [&](CDom&) { view->Set("b", true); }, -1),
              EWait::Written);
    EXPECT_EQ(WaitWhile(
                  view, "c", [&](CDom&) { root->Set("a.c", true); }, -1),
              EWait::Written);
    EXPECT_EQ(WaitWhile(
                  view, "", [&](CDom&) { root->Set("z", true); }, 30),
              EWait::TimedOut);
}

TEST(DomWait, OtherTreesDoNotWake)
{
    const DomPtr other = NewRoot();
    EXPECT_EQ(WaitWhile(
                  NewRoot(), "a", [&](CDom&) { other->Set("a", true); }, 30),
              EWait::TimedOut);
}

TEST(DomWait, WriteBeforeTheFirstWaitDoesNotCount)
{
    const DomPtr dom = NewRoot();
    std::thread([&] { dom->Set("a", true); }).join();
    EXPECT_EQ(dom->Wait("a", 0), EWait::TimedOut);
}

TEST(DomWait, WriteBetweenTwoWaitsForTheKeyIsNotMissed)
{
    const DomPtr dom = NewRoot();
    EXPECT_EQ(dom->Wait("a", 0), EWait::TimedOut);
    std::thread([&] { dom->Set("a.below", true); }).join();
    EXPECT_EQ(dom->Wait("a", -1), EWait::Written);
    EXPECT_EQ(dom->Wait("a", 0), EWait::TimedOut) << "it counts once";
}

TEST(DomWait, OwnWriteBetweenTwoWaitsDoesNotCount)
{
    const DomPtr dom = NewRoot();
    EXPECT_EQ(dom->Wait("a", 0), EWait::TimedOut);
    dom->Set("a", false);
    EXPECT_EQ(dom->Wait("a", 0), EWait::TimedOut);
}

TEST(DomWait, ThreadMayWaitForManyKeysOfManyTrees)
{
    for (int tree = 0; tree < 3; ++tree) {
        const DomPtr dom = NewRoot();
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(dom->Wait(("k." + std::to_string(i)).c_str(), 0), EWait::TimedOut);
        std::thread([&] { dom->Set("k.99", true); }).join();
        EXPECT_EQ(dom->Wait("k.99", -1), EWait::Written);
    }
}

TEST(DomWait, AWaitForSeveralKeysTellsWhichWasWrittenAndKeepsTheOthersForTheNext)
{
    const DomPtr dom = NewRoot();
    const std::vector<std::string> keys{"a", "b", "c"};
    std::size_t which = 99;
    EXPECT_EQ(dom->Wait(keys, 20, which), EWait::TimedOut);
    EXPECT_EQ(which, 99U);
    ::Test::JoiningThread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        dom->Set("b.below", true);
    });
    EXPECT_EQ(dom->Wait(keys, -1, which), EWait::Written);
    EXPECT_EQ(which, 1U);
    writer.join();
    std::thread([&] {
        dom->Set("c", true);
        dom->Set("a", true);
    }).join();
    EXPECT_EQ(dom->Wait(keys, -1, which), EWait::Written);
    EXPECT_EQ(which, 0U);
    EXPECT_EQ(dom->Wait(keys, -1, which), EWait::Written);
    EXPECT_EQ(which, 2U);
    EXPECT_EQ(dom->Wait(keys, 0, which), EWait::TimedOut);
}

TEST(DomWait, OfManyKeysThoseThatWereWaitedForLastAreKept)
{
    const DomPtr dom = NewRoot();
    std::vector<std::string> keys;
    for (std::size_t i = 0; i < CDom::maxWaitKeys; ++i)
        keys.push_back("k." + std::to_string(i));
    EXPECT_EQ(dom->Wait("k.0", 0), EWait::TimedOut); // which is the oldest when the others come
    for (std::size_t i = 1; i < CDom::maxWaitKeys; ++i)
        EXPECT_EQ(dom->Wait(("other." + std::to_string(i)).c_str(), 0), EWait::TimedOut);
    std::size_t which = 0;
    EXPECT_EQ(dom->Wait(keys, 0, which), EWait::TimedOut);
    for (const std::size_t i : {std::size_t{0}, std::size_t{5}, keys.size() - 1}) {
        std::thread([&] { dom->Set(keys[i].c_str(), true); }).join();
        EXPECT_EQ(dom->Wait(keys, 0, which), EWait::Written) << i;
        EXPECT_EQ(which, i);
    }
}

TEST(DomWait, WhatNobodyWaitsForAnyMoreTakesNoMemory)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer keeps what is given back";
#endif
    if (!::Test::HeapInUse())
        GTEST_SKIP() << "the system does not tell how much of the heap is in use";
    constexpr int count = 500;
    const DomPtr dom = NewRoot();
    const auto waitFor = [&dom](int number) {
        EXPECT_EQ(dom->Wait((std::string(10000, 'x') + std::to_string(number)).c_str(), 0), EWait::TimedOut);
    };
    waitFor(0);
    std::thread(waitFor, 0).join();
    std::size_t before = *::Test::HeapInUse();
    for (int number = 1; number <= count; ++number)
        std::thread(waitFor, number).join();
    EXPECT_LT(*::Test::HeapInUse(), before + 500000) << "all keys of threads that have ended have 5 MB";
    before = *::Test::HeapInUse();
    for (int number = 1; number <= count; ++number)
        waitFor(number);
    EXPECT_LT(*::Test::HeapInUse(), before + 500000) << "and so have those that a thread has waited for before";
}

TEST(DomWait, RequestToEndWakesAndIsReportedFromThenOn)
{
    const DomPtr dom = NewRoot();
    VexCore::WaitPoint point;
    EWait first = EWait::TimedOut;
    EWait second = EWait::TimedOut;
    ::Test::JoiningThread sleeper([&] {
        const VexCore::WaitPoint::Binding binding(point);
        first = dom->Wait("a", -1);
        second = dom->Wait("a", -1);
    });
    point.RequestExit();
    sleeper.join();
    EXPECT_EQ(first, EWait::Ending);
    EXPECT_EQ(second, EWait::Ending);
}

TEST(DomWait, AwakenEndsTheWaitAsTimeOver)
{
    const DomPtr dom = NewRoot();
    VexCore::WaitPoint point;
    EWait result = EWait::Written;
    ::Test::JoiningThread sleeper([&] {
        const VexCore::WaitPoint::Binding binding(point);
        result = dom->Wait("a", -1);
    });
    point.Awaken();
    sleeper.join();
    EXPECT_EQ(result, EWait::TimedOut);
}

TEST(DomWait, StaleNotificationDoesNotShortenTheNextWait)
{
    const DomPtr dom = NewRoot();
    VexCore::WaitPoint::OfThisThread().Notify();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(dom->Wait("a", 40), EWait::TimedOut);
    EXPECT_GE(MillisSince(begin), 39);
}

TEST(DomWait, EveryWaiterIsWoken)
{
    const DomPtr dom = NewRoot();
    std::atomic<int> waiting{0};
    std::atomic<int> woken{0};
    std::vector<::Test::JoiningThread> waiters;
    for (int i = 0; i < 50; ++i)
        waiters.emplace_back([&] {
            ++waiting;
            if (dom->Wait("go", 60000) == EWait::Written)
                ++woken;
        });
    while (waiting < 50)
        std::this_thread::yield();
    ::Test::JoiningThread writer([&](const std::atomic<bool>& stop) {
        while (!stop) {
            dom->Set("go", true);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    for (::Test::JoiningThread& waiter : waiters)
        waiter.join();
    writer.Stop();
    EXPECT_EQ(woken, 50);
}

// --- many threads

TEST(DomThreads, ReadersWritersAndWaitersGetWhatWasWritten)
{
    const DomPtr dom = NewRoot();
    constexpr int rounds = 2000;
    std::atomic<int> wrong{0};
    std::vector<::Test::JoiningThread> others;
    for (int i = 0; i < 4; ++i)
        others.emplace_back([&, i](const std::atomic<bool>& stop) {
            const DomPtr view = NewView("shared", dom);
            while (!stop) {
                const std::string text = i % 2 ? dom->Get("shared.text") : view->Get("text");
                if (!text.empty() && text != std::string(text.size(), text.front()))
                    ++wrong;
                if (dom->Keys("shared").size() > 3)
                    ++wrong;
                std::int64_t number = 0;
                dom->Get("shared.number", number);
                dom->GetObject("shared.object");
            }
        });
    for (int i = 0; i < 3; ++i)
        others.emplace_back([&](const std::atomic<bool>& stop) {
            VexCore::WaitPoint point;
            const VexCore::WaitPoint::Binding binding(point);
            while (!stop)
                dom->Wait("shared", 1);
        });
    std::vector<::Test::JoiningThread> writers;
    for (int i = 0; i < 2; ++i)
        writers.emplace_back([&, i] {
            for (int n = 0; n < rounds; ++n) {
                dom->Set("shared.text",
                         std::string(static_cast<std::size_t>(n % 64), static_cast<char>('a' + (n + i) % 26)));
                dom->SetWx("shared.number", static_cast<std::int64_t>(n));
                dom->SetObject("shared.object", std::make_shared<CDomObject>());
                if (n % 3 == 0)
                    dom->Remove("shared.object");
            }
        });
    for (::Test::JoiningThread& writer : writers)
        writer.join();
    for (::Test::JoiningThread& other : others)
        other.Stop();
    EXPECT_EQ(wrong, 0);
    std::int64_t number = 0;
    EXPECT_TRUE(dom->Get("shared.number", number));
    EXPECT_EQ(number, rounds - 1);
}

TEST(DomThreads, BusyReadersDoNotKeepAWriterOut)
{
    const DomPtr dom = NewRoot();
    dom->Set("key", "value");
    std::vector<::Test::JoiningThread> readers;
    for (int i = 0; i < 8; ++i)
        readers.emplace_back([&](const std::atomic<bool>& stop) {
            std::string text;
            while (!stop)
                dom->Get("key", text);
        });
    for (int i = 0; i < 100; ++i)
        dom->SetWx("key", static_cast<std::int64_t>(i));
    for (::Test::JoiningThread& reader : readers)
        reader.Stop();
    EXPECT_EQ(dom->Get("key"), "99");
}

TEST(DomThreads, RootsComeAndGoWhileOthersLookForOne)
{
    ::Test::JoiningThread seeker([&](const std::atomic<bool>& stop) {
        while (!stop) {
            const RootDom root;
            if (root)
                root->Get("app.name");
        }
    });
    for (int i = 0; i < 500; ++i) {
        const DomPtr root = NewRoot();
        root->Set("app.name", "x");
    }
    seeker.Stop();
}
