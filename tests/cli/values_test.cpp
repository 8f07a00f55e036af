#include "cli/values.h"

#include <gtest/gtest.h>

#include <sstream>

#include "cpuDefend_nm.h"

using namespace ctl;
using namespace cpudefend;

namespace
{

const Attribute &named(std::span<const Attribute> attributes, std::string_view name)
{
    return *findAttribute(attributes, name);
}

std::string shown(const Attribute &attribute, const Value &value)
{
    std::ostringstream out;
    write(out, Format::Text, Layout::Sheet, {{fieldOf(attribute, value)}});
    return out.str();
}

} // namespace

TEST(Values, EverySettableAttributeReadsBackItsOwnText)
{
    for (const auto attributes : {globalAttributes(), policyAttributes(), carPktAttributes(),
                                  ruleAttributes(), slotAttributes()})
        for (const Attribute &attribute : attributes)
            for (const Choice &choice : attribute.choices) {
                EXPECT_EQ(parseValue(attribute, choice.word), Value(choice.number));
                EXPECT_EQ(shown(attribute, choice.number),
                          std::string(attribute.name) + "  " + std::string(choice.word) + "\n");
            }
}

TEST(Values, OtherNumbersThanThoseOfTheWords)
{
    // Off is what is not 1, permitted what is not 1; a mode of neither kind is shown as it is.
    EXPECT_EQ(shown(named(policyAttributes(), "white-list"), 0u), "white-list  off\n");
    EXPECT_EQ(shown(named(carPktAttributes(), "action"), 0u), "action  permit\n");
    EXPECT_EQ(shown(named(carPktAttributes(), "mode"), 7u), "mode  7\n");
    EXPECT_EQ(shown(named(globalAttributes(), "mode"), 2u), "mode  fixed\n");
    // Of a rule, everything but 0 denies.
    EXPECT_EQ(shown(named(ruleAttributes(), "action"), 2u), "action  deny\n");
}

TEST(Values, APacketThatWasNotKeptIsNothing)
{
    const Attribute &data = named(sourceAttributes(), "data");
    EXPECT_EQ(shown(data, std::string(80, '\0')), "data  -\n");
    EXPECT_EQ(shown(data, std::string("\0\xff\x10", 3)), "data  00ff10\n");
    EXPECT_EQ(shown(named(sourceAttributes(), "destination"), std::string("\xc0\0\2\1", 4)),
              "destination  192.0.2.1\n");
    EXPECT_THROW(parseValue(data, "00"), BadValue);
}

TEST(Writer, WhatIsNotKnownIsADashAndNull)
{
    const std::vector<Record> records{{{"a", std::monostate(), "bytes"}}, {{"a", 20u, "bytes"}}};
    std::ostringstream sheet, table, json;
    write(sheet, Format::Text, Layout::Sheet, {records[0]});
    write(table, Format::Text, Layout::Table, records);
    write(json, Format::Json, Layout::Table, {records[0]});
    EXPECT_EQ(sheet.str(), "a  -\n");
    EXPECT_EQ(table.str(), "a (bytes)\n        -\n       20\n");
    EXPECT_EQ(json.str(), "[\n  {\n    \"a\": null\n  }\n]\n");
}

TEST(Writer, TextAndJsonCarryTheSameFields)
{
    const std::vector<Record> records{{{"a", 1u, "bytes"}, {"b", std::string("x")}},
                                      {{"a", 20u, "bytes"}, {"b", std::string()}}};
    std::ostringstream text, json;
    write(text, Format::Text, Layout::Table, records);
    write(json, Format::Json, Layout::Table, records);
    EXPECT_EQ(text.str(), "a (bytes)  b\n        1  x\n       20  -\n");
    EXPECT_EQ(json.str(), "[\n  {\n    \"a\": 1,\n    \"b\": \"x\"\n  },\n"
                          "  {\n    \"a\": 20,\n    \"b\": \"\"\n  }\n]\n");
}
