// The API of traced sources: reading one, the filtered walk, the console.
#include <functional>

#include "nm_test.h"

using namespace cpudefend;

static constexpr int32_t badIndex = 22, noEntry = 0x03E80002;

struct TracedKey {
    uint32_t ifUnit;
    uint8_t srcIp[4];
    uint8_t pktType;
    uint8_t srcMac[6];
};

static constexpr TracedKey arp7{7, {10, 0, 0, 1}, 1, {2, 0, 0, 0, 0, 1}};
static constexpr TracedKey telnet7{7, {10, 0, 0, 1}, 11, {2, 0, 0, 0, 0, 1}};
static constexpr TracedKey arpOther7{7, {10, 0, 0, 2}, 1, {2, 0, 0, 0, 0, 2}};
static constexpr TracedKey dot1x8{8, {10, 0, 0, 1}, 0, {2, 0, 0, 0, 0, 1}};
static constexpr TracedKey arp9{9, {10, 0, 0, 1}, 1, {2, 0, 0, 0, 0, 3}};

static tcpuDefendSrcTraceIdx sourceIdx(const TracedKey &source, uint8_t searchBit = 0)
{
    tcpuDefendSrcTraceIdx idx{};
    idx.ifUnit = source.ifUnit;
    memcpy(idx.srcIp, source.srcIp, sizeof idx.srcIp);
    idx.pktType = source.pktType;
    memcpy(idx.srcMac, source.srcMac, sizeof idx.srcMac);
    idx.searchBit = searchBit;
    return idx;
}

static tCpuDefendSrcTraceEntry *addSource(const TracedKey &source)
{
    return cpuDefendSrcTraceEntryAdd(source.ifUnit, source.srcIp, source.pktType, source.srcMac);
}

class SrcTraceApi : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        entry = addSource(arp7);
        entry->outerVlan = 0xF123;
        entry->innerVlan = 0x8045;
        entry->totalNum = 0x89ABCDEF;
        entry->sysId = 3;
        entry->slotId = 200;
        for (uint8_t i = 0; i < 4; i++)
            entry->dstIp[i] = static_cast<uint8_t>(0xC0 + i);
        for (uint8_t i = 0; i < 80; i++)
            entry->pktData[i] = static_cast<uint8_t>('0' + i % 10);
    }

    static Answer<uint32_t> get(const tcpuDefendSrcTraceIdx &at, uint32_t cmd)
    {
        tcpuDefendSrcTraceIdx idx = at;
        Cell value(untouched);
        const int32_t code = cpuDefendSrcTraceGetApi(&idx, cmd, &value);
        return {code, value.number()};
    }

    static Answer<std::string> get(const TracedKey &source, uint32_t cmd, uint32_t room)
    {
        tcpuDefendSrcTraceIdx idx = sourceIdx(source);
        Cell value = Cell::room(room);
        const int32_t code = cpuDefendSrcTraceGetApi(&idx, cmd, &value);
        return {code, value.text()};
    }

    /** One more of each of the sources above. */
    static void addAll()
    {
        for (const TracedKey &source : {arp9, dot1x8, arpOther7, telnet7})
            addSource(source);
    }

    tCpuDefendSrcTraceEntry *entry;
};

/* ---- Get ------------------------------------------------------------------------------ */

TEST_F(SrcTraceApi, DestinationIsFourBytesWhateverWasAskedFor)
{
    for (uint32_t room : {4u, 10u, 80u}) {
        tcpuDefendSrcTraceIdx idx = sourceIdx(arp7);
        Cell value = Cell::room(room);
        EXPECT_EQ(cpuDefendSrcTraceGetApi(&idx, CPUDEFEND_SRCTRACE_DSTIP, &value), 0);
        EXPECT_EQ(value.text(), "\xC0\xC1\xC2\xC3");
    }
    tcpuDefendSrcTraceIdx idx = sourceIdx(arp7);
    Cell value = Cell::room(8);
    (&value)->len = 0;
    EXPECT_EQ(cpuDefendSrcTraceGetApi(&idx, CPUDEFEND_SRCTRACE_DSTIP, &value), 0);
    EXPECT_EQ(value.text(), "\xC0\xC1\xC2\xC3");
}

TEST_F(SrcTraceApi, PacketDataIsReadUpToTheRoomGivenAnd80)
{
    const std::string data(reinterpret_cast<const char *>(entry->pktData), 80);
    for (uint32_t room : {0u, 10u, 79u, 80u})
        EXPECT_EQ(get(arp7, CPUDEFEND_SRCTRACE_PTKDATA, room),
                  (Answer<std::string>{0, data.substr(0, room)}));
    for (uint32_t room : {81u, 200u})
        EXPECT_EQ(get(arp7, CPUDEFEND_SRCTRACE_PTKDATA, room), (Answer<std::string>{0, data}));
}

TEST_F(SrcTraceApi, AnyOtherKeyIsNoSuchEntry)
{
    tcpuDefendSrcTraceIdx others[4];
    for (tcpuDefendSrcTraceIdx &idx : others)
        idx = sourceIdx(arp7);
    others[0].ifUnit++;
    others[1].srcIp[3]++;
    others[2].pktType++;
    others[3].srcMac[5]++;
    for (const tcpuDefendSrcTraceIdx &idx : others)
        for (uint32_t cmd : {0u, 1u, 4u, 5u})
            EXPECT_EQ(get(idx, cmd), (Answer<uint32_t>{noEntry, untouched}));
}

TEST_F(SrcTraceApi, Interface0OrType0Is22WithoutLooking)
{
    TracedKey unit0 = arp7;
    unit0.ifUnit = 0;
    addSource(unit0);
    addSource(dot1x8); // both are there
    seam::semTakes = 0;
    for (const TracedKey &source : {unit0, dot1x8})
        for (uint32_t cmd : {0u, 1u, 4u, 5u})
            EXPECT_EQ(get(sourceIdx(source), cmd), (Answer<uint32_t>{badIndex, untouched}));
    EXPECT_EQ(seam::semTakes, 0);
}

TEST_F(SrcTraceApi, NullArgumentsAre22)
{
    tcpuDefendSrcTraceIdx idx = sourceIdx(arp7);
    Cell value(untouched);
    EXPECT_EQ(cpuDefendSrcTraceGetApi(nullptr, 0, &value), badIndex);
    EXPECT_EQ(cpuDefendSrcTraceGetApi(&idx, 0, nullptr), badIndex);
    EXPECT_EQ(cpuDefendSrcTraceGetFirst(nullptr), badIndex);
    EXPECT_EQ(cpuDefendSrcTraceGetNext(nullptr, &idx), badIndex);
    EXPECT_EQ(cpuDefendSrcTraceGetNext(&idx, nullptr), badIndex);
    EXPECT_EQ(seam::semTakes, 0);
}

/* ---- Walk ----------------------------------------------------------------------------- */

static std::string keyOf(const tcpuDefendSrcTraceIdx &idx)
{
    return std::to_string(idx.ifUnit) + "." + std::to_string(idx.srcIp[3]) + " type " +
           std::to_string(idx.pktType) + " mac " + std::to_string(idx.srcMac[5]);
}

/** A walk with the filter of @a from, the fields of which stand throughout. */
static std::vector<std::string> walk(tcpuDefendSrcTraceIdx from)
{
    std::vector<std::string> visited;
    const uint8_t filter = from.searchBit;
    int32_t code = cpuDefendSrcTraceGetFirst(&from);
    while (code == 0 && visited.size() < 100) {
        EXPECT_EQ(from.searchBit, filter);
        visited.push_back(keyOf(from));
        code = cpuDefendSrcTraceGetNext(&from, &from);
    }
    EXPECT_EQ(code, noEntry);
    return visited;
}

using Visited = std::vector<std::string>;

TEST_F(SrcTraceApi, WalkVisitsAllInKeyOrder)
{
    addAll();
    const Visited all{"7.1 type 1 mac 1", "7.1 type 11 mac 1", "7.2 type 1 mac 2",
                      "8.1 type 0 mac 1", "9.1 type 1 mac 3"};
    EXPECT_EQ(walk({}), all);
    EXPECT_EQ(walk(sourceIdx(arp9, 0)), all);    // the fields do not count
    EXPECT_EQ(walk(sourceIdx(arp9, 0x0F)), all); // nor do the low four bits
}

TEST_F(SrcTraceApi, FilterByTypeVisitsOnlyThatType)
{
    addAll();
    tcpuDefendSrcTraceIdx idx{};
    idx.searchBit = 0x20;
    idx.pktType = CPUDEFEND_PKTTYPE_ARP;
    EXPECT_EQ(walk(idx), (Visited{"7.1 type 1 mac 1", "7.2 type 1 mac 2", "9.1 type 1 mac 3"}));
    idx.pktType = 0;
    EXPECT_EQ(walk(idx), Visited{"8.1 type 0 mac 1"});
    idx.pktType = 58;
    EXPECT_EQ(walk(idx), Visited{});
}

TEST_F(SrcTraceApi, EveryFilterBitHoldsItsField)
{
    addAll();
    EXPECT_EQ(walk(sourceIdx(telnet7, 0x80)),
              (Visited{"7.1 type 1 mac 1", "7.1 type 11 mac 1", "7.2 type 1 mac 2"}));
    EXPECT_EQ(walk(sourceIdx(arpOther7, 0x40)), Visited{"7.2 type 1 mac 2"});
    EXPECT_EQ(walk(sourceIdx(telnet7, 0x20)), Visited{"7.1 type 11 mac 1"});
    EXPECT_EQ(walk(sourceIdx(dot1x8, 0x10)),
              (Visited{"7.1 type 1 mac 1", "7.1 type 11 mac 1", "8.1 type 0 mac 1"}));
    EXPECT_EQ(walk(sourceIdx(arp9, 0xF0)), Visited{"9.1 type 1 mac 3"});
    EXPECT_EQ(walk(sourceIdx(arp9, 0xFF)), Visited{"9.1 type 1 mac 3"});
    EXPECT_EQ(walk(sourceIdx(arp7, 0xA0)), (Visited{"7.1 type 1 mac 1", "7.2 type 1 mac 2"}));
}

TEST_F(SrcTraceApi, NextOfADeletedKeyIsTheNextLarger)
{
    addAll();
    tcpuDefendSrcTraceIdx idx = sourceIdx(telnet7), after{};
    cpuDefendSrcTraceEntryDel(addSource(telnet7)); // Add finds the one there is
    EXPECT_EQ(cpuDefendSrcTraceGetNext(&idx, &after), 0);
    EXPECT_EQ(keyOf(after), "7.2 type 1 mac 2");
    idx = sourceIdx(arp9);
    cpuDefendSrcTraceEntryDel(addSource(arp9));
    EXPECT_EQ(cpuDefendSrcTraceGetNext(&idx, &after), noEntry);
}

TEST_F(SrcTraceApi, EndOfTheWalkWritesNothing)
{
    tcpuDefendSrcTraceIdx idx = sourceIdx(arp7, 0x80), after = sourceIdx(arp9, 3);
    const std::string before = image(after);
    EXPECT_EQ(cpuDefendSrcTraceGetNext(&idx, &after), noEntry);
    EXPECT_EQ(image(after), before);
    EXPECT_EQ(keyOf(idx), keyOf(sourceIdx(arp7)));
}

TEST_F(SrcTraceApi, FirstOfAnEmptyTableLeavesTheIndex)
{
    cpuDefendSrcTraceEntryDel(entry);
    tcpuDefendSrcTraceIdx idx = sourceIdx(arp9, 0x31);
    const std::string before = image(idx);
    EXPECT_EQ(cpuDefendSrcTraceGetFirst(&idx), noEntry);
    EXPECT_EQ(image(idx), before);
    EXPECT_EQ(cpuDefendSrcTraceGetNext(&idx, &idx), noEntry);
    EXPECT_EQ(image(idx), before);
}

/* ---- Console -------------------------------------------------------------------------- */

static const char stars[] = "**************************************\r\n";

TEST_F(SrcTraceApi, ShowPrintsTheThirdAddressByteTwiceAndNoLineEnd)
{
    cpuDefendSrcTraceEntryDel(entry);
    const TracedKey source{
        70000, {0x0A, 0x0B, 0x0C, 0x0D}, 11, {0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02}};
    entry = addSource(source);
    for (uint8_t i = 0; i < 4; i++)
        entry->dstIp[i] = static_cast<uint8_t>(0xF1 + i);
    entry->sysId = 3;
    entry->slotId = 200;
    int32_t result = -1;
    EXPECT_EQ(output([&] { result = cpuDefendSrcTraceShow(); }),
              std::string(stars) +
                  "ifUnit=70000,srcIp=0a.0c.0c.0d,dstIp=f1.f2.f3.f4,pktType=11,sysId=3,"
                  "slotId=200,srcMac=de:ad:be:ef::01::02");
    EXPECT_EQ(result, 0);
}

TEST_F(SrcTraceApi, Show2PrintsTheFailingCallsLineToo)
{
    addSource(telnet7);
    addSource(dot1x8);
    int32_t result = -1;
    EXPECT_EQ(output([&] { result = cpuDefendSrcTraceShow2(); }),
              "111.ret=0,ifUnit=7,pktType=1.\r\n"
              "222.ret=0,ifUnit=7,pktType=11.\r\n"
              "222.ret=0,ifUnit=8,pktType=0.\r\n"
              "222.ret=65536002,ifUnit=8,pktType=0.\r\n");
    EXPECT_EQ(result, 0);
}
