// Numbers and layouts that others go by: function codes on the wire, packet types, records.
#include <ostream>

#include "channel/request.h"
#include "core_test.h"

/* ---- Function codes ------------------------------------------------------------------- */

/** Of each table: who makes the change, and how that shows. */
struct SetOrSync {
    uint32_t code;
    const char *table;
    uint32_t flag; /**< handed to the synchronisation: 3 for a local change, 1 for a replayed one */
};

static void PrintTo(const SetOrSync &row, std::ostream *out)
{
    *out << row.table << " code " << row.code;
}

class FunctionCode : public CoreTest, public testing::WithParamInterface<SetOrSync>
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        ASSERT_NE(addRule("default", 1), nullptr);
        ASSERT_NE(cpuDefendSlotEntryAdd(1, 2), nullptr);
        scripted::reset();
    }

    /** Hand a set of attribute @a attr to a new number to the dispatcher. */
    static void request(uint32_t code, uint32_t attr)
    {
        channel::Bytes body =
            channel::request(code, attr, channel::anyIndex(code), channel::number(77));
        ASSERT_EQ(cpudefendCmdProcess(body.data(), static_cast<uint32_t>(body.size())),
                  body.size());
        EXPECT_EQ(
            channel::Bytes(body.begin() + channel::CODE_AT, body.begin() + channel::CODE_AT + 4),
            channel::Bytes(4, 0));
    }

    /** Who was synchronised with which flag: "policy 3". */
    static std::string synchronised()
    {
        std::string text;
        for (const scripted::Record &call : scripted::calls)
            if (call.call == scripted::Call::ScalarSync || call.call == scripted::Call::SlotSync)
                text += (call.slot ? "slot " : "global ") + std::to_string(call.flag);
        for (const seam::Hook &hook : seam::hooks)
            text += hook.table + ' ' + std::to_string(hook.flag);
        return text;
    }
};

TEST_P(FunctionCode, IsASetOrASync)
{
    const uint32_t code = GetParam().code;
    const uint32_t attr = code <= 3    ? CPUDEFEND_GLOBAL_L1CPURAT
                          : code <= 8  ? CPUDEFEND_SLOT_L1CPURAT
                          : code <= 13 ? CPUDEFEND_POLICY_SRCTRACETHRESHOLD
                          : code <= 18 ? CPUDEFEND_USERDEFINED_CIR + 0
                                       : CPUDEFEND_CARPKT_CIR + 0;
    request(code, attr);
    EXPECT_EQ(synchronised(),
              std::string(GetParam().table) + ' ' + std::to_string(GetParam().flag));
}

INSTANTIATE_TEST_SUITE_P(
    Tables, FunctionCode,
    testing::Values(SetOrSync{2, "global", 3}, SetOrSync{3, "global", 1}, SetOrSync{7, "slot", 3},
                    SetOrSync{8, "slot", 1}, SetOrSync{12, "policy", 3}, SetOrSync{13, "policy", 1},
                    SetOrSync{17, "userDefined", 3}, SetOrSync{18, "userDefined", 1},
                    SetOrSync{22, "carPkt", 3}, SetOrSync{23, "carPkt", 1}),
    [](const auto &row) { return row.param.table + std::to_string(row.param.code); });

/** The nth of @a numbers is n, counted from @a first. */
static void expectInTurn(const std::vector<uint32_t> &numbers, uint32_t first)
{
    for (uint32_t number : numbers)
        EXPECT_EQ(number, first++);
}

TEST(FunctionCodes, HaveTheirNumbers)
{
    expectInTurn({CPUDEFEND_GLOBAL_GETAPI,       CPUDEFEND_GLOBAL_SETAPI,
                  CPUDEFEND_GLOBAL_SYNCAPI,      CPUDEFEND_SLOT_GETFIRST,
                  CPUDEFEND_SLOT_GETNEXT,        CPUDEFEND_SLOT_GETAPI,
                  CPUDEFEND_SLOT_SETAPI,         CPUDEFEND_SLOT_SYNCAPI,
                  CPUDEFEND_POLICY_GETFIRST,     CPUDEFEND_POLICY_GETNEXT,
                  CPUDEFEND_POLICY_GETAPI,       CPUDEFEND_POLICY_SETAPI,
                  CPUDEFEND_POLICY_SYNCAPI,      CPUDEFEND_USERDEFINED_GETFIRST,
                  CPUDEFEND_USERDEFINED_GETNEXT, CPUDEFEND_USERDEFINED_GETAPI,
                  CPUDEFEND_USERDEFINED_SETAPI,  CPUDEFEND_USERDEFINED_SYNCAPI,
                  CPUDEFEND_CARPKT_GETFIRST,     CPUDEFEND_CARPKT_GETNEXT,
                  CPUDEFEND_CARPKT_GETAPI,       CPUDEFEND_CARPKT_SETAPI,
                  CPUDEFEND_CARPKT_SYNCAPI,      CPUDEFEND_SRCTRACE_GETFIRST,
                  CPUDEFEND_SRCTRACE_GETNEXT,    CPUDEFEND_SRCTRACE_GETAPI},
                 1);
    EXPECT_EQ(CPUDEFEND_FUNC_MAX + 0u, 26u);
}

TEST(PacketTypes, HaveTheirNumbers)
{
    expectInTurn({CPUDEFEND_PKTTYPE_DOT1X,        CPUDEFEND_PKTTYPE_ARP,
                  CPUDEFEND_PKTTYPE_IGMPSNOOP,    CPUDEFEND_PKTTYPE_STPCUSTOMER,
                  CPUDEFEND_PKTTYPE_GVRP,         CPUDEFEND_PKTTYPE_UDLD,
                  CPUDEFEND_PKTTYPE_VTP,          CPUDEFEND_PKTTYPE_IGMP,
                  CPUDEFEND_PKTTYPE_ALB,          CPUDEFEND_PKTTYPE_DHCPSNOOPIP,
                  CPUDEFEND_PKTTYPE_Y1731,        CPUDEFEND_PKTTYPE_TELNET,
                  CPUDEFEND_PKTTYPE_TCP,          CPUDEFEND_PKTTYPE_FTP,
                  CPUDEFEND_PKTTYPE_ICMP,         CPUDEFEND_PKTTYPE_ICMPV6,
                  CPUDEFEND_PKTTYPE_SNMP,         CPUDEFEND_PKTTYPE_NTP,
                  CPUDEFEND_PKTTYPE_BPDUTUNNEL,   CPUDEFEND_PKTTYPE_OSPF,
                  CPUDEFEND_PKTTYPE_OSPF6,        CPUDEFEND_PKTTYPE_DHCPCLIENT,
                  CPUDEFEND_PKTTYPE_DHCPSERVER,   CPUDEFEND_PKTTYPE_DHCP6REPLY,
                  CPUDEFEND_PKTTYPE_OAM,          CPUDEFEND_PKTTYPE_DHCP6REQUEST,
                  CPUDEFEND_PKTTYPE_RIP,          CPUDEFEND_PKTTYPE_RIP6,
                  CPUDEFEND_PKTTYPE_LDP,          CPUDEFEND_PKTTYPE_MPLS,
                  CPUDEFEND_PKTTYPE_BFD,          CPUDEFEND_PKTTYPE_BFD6,
                  CPUDEFEND_PKTTYPE_BGP,          CPUDEFEND_PKTTYPE_SNTP,
                  CPUDEFEND_PKTTYPE_SNTP6,        CPUDEFEND_PKTTYPE_PIM,
                  CPUDEFEND_PKTTYPE_PIM6,         CPUDEFEND_PKTTYPE_VRRP,
                  CPUDEFEND_PKTTYPE_VRRP6,        CPUDEFEND_PKTTYPE_ERP,
                  CPUDEFEND_PKTTYPE_DLIP,         CPUDEFEND_PKTTYPE_STPPROVIDER,
                  CPUDEFEND_PKTTYPE_ESR,          CPUDEFEND_PKTTYPE_EAPS,
                  CPUDEFEND_PKTTYPE_ISIS,         CPUDEFEND_PKTTYPE_BFDETHER,
                  CPUDEFEND_PKTTYPE_LOOPBACK,     CPUDEFEND_PKTTYPE_EFM,
                  CPUDEFEND_PKTTYPE_RLINK,        CPUDEFEND_PKTTYPE_RTRUNK,
                  CPUDEFEND_PKTTYPE_LLDP,         CPUDEFEND_PKTTYPE_SGM,
                  CPUDEFEND_PKTTYPE_PPPOE,        CPUDEFEND_PKTTYPE_FLUSH,
                  CPUDEFEND_PKTTYPE_ISS,          CPUDEFEND_PKTTYPE_ISSSYNC,
                  CPUDEFEND_PKTTYPE_DHCPSNOOPIP6, CPUDEFEND_PKTTYPE_DHCPSNOOPARP,
                  CPUDEFEND_PKTTYPE_TOTALPKT,     CPUDEFEND_PKTTYPE_MAX},
                 0);
    EXPECT_EQ(CPUDEFEND_PKTTYPE_MAX + 0u, 59u);
}

/* ---- Records -------------------------------------------------------------------------- */

/** Each field stands right behind the one before it, the first one at the start. */
template <typename Record, auto... fields> static void expectInOrder()
{
    static const Record record{};
    ptrdiff_t end = 0;
    int nth = 0;
    const auto expect = [&](const auto &field) {
        const ptrdiff_t at =
            reinterpret_cast<const char *>(&field) - reinterpret_cast<const char *>(&record);
        const ptrdiff_t alignment = alignof(std::remove_cvref_t<decltype(field)>);
        EXPECT_EQ(at, (end + alignment - 1) / alignment * alignment) << "field " << nth;
        end = at + static_cast<ptrdiff_t>(sizeof field);
        nth++;
    };
    (expect(record.*fields), ...);
}

TEST(RecordLayout, System)
{
    using R = tCpuDefendSystem;
    expectInOrder<R, &R::cpuDefendSem, &R::cpuDefendTaskId, &R::policyList, &R::policyFreeList,
                  &R::userDefinedList, &R::userDefinedFreeList, &R::carPktList, &R::carPktFreeList,
                  &R::srcTraceList, &R::srcTraceFreeList, &R::slotList, &R::slotFreeList,
                  &R::cmdSock, &R::rtSock, &R::pktSock, &R::maxPolicyNum, &R::maxUserDefinedNum,
                  &R::maxCarPktNum, &R::maxSrcTraceNum, &R::maxSlotNum, &R::usePolicyNum,
                  &R::useUserDefinedNum, &R::useCarPktNum, &R::useSrcTraceNum, &R::useSlotNum,
                  &R::policyName, &R::policyNameLen, &R::cpuDefendDebug, &R::selectedPosition,
                  &R::policyMode, &R::cpuRatControlTimer, &R::cpuRatControl, &R::timerList,
                  &R::policyTable, &R::userDefinedTable, &R::carPktTable, &R::srcTraceTable,
                  &R::slotTable>();
}

TEST(RecordLayout, Policy)
{
    using R = tCpuDefendPolicyEntry;
    expectInOrder<
        R, &R::node, &R::userDefinedList, &R::carPktList, &R::policyName, &R::policyDescription,
        &R::policyNameLen, &R::policyDescriptionLen, &R::whiteListEnable, &R::policyStatus,
        &R::priority, &R::whiteListIp4Acl, &R::whiteListIp6Acl, &R::whiteListIp4Cir,
        &R::whiteListIp4Cbs, &R::whiteListIp6Cir, &R::whiteListIp6Cbs, &R::blackListIp4Acl,
        &R::blackListIp6Acl, &R::blackListEnable, &R::srcTraceAlarmEnable, &R::srcTraceEnable,
        &R::srcTracePktDataEnable, &R::srcTraceThreshold, &R::srcTraceAlarmThreshold,
        &R::srcTraceTimer, &R::userDefinedNum, &R::refCount>();
}

TEST(RecordLayout, FreePolicyHasItsLinkInTheNode)
{
    EXPECT_EQ(offsetof(tCpuDefendPolicyEntry, freeNode), 0u);
}

TEST(RecordLayout, Rule)
{
    using R = tCpuDefendUserDefinedEntry;
    expectInOrder<R, &R::node, &R::policyNode, &R::index, &R::status, &R::deny, &R::res, &R::ip4Acl,
                  &R::ip6Acl, &R::cir, &R::cbs, &R::policyEntry>();
}

TEST(RecordLayout, CarEntry)
{
    using R = tCpuDefendCarPktEntry;
    expectInOrder<R, &R::node, &R::policyNode, &R::pktType, &R::queue, &R::deny, &R::priority,
                  &R::bit, &R::res, &R::cir, &R::cbs, &R::pps, &R::mode, &R::totalPktPps,
                  &R::totalPktBps, &R::timePre, &R::pktSrcTraceTotalNum, &R::pktSrcTraceNum,
                  &R::pktSrcTraceAlarmNum, &R::pktPassNum, &R::pktDropNum, &R::policyEntry>();
}

TEST(RecordLayout, Slot)
{
    using R = tCpuDefendSlotEntry;
    expectInOrder<R, &R::node, &R::policyName, &R::policyNameLen, &R::sysId, &R::slotId,
                  &R::selectedPosition, &R::policyMode, &R::res, &R::cpuRatControlTimer,
                  &R::cpuRatControl, &R::policyEntry>();
}

TEST(RecordLayout, Level)
{
    using R = tCpuDefendCpuRatControl;
    expectInOrder<R, &R::node, &R::res, &R::cpuRat, &R::policyNameLen, &R::policyName>();
}

TEST(RecordLayout, Source)
{
    using R = tCpuDefendSrcTraceEntry;
    expectInOrder<R, &R::node, &R::ifUnit, &R::srcIp, &R::dstIp, &R::pktType, &R::sysId, &R::slotId,
                  &R::res, &R::srcMac, &R::outerVlan, &R::innerVlan, &R::pktData, &R::totalNum>();
}
