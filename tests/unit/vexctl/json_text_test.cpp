#include "vex/apps/vexctl/json_text.h"

#include <gtest/gtest.h>

using namespace Vexctl;

namespace {
std::string Added(std::string_view text)
{
    std::string json = "[";
    AddJsonString(json, text);
    return json.substr(1);
}

} // namespace

TEST(JsonText, EscapesWhatATerminalWouldObey)
{
    EXPECT_EQ(JsonText(Json("plain ~")), "\"plain ~\"");
    EXPECT_EQ(JsonText(Json("a\x1b[31m\n\x7f")), "\"a\\u001b[31m\\n\\u007f\"");
    EXPECT_EQ(JsonText(Json("\xc2\x85 \xe2\x80\xa8 \xe2\x80\xa9")), "\"\\u0085 \\u2028 \\u2029\"");
    EXPECT_EQ(JsonText(Json("\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80")), "\"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80\"");
    EXPECT_EQ(JsonText(Json("\xff.")), "\"\xef\xbf\xbd.\"");
    EXPECT_EQ(JsonText(Json{{"a", 1}}, 2), "{\n  \"a\": 1\n}");
}

TEST(JsonText, OfOneStringIsTheSameWithoutAnObject)
{
    EXPECT_EQ(Added(""), "\"\"");
    EXPECT_EQ(Added("plain ~"), "\"plain ~\"");
    EXPECT_EQ(Added("say \"no\""), "\"say \\\"no\\\"\"");
    EXPECT_EQ(Added("C:\\x"), "\"C:\\\\x\"");
    for (int byte = 0; byte < 256; ++byte)
        for (const std::string& text :
             {std::string(1, static_cast<char>(byte)), "ab" + std::string(2, static_cast<char>(byte)) + "c"})
            EXPECT_EQ(Added(text), JsonText(Json(text))) << byte;
}
