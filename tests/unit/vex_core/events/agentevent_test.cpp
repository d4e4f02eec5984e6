#include "vex/core/agentevent.h"
#include "vex_core/events/xml_text.h"

#include "support/sample_event.h"

#include <climits>

#include <gtest/gtest.h>

#include <pugixml.hpp>

using namespace VexCore;

namespace {
std::string TextOf(const std::string& xml)
{
    pugi::xml_document document;
    EXPECT_TRUE(document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8)) << xml;
    return document.child("agent_event").attribute("text").as_string();
}

} // namespace

TEST(AgentEvent, SeverityIsTheSyslogNumberClamped)
{
    for (int level = 0; level <= 7; ++level)
        EXPECT_EQ(CAgentEvent::ToSeverity(level), level);
    EXPECT_EQ(CAgentEvent::ToSeverity(-1), 0);
    EXPECT_EQ(CAgentEvent::ToSeverity(8), 7);
    EXPECT_EQ(CAgentEvent::ToSeverity(INT_MIN), 0);
    EXPECT_EQ(CAgentEvent::ToSeverity(INT_MAX), 7);
}

TEST(AgentEvent, FieldsAreAbsentUntilMarkedPresent)
{
    CAgentEvent event;
    event.m_text = "set, not marked";
    event.m_number = 5101;
    EXPECT_EQ(event.ToXml(), "<agent_event/>");
    event.SetAttributeNull(CAgentEvent::FieldNumber, false);
    EXPECT_EQ(event.ToXml(), "<agent_event number=\"5101\"/>");
    event.SetAttributeNull(CAgentEvent::FieldNumber, true);
    EXPECT_EQ(event.ToXml(), "<agent_event/>");
}

TEST(AgentEvent, AllFieldsInOneElement)
{
    CAgentEvent event = ::Test::SampleEvent("net|1.2|notes");
    EXPECT_EQ(event.ToXml(),
              "<agent_event time_ms=\"1700000000123\" time_s=\"1700000000\" number=\"5101\" severity=\"5\""
              " text=\"net|1.2|notes\"/>");
}

TEST(AgentEvent, FieldsOutOfRangeAreIgnored)
{
    CAgentEvent event;
    for (const int field : {-1, 32, 33, INT_MIN, INT_MAX}) {
        event.SetAttributeNull(field, false);
        EXPECT_TRUE(event.IsAttributeNull(field));
    }
    EXPECT_EQ(event.ToXml(), "<agent_event/>");
}

TEST(AgentEvent, AnyTextSurvivesAParser)
{
    for (const char* text :
         {"", "<&>\"'", "]]>", "a\tb\nc\rd\r\ne", " blanks ", "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x99\x82", "&amp;"}) {
        const CAgentEvent event = ::Test::SampleEvent(text);
        EXPECT_EQ(TextOf(event.ToXml()), text) << event.ToXml();
        EXPECT_EQ(event.ToXml().find('\n'), std::string::npos) << "one line";
    }
}

TEST(AgentEvent, WhatXmlCannotHoldBecomesTheReplacementCharacter)
{
    const std::string r = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> cases[] = {
        {std::string("a\0b", 3), "a" + r + "b"},
        {"\x01\x1F", r + r},
        {"\x7F", "\x7F"},
        {"\xFF\xFE", r + r},
        {"\xC3", r},
        {"\xC3(", r + "("},
        {"\xE2\x82", r + r},
        {"\xC0\xAF", r + r},
        {"\xE0\x80\xAF", r + r + r},
        {"\xED\xA0\x80", r + r + r},
        {"\xEF\xBF\xBE", r + r + r},
        {"\xEF\xBF\xBF", r + r + r},
        {"\xEF\xBF\xBC", "\xEF\xBF\xBC"},
        {"\xF4\x8F\xBF\xBD", "\xF4\x8F\xBF\xBD"},
        {"\xF4\x90\x80\x80", r + r + r + r},
        {"\xF8\x88\x80\x80\x80", r + r + r + r + r},
    };
    for (const auto& item : cases)
        EXPECT_EQ(ToXmlText(item.first), item.second);
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    CAgentEvent event = ::Test::SampleEvent(all);
    EXPECT_EQ(TextOf(event.ToXml()), ToXmlText(all));
}
