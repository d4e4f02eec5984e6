#include "vex/apps/vex/vex.h"

#include "support/launcher_test.h"
#include "support/process_guards.h"

namespace {
struct Option
{
    bool isSwitch;
    const char* shortName;
    const char* longName;
    const char* help;
};

const Option allOptions[] = {
    {false, "a", "appname", "the name of this application (default is based on the name of the executable file)."},
    {true, "b", "background", "run as a Windows service or Unix daemon process."},
    {false, "c", "lua_cpath", "add the supplied value at the front of the search path for Lua C libraries."},
    {false, "d", "domain_var", "sets domain variable; name=value format."},
    {false, "e", "extdir", "extension folder. All *.vxe files from this folder are added to the Lua search path."},
    {true, "i", "install_plugins", "install all *.vxp files found in the same folder as the executable."},
    {false, "l", "lua_path", "add the supplied value at the front of the search path for Lua libraries."},
    {false, "p", "plugins", "comma delimited list of plugins to enable."},
    {false, "t", "trace", "enable tracing for the specified set of module names, separated by commas."},
    {false, "w", "workdir", "working directory where this instance's data files are stored."},
    {false, "u", "unittest", "runs the Lua script (possibly wildcarded) under LuaUnit."},
    {true, "U", "test", ""},
    {false, "z", "zippath", "list of ZIP archives of Lua code (possibly wildcarded), separated by semi-colons."},
};

class CommandLine : public LauncherTest
{
protected:
    CommandLine() { m_app->OnInitCmdLine(m_parser); }

    // 0: it parses; above: it does not; -1: help was asked for.
    int Parse(const std::vector<std::string>& options)
    {
        std::vector<wxString> texts = {"vx_agent"};
        for (const std::string& option : options)
            texts.push_back(wxString::FromUTF8(option));
        std::vector<wchar_t*> pointers;
        for (wxString& text : texts)
            pointers.push_back(const_cast<wchar_t*>(static_cast<const wchar_t*>(text.wc_str())));
        m_parser.SetCmdLine(static_cast<int>(pointers.size()), pointers.data());
        ::Test::StandardError standardError;
        const int result = m_parser.Parse(false);
        m_errors = standardError.Text();
        return result;
    }
    std::string Value(const char* name)
    {
        wxString value = "(not given)";
        m_parser.Found(name, &value);
        return value.utf8_string();
    }

    AgentApp m_app;
    wxCmdLineParser m_parser;
    std::string m_errors;
};

TEST_F(CommandLine, UsageListsTheTableInItsOrderWithTestUndescribed)
{
    const std::string usage = m_parser.GetUsageString().utf8_string();
    std::size_t at = 0;
    for (const Option& option : allOptions) {
        std::string name = std::string("-") + option.shortName + ", --" + option.longName;
        if (!option.isSwitch)
            name += "=<str>";
        const std::size_t found = usage.find(name, at);
        ASSERT_NE(found, std::string::npos) << name << " after " << usage.substr(at);
        const std::size_t lineEnd = usage.find('\n', found);
        std::string help = usage.substr(found + name.size(), lineEnd - found - name.size());
        help.erase(0, help.find_first_not_of(" \t") == std::string::npos ? help.size() : help.find_first_not_of(" \t"));
        // The framework breaks long lines: the beginning will do.
        EXPECT_EQ(help.empty(), option.help[0] == '\0') << name;
        EXPECT_EQ(help.substr(0, 20), std::string(option.help).substr(0, help.substr(0, 20).size())) << name;
        at = lineEnd;
    }
    EXPECT_NE(usage.find("[-- script-param [script-param ...]...]"), std::string::npos) << usage;
}

TEST_F(CommandLine, HelpTextsAreWhole)
{
    std::string usage = m_parser.GetUsageString().utf8_string();
    // Undo the breaking of lines.
    std::string flat;
    for (const char c : usage) {
        const bool blank = c == '\n' || c == ' ' || c == '\t';
        if (!blank)
            flat += c;
        else if (!flat.empty() && flat.back() != ' ')
            flat += ' ';
    }
    for (const Option& option : allOptions)
        EXPECT_NE(flat.find(option.help), std::string::npos) << option.help << "\n" << flat;
}

TEST_F(CommandLine, StandardSwitchesOfTheFrameworkComeFirst)
{
    const std::string usage = m_parser.GetUsageString().utf8_string();
    const std::size_t help = usage.find("--help");
    const std::size_t verbose = usage.find("--verbose");
    const std::size_t first = usage.find("--appname");
    ASSERT_NE(help, std::string::npos);
    ASSERT_NE(verbose, std::string::npos);
    EXPECT_LT(help, first);
    EXPECT_LT(verbose, first);
}

TEST_F(CommandLine, NothingAtAllParses)
{
    EXPECT_EQ(Parse({}), 0);
    for (const Option& option : allOptions)
        EXPECT_FALSE(m_parser.Found(option.longName)) << option.longName;
}

TEST_F(CommandLine, EachOptionTakesAValueByShortAndLongName)
{
    for (const Option& option : allOptions) {
        if (option.isSwitch)
            continue;
        const std::string brief = std::string("-") + option.shortName;
        const std::string full = std::string("--") + option.longName;
        for (const std::vector<std::string>& form : {std::vector<std::string>{brief, "v w"},
                                                     {brief + "v w"},
                                                     {brief + "=v w"},
                                                     {brief + ":v w"},
                                                     {full, "v w"},
                                                     {full + "=v w"}}) {
            EXPECT_EQ(Parse(form), 0) << form[0];
            EXPECT_EQ(Value(option.longName), "v w") << form[0];
        }
    }
}

TEST_F(CommandLine, EachSwitchIsFoundByShortAndLongName)
{
    for (const Option& option : allOptions) {
        if (!option.isSwitch)
            continue;
        EXPECT_EQ(Parse({std::string("-") + option.shortName}), 0);
        EXPECT_TRUE(m_parser.Found(option.longName));
        EXPECT_EQ(Parse({std::string("--") + option.longName}), 0);
        EXPECT_TRUE(m_parser.Found(option.longName));
        // Not negatable.
        EXPECT_GT(Parse({std::string("-") + option.shortName + "-"}), 0);
    }
}

TEST_F(CommandLine, SmallAndCapitalUAreDifferent)
{
    ASSERT_EQ(Parse({"-u", "script.lua"}), 0);
    EXPECT_EQ(Value("unittest"), "script.lua");
    EXPECT_FALSE(m_parser.Found("test"));
    ASSERT_EQ(Parse({"-U"}), 0);
    EXPECT_TRUE(m_parser.Found("test"));
    EXPECT_FALSE(m_parser.Found("unittest"));
}

TEST_F(CommandLine, LongTestTakesNoValue)
{
    EXPECT_GT(Parse({"--test=x"}), 0);
    ASSERT_EQ(Parse({"--test", "-b"}), 0);
    EXPECT_TRUE(m_parser.Found("background"));
}

TEST_F(CommandLine, BehindTheDoubleDashNothingIsAnOption)
{
    ASSERT_EQ(Parse({"-b", "--", "-x", "--unknown", "-a", "name", "--"}), 0);
    EXPECT_TRUE(m_parser.Found("background"));
    EXPECT_FALSE(m_parser.Found("appname"));
}

TEST_F(CommandLine, ScriptParametersMayStandWithoutTheDoubleDash)
{
    EXPECT_EQ(Parse({"one", "two"}), 0);
}

TEST_F(CommandLine, LastOfARepeatedOptionWins)
{
    ASSERT_EQ(Parse({"-a", "one", "--appname=two"}), 0);
    EXPECT_EQ(Value("appname"), "two");
}

TEST_F(CommandLine, AnOptionTakesWhateverFollowsIt)
{
    ASSERT_EQ(Parse({"-a", "--", "-b"}), 0);
    EXPECT_EQ(Value("appname"), "--");
    EXPECT_TRUE(m_parser.Found("background"));
}

TEST_F(CommandLine, UnknownOptionAndMissingValueAreErrors)
{
    EXPECT_GT(Parse({"--nonsense"}), 0);
    EXPECT_NE(m_errors.find("nonsense"), std::string::npos);
    EXPECT_GT(Parse({"-w"}), 0);
    EXPECT_FALSE(m_errors.empty());
    EXPECT_GT(Parse({"--workdir"}), 0);
    EXPECT_GT(Parse({"-q"}), 0);
}

TEST_F(CommandLine, HelpIsTheFrameworks)
{
    EXPECT_EQ(Parse({"--help"}), -1);
    EXPECT_EQ(Parse({"-h"}), -1);
}

TEST_F(CommandLine, AHundredThousandParametersParse)
{
    std::vector<std::string> many(100000, "x");
    many.insert(many.begin(), "--");
    EXPECT_EQ(Parse(many), 0);
    EXPECT_EQ(m_parser.GetParamCount(), 100000u);
}

} // namespace
