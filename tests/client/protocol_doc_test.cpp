/**
 * The dumps of docs/protocol.md are what the library sends and what the daemon answers.
 */
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

#include "client/requests.h"
#include "cpuDefend_nm.h"
#include "daemon_process.h"

using namespace cpudefend;

namespace
{

constexpr std::size_t kOffsetColumns = 6;

struct Exchange {
    std::string name;
    Bytes request; // frames, their length included
    Bytes reply;
};

/** Read a dump's line: the offset of its first byte in the body, bytes, a comment behind ";". */
void appendLine(const std::string &line, Bytes *frameBytes)
{
    const std::string offset = line.substr(0, line.find(' '));
    if (!offset.empty()) {
        EXPECT_EQ(std::stoul(offset, nullptr, 16), frameBytes->size() - kFrameHeader) << line;
    }
    std::istringstream bytes(line.substr(kOffsetColumns, line.find(';') - kOffsetColumns));
    for (std::string byte; bytes >> byte;)
        frameBytes->push_back(static_cast<uint8_t>(std::stoul(byte, nullptr, 16)));
}

/** The document's exchanges, in its order. */
std::vector<Exchange> exchangesOfTheDocument()
{
    std::vector<Exchange> exchanges;
    std::ifstream document(CPUDEFEND_PROTOCOL_DOC);
    Bytes *open = nullptr;
    for (std::string line; std::getline(document, line);) {
        std::istringstream words(line);
        std::string fence, kind, name;
        words >> fence >> kind >> name;
        if (fence == "```hex") {
            if (kind == "request")
                exchanges.push_back({name, {}, {}});
            EXPECT_EQ(exchanges.back().name, name);
            open = kind == "request" ? &exchanges.back().request : &exchanges.back().reply;
        } else if (fence == "```") {
            open = nullptr;
        } else if (open) {
            appendLine(line, open);
        }
    }
    return exchanges;
}

template <class Index>
Request request(uint32_t id, uint32_t function, const Index &index, uint32_t command, Item value,
                std::vector<ItemType> answer)
{
    Request made = requestFor(function, index);
    made.id = id;
    made.command = command;
    made.value = std::move(value);
    made.answer = std::move(answer);
    return made;
}

/** What the library would send for each exchange. */
std::map<std::string, Request> requestsOfTheLibrary()
{
    const std::vector<ItemType> nothing;
    const std::vector<ItemType> number{ItemType::Number};
    constexpr SourceIndex kArpSources{0, {}, CPUDEFEND_PKTTYPE_ARP, {}, 0x20};
    const std::vector<ItemType> source{ItemType::Number, ItemType::Octets, ItemType::Octets,
                                       ItemType::Octets, ItemType::Octets};
    const std::vector<ItemType> policy{ItemType::Number, ItemType::Octets};
    return {
        {"get", request(1, CPUDEFEND_CARPKT_GETAPI, CarPktIndex{"default", CPUDEFEND_PKTTYPE_ARP},
                        CPUDEFEND_CARPKT_PPS, 0u, number)},
        {"set", request(2, CPUDEFEND_POLICY_SETAPI, PolicyIndex{"edge"},
                        CPUDEFEND_POLICY_ENTRYSTATUS, 2u, nothing)},
        {"first", request(3, CPUDEFEND_POLICY_GETFIRST, PolicyIndex{""}, 0, 0u, policy)},
        {"next", request(4, CPUDEFEND_POLICY_GETNEXT, PolicyIndex{"default"}, 0, 0u, policy)},
        {"end", request(5, CPUDEFEND_POLICY_GETNEXT, PolicyIndex{"edge"}, 0, 0u, policy)},
        {"cut", request(6, CPUDEFEND_POLICY_GETFIRST, PolicyIndex{""}, 0, 0u, nothing)},
        {"unknown", request(7, CPUDEFEND_POLICY_GETAPI, PolicyIndex{"core"},
                            CPUDEFEND_POLICY_REFCOUNT, 0u, number)},
        {"sources", request(9, CPUDEFEND_SRCTRACE_GETFIRST, kArpSources, 0, 0u, source)},
        {"noslot", request(10, CPUDEFEND_SLOT_GETAPI, SlotIndex{1, 5}, CPUDEFEND_SLOT_POLICYMODE,
                           0u, number)},
        {"rule", request(11, CPUDEFEND_USERDEFINED_SETAPI, RuleIndex{"edge", 3},
                         CPUDEFEND_USERDEFINED_ENTRYSTATUS, 2u, nothing)},
        {"malformed", request(8, CPUDEFEND_FUNC_MAX + 1, GlobalIndex{}, 0, 0u, nothing)},
    };
}

} // namespace

TEST(ProtocolDocument, ItsRequestsAreThoseOfTheLibrary)
{
    const auto requests = requestsOfTheLibrary();
    const auto exchanges = exchangesOfTheDocument();
    EXPECT_EQ(exchanges.size(), requests.size());
    for (const Exchange &exchange : exchanges) {
        ASSERT_TRUE(requests.contains(exchange.name)) << exchange.name;
        EXPECT_EQ(exchange.request, frame(encode(requests.at(exchange.name)))) << exchange.name;
    }
}

TEST(ProtocolDocument, ItsRepliesAreThoseOfTheDaemon)
{
    DaemonProcess daemon;
    const auto exchanges = exchangesOfTheDocument();
    ASSERT_FALSE(exchanges.empty());
    for (const Exchange &exchange : exchanges) {
        const Bytes body(exchange.request.begin() + kFrameHeader, exchange.request.end());
        EXPECT_EQ(exchange.reply, frame(Channel().exchange(body))) << exchange.name;
    }
}

TEST(ProtocolDocument, ItListsEveryReturnCode)
{
    std::ifstream document(CPUDEFEND_PROTOCOL_DOC);
    std::stringstream text;
    text << document.rdbuf();
    for (const CodeText &known : codeTexts()) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "| 0x%08X |", static_cast<unsigned>(known.code));
        const std::string decimal = "| " + std::to_string(known.code) + " |";
        EXPECT_TRUE(text.str().find(hex) != std::string::npos ||
                    text.str().find(decimal) != std::string::npos)
            << known.code;
    }
}
