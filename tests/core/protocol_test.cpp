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

TEST(FunctionCodes, HaveTheirNumbers)
{
#define CODE(number, name) EXPECT_EQ(uint32_t{CPUDEFEND_##name}, number##u)
    CODE(1, GLOBAL_GETAPI);
    CODE(2, GLOBAL_SETAPI);
    CODE(3, GLOBAL_SYNCAPI);
    CODE(4, SLOT_GETFIRST);
    CODE(5, SLOT_GETNEXT);
    CODE(6, SLOT_GETAPI);
    CODE(7, SLOT_SETAPI);
    CODE(8, SLOT_SYNCAPI);
    CODE(9, POLICY_GETFIRST);
    CODE(10, POLICY_GETNEXT);
    CODE(11, POLICY_GETAPI);
    CODE(12, POLICY_SETAPI);
    CODE(13, POLICY_SYNCAPI);
    CODE(14, USERDEFINED_GETFIRST);
    CODE(15, USERDEFINED_GETNEXT);
    CODE(16, USERDEFINED_GETAPI);
    CODE(17, USERDEFINED_SETAPI);
    CODE(18, USERDEFINED_SYNCAPI);
    CODE(19, CARPKT_GETFIRST);
    CODE(20, CARPKT_GETNEXT);
    CODE(21, CARPKT_GETAPI);
    CODE(22, CARPKT_SETAPI);
    CODE(23, CARPKT_SYNCAPI);
    CODE(24, SRCTRACE_GETFIRST);
    CODE(25, SRCTRACE_GETNEXT);
    CODE(26, SRCTRACE_GETAPI);
    CODE(26, FUNC_MAX);
#undef CODE
}

/* ---- Packet types --------------------------------------------------------------------- */

TEST(PacketType, HasItsNumber)
{
#define TYPE(number, name) EXPECT_EQ(uint32_t{CPUDEFEND_PKTTYPE_##name}, number##u)
    TYPE(0, DOT1X);
    TYPE(1, ARP);
    TYPE(2, IGMPSNOOP);
    TYPE(3, STPCUSTOMER);
    TYPE(4, GVRP);
    TYPE(5, UDLD);
    TYPE(6, VTP);
    TYPE(7, IGMP);
    TYPE(8, ALB);
    TYPE(9, DHCPSNOOPIP);
    TYPE(10, Y1731);
    TYPE(11, TELNET);
    TYPE(12, TCP);
    TYPE(13, FTP);
    TYPE(14, ICMP);
    TYPE(15, ICMPV6);
    TYPE(16, SNMP);
    TYPE(17, NTP);
    TYPE(18, BPDUTUNNEL);
    TYPE(19, OSPF);
    TYPE(20, OSPF6);
    TYPE(21, DHCPCLIENT);
    TYPE(22, DHCPSERVER);
    TYPE(23, DHCP6REPLY);
    TYPE(24, OAM);
    TYPE(25, DHCP6REQUEST);
    TYPE(26, RIP);
    TYPE(27, RIP6);
    TYPE(28, LDP);
    TYPE(29, MPLS);
    TYPE(30, BFD);
    TYPE(31, BFD6);
    TYPE(32, BGP);
    TYPE(33, SNTP);
    TYPE(34, SNTP6);
    TYPE(35, PIM);
    TYPE(36, PIM6);
    TYPE(37, VRRP);
    TYPE(38, VRRP6);
    TYPE(39, ERP);
    TYPE(40, DLIP);
    TYPE(41, STPPROVIDER);
    TYPE(42, ESR);
    TYPE(43, EAPS);
    TYPE(44, ISIS);
    TYPE(45, BFDETHER);
    TYPE(46, LOOPBACK);
    TYPE(47, EFM);
    TYPE(48, RLINK);
    TYPE(49, RTRUNK);
    TYPE(50, LLDP);
    TYPE(51, SGM);
    TYPE(52, PPPOE);
    TYPE(53, FLUSH);
    TYPE(54, ISS);
    TYPE(55, ISSSYNC);
    TYPE(56, DHCPSNOOPIP6);
    TYPE(57, DHCPSNOOPARP);
    TYPE(58, TOTALPKT);
    TYPE(59, MAX);
#undef TYPE
}

/* ---- Records -------------------------------------------------------------------------- */

struct Field {
    const char *name;
    size_t offset, size, alignment;
};

/** Each field stands right behind the one before it, the first one at the start. */
static void expectInOrder(const std::vector<Field> &fields)
{
    size_t end = 0;
    for (const Field &field : fields) {
        EXPECT_EQ(field.offset, (end + field.alignment - 1) / field.alignment * field.alignment)
            << field.name;
        end = field.offset + field.size;
    }
}

#define FIELD(name)                                                                                \
    Field                                                                                          \
    {                                                                                              \
#name, offsetof(Record, name), sizeof(Record::name), alignof(decltype(Record::name))       \
    }

TEST(RecordLayout, System)
{
    using Record = tCpuDefendSystem;
    expectInOrder({FIELD(cpuDefendSem),
                   FIELD(cpuDefendTaskId),
                   FIELD(policyList),
                   FIELD(policyFreeList),
                   FIELD(userDefinedList),
                   FIELD(userDefinedFreeList),
                   FIELD(carPktList),
                   FIELD(carPktFreeList),
                   FIELD(srcTraceList),
                   FIELD(srcTraceFreeList),
                   FIELD(slotList),
                   FIELD(slotFreeList),
                   FIELD(cmdSock),
                   FIELD(rtSock),
                   FIELD(pktSock),
                   FIELD(maxPolicyNum),
                   FIELD(maxUserDefinedNum),
                   FIELD(maxCarPktNum),
                   FIELD(maxSrcTraceNum),
                   FIELD(maxSlotNum),
                   FIELD(usePolicyNum),
                   FIELD(useUserDefinedNum),
                   FIELD(useCarPktNum),
                   FIELD(useSrcTraceNum),
                   FIELD(useSlotNum),
                   FIELD(policyName),
                   FIELD(policyNameLen),
                   FIELD(cpuDefendDebug),
                   FIELD(selectedPosition),
                   FIELD(policyMode),
                   FIELD(cpuRatControlTimer),
                   FIELD(cpuRatControl),
                   FIELD(timerList),
                   FIELD(policyTable),
                   FIELD(userDefinedTable),
                   FIELD(carPktTable),
                   FIELD(srcTraceTable),
                   FIELD(slotTable)});
}

TEST(RecordLayout, Policy)
{
    using Record = tCpuDefendPolicyEntry;
    expectInOrder({FIELD(node),
                   FIELD(userDefinedList),
                   FIELD(carPktList),
                   FIELD(policyName),
                   FIELD(policyDescription),
                   FIELD(policyNameLen),
                   FIELD(policyDescriptionLen),
                   FIELD(whiteListEnable),
                   FIELD(policyStatus),
                   FIELD(priority),
                   FIELD(whiteListIp4Acl),
                   FIELD(whiteListIp6Acl),
                   FIELD(whiteListIp4Cir),
                   FIELD(whiteListIp4Cbs),
                   FIELD(whiteListIp6Cir),
                   FIELD(whiteListIp6Cbs),
                   FIELD(blackListIp4Acl),
                   FIELD(blackListIp6Acl),
                   FIELD(blackListEnable),
                   FIELD(srcTraceAlarmEnable),
                   FIELD(srcTraceEnable),
                   FIELD(srcTracePktDataEnable),
                   FIELD(srcTraceThreshold),
                   FIELD(srcTraceAlarmThreshold),
                   FIELD(srcTraceTimer),
                   FIELD(userDefinedNum),
                   FIELD(refCount)});
    EXPECT_EQ(offsetof(Record, freeNode), 0u);
}

TEST(RecordLayout, Rule)
{
    using Record = tCpuDefendUserDefinedEntry;
    expectInOrder({FIELD(node), FIELD(policyNode), FIELD(index), FIELD(status), FIELD(deny),
                   FIELD(res), FIELD(ip4Acl), FIELD(ip6Acl), FIELD(cir), FIELD(cbs),
                   FIELD(policyEntry)});
}

TEST(RecordLayout, CarEntry)
{
    using Record = tCpuDefendCarPktEntry;
    expectInOrder({FIELD(node),
                   FIELD(policyNode),
                   FIELD(pktType),
                   FIELD(queue),
                   FIELD(deny),
                   FIELD(priority),
                   FIELD(bit),
                   FIELD(res),
                   FIELD(cir),
                   FIELD(cbs),
                   FIELD(pps),
                   FIELD(mode),
                   FIELD(totalPktPps),
                   FIELD(totalPktBps),
                   FIELD(timePre),
                   FIELD(pktSrcTraceTotalNum),
                   FIELD(pktSrcTraceNum),
                   FIELD(pktSrcTraceAlarmNum),
                   FIELD(pktPassNum),
                   FIELD(pktDropNum),
                   FIELD(policyEntry)});
}

TEST(RecordLayout, Slot)
{
    using Record = tCpuDefendSlotEntry;
    expectInOrder({FIELD(node), FIELD(policyName), FIELD(policyNameLen), FIELD(sysId),
                   FIELD(slotId), FIELD(selectedPosition), FIELD(policyMode), FIELD(res),
                   FIELD(cpuRatControlTimer), FIELD(cpuRatControl), FIELD(policyEntry)});
}

TEST(RecordLayout, Level)
{
    using Record = tCpuDefendCpuRatControl;
    expectInOrder(
        {FIELD(node), FIELD(res), FIELD(cpuRat), FIELD(policyNameLen), FIELD(policyName)});
}
