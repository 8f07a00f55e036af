/**
 * The documents' lists of packet types are the one that the code expands.
 */
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "client/tables.h"
#include "cpuDefend_nm.h"

namespace
{

struct Type {
    uint32_t number;
    std::string name;
    bool frames;

    bool operator==(const Type &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Type &type)
{
    return out << type.number << ' ' << type.name << (type.frames ? "" : " no frame");
}

std::string textOf(const char *path)
{
    std::ifstream document(path);
    std::stringstream text;
    text << document.rdbuf();
    return text.str();
}

std::vector<std::string> matchesOf(const std::string &text, const char *pattern)
{
    const std::regex regex(pattern);
    std::vector<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at)
        found.push_back(at->str(1));
    return found;
}

/** Rows of the table: | number | `NAME` | what a frame must have, or "no frame" | source | */
std::vector<Type> typesOfTheTable(const std::string &text)
{
    std::vector<Type> types;
    for (const std::string &row : matchesOf(text, R"(\n(\| [0-9]+ \| `[^\n]*))")) {
        std::smatch cells;
        EXPECT_TRUE(
            std::regex_search(row, cells, std::regex(R"(^\| ([0-9]+) \| `(\w+)` \| (no frame)?)")))
            << row;
        types.push_back({static_cast<uint32_t>(std::stoul(cells[1])), cells[2], !cells[3].matched});
    }
    return types;
}

/** Types that a frame can be of. */
std::vector<Type> typesOfTheList()
{
    return {
#define TYPE(number, name, word, frames) {number, #name, frames != 0},
        ZYN_PKT_TYPES(TYPE)
#undef TYPE
    };
}

} // namespace

TEST(PacketTypesDocument, ItsTableIsTheListButForAllTypesTogether)
{
    std::vector<Type> types = typesOfTheList();
    EXPECT_EQ(std::erase(types, Type{CPUDEFEND_PKTTYPE_TOTALPKT, "TOTALPKT", false}), 1u);
    EXPECT_EQ(typesOfTheTable(textOf(CPUDEFEND_PACKET_TYPES_DOC)), types);
}

TEST(PacketTypesDocument, ItSaysWhichEntriesAreRefused)
{
    const std::string text = textOf(CPUDEFEND_PACKET_TYPES_DOC);
    const auto sentence = matchesOf(text, R"(of which no frame is \(([0-9, and\n]+)\) is refused)");
    ASSERT_EQ(sentence.size(), 1u);
    std::vector<std::string> without;
    for (const Type &type : typesOfTheList())
        if (!type.frames && type.number != CPUDEFEND_PKTTYPE_TOTALPKT)
            without.push_back(std::to_string(type.number));
    EXPECT_EQ(matchesOf(sentence.front(), "([0-9]+)"), without);
}

TEST(PacketTypesDocument, TheCommandsDocumentNamesTheFirstTen)
{
    const std::string text = textOf(CPUDEFEND_COMMANDS_DOC);
    const auto sentence = matchesOf(text, R"(limits for the first ten types: ([^.]*)\.)");
    ASSERT_EQ(sentence.size(), 1u);
    const auto names = cpudefend::pktTypeNames().first(10);
    EXPECT_EQ(matchesOf(sentence.front(), "`(\\w+)`"),
              std::vector<std::string>(names.begin(), names.end()));
}
