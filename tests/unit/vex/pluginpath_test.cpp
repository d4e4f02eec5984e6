#include "vex/apps/vex/pluginpath.h"

#include <gtest/gtest.h>

namespace {
struct Case
{
    const char* path;
    const char* plugins;
    const char* expanded;
};

std::ostream& operator<<(std::ostream& out, const Case& c)
{
    return out << '"' << c.path << "\" with \"" << c.plugins << '"';
}

class PathTemplate : public testing::TestWithParam<Case>
{};

TEST_P(PathTemplate, Expands)
{
    wxString path = GetParam().path;
    wxString plugins = GetParam().plugins;
    EXPECT_EQ(ExpandPathPlugins(path, plugins), GetParam().expanded);
    EXPECT_EQ(GetParam().path, path) << "the path was changed";
    EXPECT_EQ(plugins, GetParam().plugins) << "the plugins were changed";
}

INSTANTIATE_TEST_SUITE_P(Table, PathTemplate,
                         testing::Values(
                             // entries first, plugins second
                             Case{"a/@/?.lua;b/@.lua", "x,y", "a/x/?.lua;a/y/?.lua;b/x.lua;b/y.lua"},
                             // without plugins nothing is done
                             Case{"p/@;q;;", "", "p/@;q;;"}, Case{"", "", ""},
                             // without a path there is nothing to repeat
                             Case{"", "x,y", ""},
                             // every mark is replaced, and an entry without one is repeated
                             Case{"p/@", "x", "p/x"}, Case{"p/@/@", "x", "p/x/x"},
                             Case{"lib/?.so", "x,y,z", "lib/?.so;lib/?.so;lib/?.so"},
                             // empty names count, but for the one behind a separator at the end
                             Case{"p/@", "x,,y", "p/x;p/;p/y"}, Case{"p/@", "x,", "p/x"}, Case{"p/@", "x,,", "p/x;p/"},
                             Case{"p/@", ",", "p/"}, Case{"p/@", ",x", "p/;p/x"},
                             // a separator is only put behind something
                             Case{";p/@", "x", "p/x"}, Case{"@", ",x", "x"}, Case{";;@", "x", "x"},
                             Case{"a;;b", "x", "a;;b"}, Case{"a;", "x", "a"}, Case{"a;;", "x", "a;"},
                             // blanks stay, and a name is put in as it is
                             Case{" @ ;b", " x , y ", "  x  ;  y  ;b;b"}, Case{"@", "a@b", "a@b"},
                             Case{"@", "a;b", "a;b"}));

TEST(PathTemplate, KeepsLettersBeyondAscii)
{
    wxString path = wxString::FromUTF8("\xC3\xA9/@");
    wxString plugins = wxString::FromUTF8("\xE2\x82\xAC");
    EXPECT_EQ(ExpandPathPlugins(path, plugins), wxString::FromUTF8("\xC3\xA9/\xE2\x82\xAC"));
}

TEST(Splitting, DropsOneEmptyPieceAtTheEndAndNoOther)
{
    const auto split = [](const char* text) {
        wxString joined;
        for (const wxString& piece : SplitKeepingEmpty(text, ','))
            joined += "[" + piece + "]";
        return joined;
    };
    EXPECT_EQ(split(""), "");
    EXPECT_EQ(split(","), "[]");
    EXPECT_EQ(split("a"), "[a]");
    EXPECT_EQ(split("a,"), "[a]");
    EXPECT_EQ(split(",a"), "[][a]");
    EXPECT_EQ(split("a,,b,,"), "[a][][b][]");
}

} // namespace
