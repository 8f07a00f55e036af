/**
 * Every line of the journal read by a JSON parser.
 */
#include <nlohmann/json.hpp>

#include "journal_fixture.h"

using nlohmann::json;

TEST_F(Journal, EveryCallIsAnObjectWithTheCommonMembers)
{
    tPhyIfInfo info;
    uint32_t value = 0;
    std::string name = "guard";
    octetstring octets = octetsOf(name);
    carAdd(&slotA, car(1, 200));
    carAdd(system, car(1, 200));
    acl_cpudefend_add(system, 2000, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
    acl_cpudefend_del(&slotA, 2000, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
    zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr);
    zynHwCpuGet(0, HW_CPU_USED, &value);
    zynHwScalarSync(0, 8000, &octets, 3 | ZYN_SYNC_OCTETS);
    zynHwSlotSync(&slotA, 8001, &octets, 3 | ZYN_SYNC_OCTETS);
    sysIndexTrans(1, SYS_INDEX_TRANS_PHY, &info);

    const std::vector<std::string> calls = {
        "zynHwSlotSet",      "zynScalarSetApi", "acl_cpudefend_add",
        "acl_cpudefend_del", "zynHwScalarGet",  "zynHwCpuGet",
        "zynHwScalarSync",   "zynHwSlotSync",   "sysIndexTrans"};
    ASSERT_EQ(lines().size(), calls.size());
    for (size_t i = 0; i < calls.size(); i++) {
        json line = json::parse(lines()[i]);
        EXPECT_EQ(line.at("seq"), i + 1);
        EXPECT_DOUBLE_EQ(line.at("uptime").get<double>(), 12.34);
        EXPECT_EQ(line.at("call"), calls[i]);
        EXPECT_EQ(line.at("result"), calls[i] == "acl_cpudefend_del" ? ENOENT : 0);
    }
}

TEST_F(Journal, NumbersKeepAllTheirBits)
{
    const tSlotIndex slot = {0xffffffff, 0xfffffffe, 0};
    tHwCpuDefendPktCarEntry entry = {58, 0xfffffffd, 0xfffffffc, 0xfffffffb, 255, 254,
                                     3,  0xfd,       {},         {},         {},  {}};
    ASSERT_EQ(carAdd(&slot, entry), 0);
    json line = json::parse(last());
    EXPECT_EQ(line["slot"], json({{"sys", 0xffffffff}, {"slot", 0xfffffffe}, {"type", 0}}));
    EXPECT_EQ(line["entry"], json({{"pktType", 58},
                                   {"cir", 0xfffffffd},
                                   {"cbs", 0xfffffffc},
                                   {"pps", 0xfffffffb},
                                   {"queue", 255},
                                   {"priority", 254},
                                   {"op", 3},
                                   {"bit", 0xfd}}));
}

TEST_F(Journal, EveryByteOfAStringIsReadBack)
{
    std::string bytes;
    for (int byte = 0; byte < 256; byte++)
        bytes += static_cast<char>(byte);
    octetstring octets = octetsOf(bytes);
    zynHwScalarSync(0, 8000, &octets, 3 | ZYN_SYNC_OCTETS);
    for (char c : last())
        ASSERT_TRUE(c >= 0x20 && c < 0x7f); // plain ASCII, whatever the name holds

    std::string expected; // the code point of each byte, in UTF-8
    for (int byte = 0; byte < 256; byte++) {
        if (byte < 0x80) {
            expected += static_cast<char>(byte);
        } else {
            expected += static_cast<char>(0xc0 | byte >> 6);
            expected += static_cast<char>(0x80 | (byte & 0x3f));
        }
    }
    EXPECT_EQ(json::parse(last()).at("value").get<std::string>(), expected);
}

TEST_F(Journal, ReplayedIntoAnEmptyLayerGivesTheSameState)
{
    carAdd(system, car(1, 100));
    carAdd(&slotA, car(1, 200));
    carAdd(&slotA, car(1, 300));
    carDel(&slotA, car(1, 300));
    carDel(&slotA, car(2, 300)); // not there
    std::vector<std::string> told = lines();
    journalClose();
    zynMemoryReset();

    for (const std::string &text : told) {
        json line = json::parse(text);
        const json &e = line["entry"];
        tHwCpuDefendPktCarEntry entry = {};
        entry.pktType = e["pktType"];
        entry.cir = e["cir"];
        entry.cbs = e["cbs"];
        entry.pps = e["pps"];
        entry.queue = e["queue"];
        entry.priority = e["priority"];
        entry.op = e["op"];
        entry.res = e["bit"];
        bool onSlot = !line["slot"].is_null();
        tSlotIndex slot = {};
        if (onSlot)
            slot = {line["slot"]["sys"], line["slot"]["slot"], line["slot"]["type"]};
        std::string cmd = onSlot ? line["cmd"] : line["func"]["hwCmd"];
        bool add = cmd.substr(cmd.size() - 3) == "ADD";
        EXPECT_EQ(carSet(onSlot ? &slot : nullptr, add, entry), line["result"]) << text;
    }
    EXPECT_EQ(ppsInForce(system, 1), 100);
    EXPECT_EQ(ppsInForce(&slotA, 1), 200);
    EXPECT_EQ(zynMemoryCarCount(&slotA), 1u);
}
