/**
 * What holds of every hardware layer, whatever it programs. Built once with each.
 */
#include "contract.h"

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "journal.h"
#include "memory/scratch.h"
#include "zynacl.h"
#include "zynif.h"

namespace
{

const tSlotIndex slot = {1, 2, 0};
const tSlotIndex itself = {0, 0, 0};
uint32_t reading;
uint32_t number = 80;
tPhyIfInfo info;

tHwCpuDefendPktCarEntry car(uint32_t pktType, uint8_t op)
{
    tHwCpuDefendPktCarEntry entry = {};
    entry.pktType = pktType;
    entry.pps = 200;
    entry.op = op;
    return entry;
}

int32_t setSlot(const tSlotIndex *target, uint32_t cmd, tHwCpuDefendPktCarEntry entry)
{
    return zynHwSlotSet(target, cmd, &entry, 3);
}

int32_t syncText(const tSlotIndex *target, uint32_t id, uint32_t flag)
{
    static unsigned char text[] = "guard";
    octetstring octets = {text, 5};
    return target != nullptr ? zynHwSlotSync(target, id, &octets, flag)
                             : zynHwScalarSync(0, id, &octets, flag);
}

/** A journal in a folder of its own, at an up-time of 12.34 seconds. */
struct Contract : testing::Test {
    Contract()
    {
        osClockSet([] { return uint64_t{12345}; });
        EXPECT_EQ(journalOpen(scratch.path("journal").c_str()), 0);
    }
    ~Contract() override
    {
        contractFailNone();
        journalClose();
        osClockSet(nullptr);
    }

    std::vector<std::string> lines() const
    {
        std::istringstream all(scratch.read("journal"));
        std::vector<std::string> found;
        for (std::string line; std::getline(all, line);)
            found.push_back(line);
        return found;
    }

    Scratch scratch;
};

struct Call {
    const char *name;
    std::function<int32_t()> make;
    int32_t result;
    const char *line; /**< behind the head */
};

void PrintTo(const Call &call, std::ostream *out)
{
    *out << call.name;
}

class EveryLayer : public Contract, public testing::WithParamInterface<Call>
{
};

const Call calls[] = {
    {"SlotSetUnknownCommand", [] { return setSlot(&slot, 1, car(1, ZYN_HW_OP_PERMIT)); }, EINVAL,
     R"(zynHwSlotSet","slot":{"sys":1,"slot":2,"type":0},"cmd":1,"flag":3,"entry":null,)"},
    {"SlotSetOfTheSystem",
     [] { return setSlot(&itself, HW_SLOT_CPUDEFENDPKTCARDEL, car(1, ZYN_HW_OP_DENY)); }, EINVAL,
     R"(zynHwSlotSet","slot":{"sys":0,"slot":0,"type":0},"cmd":"HW_SLOT_CPUDEFENDPKTCARDEL",)"
     R"("flag":3,"entry":{"pktType":1,"cir":0,"cbs":0,"pps":200,"queue":0,"priority":0,)"
     R"("op":3,"bit":0},)"},
    {"SlotSetUnknownType",
     [] { return setSlot(&slot, HW_SLOT_CPUDEFENDPKTCARADD, car(59, ZYN_HW_OP_PERMIT)); }, EINVAL,
     R"(zynHwSlotSet","slot":{"sys":1,"slot":2,"type":0},"cmd":"HW_SLOT_CPUDEFENDPKTCARADD",)"
     R"("flag":3,"entry":{"pktType":59,"cir":0,"cbs":0,"pps":200,"queue":0,"priority":0,)"
     R"("op":11,"bit":0},)"},
    {"SystemSetWithoutDescriptor", [] { return zynScalarSetApi(0, 0, nullptr); }, EINVAL,
     R"(zynScalarSetApi","slot":null,"index":0,"cmd":0,"func":null,"entry":null,)"},
    {"SystemSetUnknownOp",
     [] {
         tHwCpuDefendPktCarEntry entry = car(1, 4);
         tHwApiFunc func = {HW_SYS_CPUDEFENDPKTCARADD, &entry, 0, 0, 0, 0};
         return zynScalarSetApi(0, 0, &func);
     },
     EINVAL,
     R"(zynScalarSetApi","slot":null,"index":0,"cmd":0,"func":{"hwCmd":)"
     R"("HW_SYS_CPUDEFENDPKTCARADD","action":0,"res":0,"argLen":0,"flag":0},"entry":{"pktType":1,)"
     R"("cir":0,"cbs":0,"pps":200,"queue":0,"priority":0,"op":4,"bit":0},)"},
    {"AclZero", [] { return acl_cpudefend_add(&slot, 0, ZYN_HW_OP_PERMIT, 1, 2, 3); }, EINVAL,
     R"(acl_cpudefend_add","slot":{"sys":1,"slot":2,"type":0},"acl":0,"action":11,"cir":1,)"
     R"("cbs":2,"ebs":3,)"},
    {"AclDenyWithARate", [] { return acl_cpudefend_del(nullptr, 1, ZYN_HW_OP_DENY, 1, 0, 0); },
     EINVAL, R"(acl_cpudefend_del","slot":null,"acl":1,"action":3,"cir":1,"cbs":0,"ebs":0,)"},
    {"CountOfNothing", [] { return zynHwCarCount(&slot, nullptr); }, EINVAL,
     R"(zynHwCarCount","slot":{"sys":1,"slot":2,"type":0},"entry":null,"passPkt":null,)"
     R"("dropPkt":null,"passOct":null,"dropOct":null,)"},
    {"CountOfTheSystemAsASlot",
     [] {
         tHwCpuDefendPktCarEntry entry = car(1, ZYN_HW_OP_PERMIT);
         return zynHwCarCount(&itself, &entry);
     },
     EINVAL,
     R"(zynHwCarCount","slot":{"sys":0,"slot":0,"type":0},"entry":{"pktType":1,"cir":0,"cbs":0,)"
     R"("pps":200,"queue":0,"priority":0,"op":11,"bit":0},"passPkt":null,"dropPkt":null,)"
     R"("passOct":null,"dropOct":null,)"},
    {"CountOfAnUnknownType",
     [] {
         tHwCpuDefendPktCarEntry entry = car(59, ZYN_HW_OP_DENY);
         return zynHwCarCount(nullptr, &entry);
     },
     EINVAL,
     R"(zynHwCarCount","slot":null,"entry":{"pktType":59,"cir":0,"cbs":0,"pps":200,"queue":0,)"
     R"("priority":0,"op":3,"bit":0},"passPkt":null,"dropPkt":null,"passOct":null,)"
     R"("dropOct":null,)"},
    {"IsMaster", [] { return zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr); }, 0,
     R"(zynHwScalarGet","index":0,"id":"HW_SYS_SWRUNNINGROLEISMASTER",)"},
    {"IsNoSlave", [] { return zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr); }, 1,
     R"(zynHwScalarGet","index":0,"id":"HW_SYS_SWRUNNINGROLEISSLAVE",)"},
    {"UnknownCondition", [] { return zynHwScalarGet(0, 55, nullptr); }, EINVAL,
     R"(zynHwScalarGet","index":0,"id":55,)"},
    {"ConditionOfAnotherCard",
     [] { return zynHwScalarGet(1, HW_SYS_SWRUNNINGROLEISMASTER, nullptr); }, EINVAL,
     R"(zynHwScalarGet","index":1,"id":"HW_SYS_SWRUNNINGROLEISMASTER",)"},
    {"CpuUnknownSelector", [] { return zynHwCpuGet(2, HW_CPU_USED, &reading); }, EINVAL,
     R"(zynHwCpuGet","selector":2,"id":"HW_CPU_USED","value":null,)"},
    {"CpuUnknownId", [] { return zynHwCpuGet(0, 1, &reading); }, EINVAL,
     R"(zynHwCpuGet","selector":0,"id":1,"value":null,)"},
    {"SyncOfText", [] { return syncText(nullptr, 8000, 3 | ZYN_SYNC_OCTETS); }, 0,
     R"(zynHwScalarSync","index":0,"scalarId":8000,"value":"guard","flag":2147483651,)"},
    {"SyncOfANumber", [] { return zynHwScalarSync(0, 8013, &number, 1); }, 0,
     R"(zynHwScalarSync","index":0,"scalarId":8013,"value":80,"flag":1,)"},
    {"SyncOfAReset", [] { return zynHwScalarSync(0, 8011, &number, 3); }, 0,
     R"(zynHwScalarSync","index":0,"scalarId":8011,"value":null,"flag":3,)"},
    {"SlotSyncOfALevelName", [] { return syncText(&slot, 8005, 3); }, 0,
     R"(zynHwSlotSync","slot":{"sys":1,"slot":2,"type":0},"scalarId":8005,"value":"guard",)"
     R"("flag":3,)"},
    {"SlotSyncOfANumber", [] { return zynHwSlotSync(&slot, 8004, &number, 3); }, 0,
     R"(zynHwSlotSync","slot":{"sys":1,"slot":2,"type":0},"scalarId":8004,"value":80,"flag":3,)"},
    {"SlotSyncWithoutASlot", [] { return zynHwSlotSync(nullptr, 8004, &number, 3); }, EINVAL,
     R"(zynHwSlotSync","slot":null,"scalarId":8004,"value":80,"flag":3,)"},
    {"OtherTranslation", [] { return sysIndexTrans(7, 5, &info); }, EINVAL,
     R"(sysIndexTrans","ifUnit":7,"mode":5,"info":null,)"},
    {"TranslationToNowhere", [] { return sysIndexTrans(7, SYS_INDEX_TRANS_PHY, nullptr); }, EINVAL,
     R"(sysIndexTrans","ifUnit":7,"mode":6,"info":null,)"},
};

} // namespace

TEST_P(EveryLayer, AnswersAndJournalsAlike)
{
    const Call &call = GetParam();
    EXPECT_EQ(call.make(), call.result);
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0], R"({"seq":1,"uptime":12.34,"call":")" + std::string(call.line) +
                              "\"result\":" + std::to_string(call.result) + "}");
}

TEST_P(EveryLayer, FailsAsOrdered)
{
    const Call &call = GetParam();
    ASSERT_EQ(contractFailAt(1, EXDEV), 0);
    EXPECT_EQ(call.make(), EXDEV);
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0], R"({"seq":1,"uptime":12.34,"call":")" + std::string(call.line) +
                              "\"result\":" + std::to_string(EXDEV) + "}");
    EXPECT_EQ(call.make(), call.result); // once only
}

INSTANTIATE_TEST_SUITE_P(Calls, EveryLayer, testing::ValuesIn(calls),
                         [](const auto &each) { return each.param.name; });

TEST_F(Contract, CpuUsageOfBothSelectorsComesFromTheKernel)
{
    uint32_t percent = UINT32_MAX, hundredths = UINT32_MAX;
    ASSERT_EQ(zynHwCpuGet(0, HW_CPU_USED, &percent), 0);
    ASSERT_EQ(zynHwCpuGet(1, HW_CPU_USED, &hundredths), 0);
    EXPECT_LE(percent, 100u);
    EXPECT_LE(hundredths, 10000u);
    ASSERT_EQ(lines().size(), 2u);
    EXPECT_NE(lines()[0].find("\"value\":" + std::to_string(percent) + ",\"result\":0}"),
              std::string::npos);
    EXPECT_NE(lines()[1].find("\"value\":" + std::to_string(hundredths) + ",\"result\":0}"),
              std::string::npos);
}

TEST_F(Contract, FailureDoesNotTouchTheAnswer)
{
    uint32_t value = 4711;
    tPhyIfInfo place = {};
    place.port = 4711;
    contractFailAt(1, EIO);
    contractFailAt(2, EIO);
    EXPECT_EQ(zynHwCpuGet(0, HW_CPU_USED, &value), EIO);
    EXPECT_EQ(sysIndexTrans(7, SYS_INDEX_TRANS_PHY, &place), EIO);
    EXPECT_EQ(value, 4711u);
    EXPECT_EQ(place.port, 4711u);
}

TEST_F(Contract, SeveralFailuresWaitInAnyOrder)
{
    ASSERT_EQ(contractFailAt(3, EIO), 0);
    ASSERT_EQ(contractFailAt(1, EBUSY), 0);
    ASSERT_EQ(contractFailAt(4, -1), 0);
    for (int32_t expected : {EBUSY, 0, EIO, -1, 0})
        EXPECT_EQ(zynHwScalarSync(0, 8013, &number, 3), expected);
}

TEST_F(Contract, WithdrawnFailuresDoNotComeTrue)
{
    contractFailAt(1, EIO);
    contractFailNone();
    EXPECT_EQ(zynHwScalarSync(0, 8013, &number, 3), 0);
}

TEST_F(Contract, FailuresThatAreNoneAndTooManyAreRefused)
{
    EXPECT_EQ(contractFailAt(0, EIO), EINVAL);
    EXPECT_EQ(contractFailAt(1, 0), EINVAL);
    EXPECT_EQ(zynHwScalarSync(0, 8013, &number, 3), 0);
    for (uint32_t n = 1; n <= 16; n++)
        EXPECT_EQ(contractFailAt(n, EIO), 0);
    EXPECT_EQ(contractFailAt(17, EIO), ENOSPC);
    EXPECT_EQ(zynHwScalarSync(0, 8013, &number, 3), EIO); // makes room for one
    EXPECT_EQ(contractFailAt(17, EIO), 0);
}

/* ---- The journal that the environment asks for ---------------------------------------- */

TEST_F(Contract, EnvironmentNamesTheJournal)
{
    const std::string other = scratch.path("other");
    setenv("CPUDEFEND_JOURNAL", other.c_str(), 1);
    EXPECT_EQ(journalInit(), 0);
    unsetenv("CPUDEFEND_JOURNAL");
    zynHwScalarSync(0, 8013, &number, 3);
    EXPECT_EQ(lines().size(), 0u);
    EXPECT_EQ(scratch.read("other").find(R"({"seq":1,)"), 0u);
}

TEST_F(Contract, WithoutAVariableOrWithAnEmptyOneThereIsNone)
{
    for (const char *value : {"", static_cast<const char *>(nullptr)}) {
        ASSERT_EQ(journalOpen(scratch.path("journal").c_str()), 0);
        if (value != nullptr)
            setenv("CPUDEFEND_JOURNAL", value, 1);
        EXPECT_EQ(journalInit(), 0);
        unsetenv("CPUDEFEND_JOURNAL");
        zynHwScalarSync(0, 8013, &number, 3);
        EXPECT_EQ(lines().size(), 0u);
    }
}

TEST_F(Contract, JournalThatCannotBeOpenedIsTold)
{
    const std::string nowhere = scratch.path("none/journal");
    setenv("CPUDEFEND_JOURNAL", nowhere.c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(journalInit(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "cpuDefend: couldn't open the journal " + nowhere + ": No such file or directory\n");
    unsetenv("CPUDEFEND_JOURNAL");
}
