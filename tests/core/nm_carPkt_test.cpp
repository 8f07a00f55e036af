// The CAR API: every attribute alike by table, the mask of configured settings, the walk.
#include <algorithm>
#include <functional>

#include "core_test.h"

using namespace cpudefend;

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

class CarPktApi : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        policy = addPolicy("p");
        entry = findCar("p", 1);
    }

    int32_t set(uint32_t id, uint32_t value) const { return setCar("p", 1, id, value); }

    tCpuDefendPolicyEntry *policy;
    tCpuDefendCarPktEntry *entry;
};

static std::string show()
{
    CaptureStdout();
    EXPECT_EQ(cpuDefendCarPktShow(), 0);
    return GetCapturedStdout();
}

/** Leave the entry of @a type of "p" alone on the list. */
static void leave(uint32_t type)
{
    for (tCpuDefendCarPktEntry *each : carEntries())
        if (each != findCar("p", type))
            cpuDefendCarPktEntryDel(each);
}

TEST_F(CarPktApi, PolicyBoundToASlotIsRefusedUntilUnbound)
{
    cpuDefendSlotEntryAdd(1, 5);
    tcpuDefendSlotIdx idx{1, 5};
    unsigned char name = 'p';
    octetstring bound{&name, 1}, none{&name, 0};
    ASSERT_EQ(cpuDefendSlotSetApi(&idx, CPUDEFEND_SLOT_POLICY, &bound), 0);
    EXPECT_EQ(set(CPUDEFEND_CARPKT_CIR, 64), 0x041E0005);
    EXPECT_EQ(entry->cir, 16u);
    ASSERT_EQ(cpuDefendSlotSetApi(&idx, CPUDEFEND_SLOT_POLICY, &none), 0);
    EXPECT_EQ(set(CPUDEFEND_CARPKT_CIR, 64), 0);
    EXPECT_EQ(entry->cir, 64u);
}

TEST_F(CarPktApi, DuplicateIsShadowedByTheOlder)
{
    tCpuDefendCarPktEntry *newer = addCar("p", 1);
    EXPECT_EQ(set(CPUDEFEND_CARPKT_PPS, 7), 0);
    EXPECT_EQ(entry->pps, 7u);
    EXPECT_EQ(newer->pps, 512u);
    newer->pps = 9;
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_PPS), (Answer<uint32_t>{0, 7}));
}

/* ---- The mask of configured settings -------------------------------------------------- */

struct Step {
    uint32_t id, value;
    uint8_t bit; /**< the mask behind it */
};

struct Steps {
    const char *name;
    uint8_t before;
    std::vector<Step> steps;
};

static constexpr uint32_t mode = CPUDEFEND_CARPKT_MODE, queue = CPUDEFEND_CARPKT_QUEUE,
                          priority = CPUDEFEND_CARPKT_PRIORITY;

static const std::vector<Steps> maskSteps = {
    {"ModePpsSets20", 0, {{mode, 1, 0x20}}},
    {"ModeCirSetsC0", 0, {{mode, 2, 0xC0}}},
    {"ModesAccumulate", 0, {{mode, 1, 0x20}, {mode, 2, 0xE0}, {mode, 1, 0xE0}}},
    {"ModesAccumulateTheOtherWayRound", 0, {{mode, 2, 0xC0}, {mode, 1, 0xE0}, {mode, 0, 0}}},
    {"ModeZeroKeepsTheLowFiveBits", 0x1F, {{mode, 2, 0xDF}, {mode, 1, 0xFF}, {mode, 0, 0x1F}}},
    {"ModeZeroKeepsQueueAndPriority",
     0,
     {{queue, 3, 0x10}, {priority, 4, 0x18}, {mode, 2, 0xD8}, {mode, 1, 0xF8}, {mode, 0, 0x18}}},
    {"OtherModesKeepTheMask", 0xF8, {{mode, 3, 0xF8}, {mode, 0x100, 0xF8}, {mode, 0x102, 0xF8}}},
    {"EqualModeKeepsTheMask", 0xE0, {{mode, 0, 0xE0}}},
    {"QueueOtherThan2Sets10", 0, {{queue, 0, 0x10}, {queue, 7, 0x10}, {queue, 2, 0}}},
    {"QueueGoesByItsLowByte", 0x10, {{queue, 258, 0}, {queue, 259, 0x10}, {queue, 258, 0}}},
    {"QueueKeepsTheOtherBits", 0xEF, {{queue, 1, 0xFF}, {queue, 2, 0xEF}}},
    {"PriorityOtherThan2Sets08", 0, {{priority, 0, 0x08}, {priority, 7, 0x08}, {priority, 2, 0}}},
    {"PriorityGoesByItsLowByte", 0x08, {{priority, 258, 0}, {priority, 259, 0x08}}},
    {"PriorityKeepsTheOtherBits", 0xF7, {{priority, 1, 0xFF}, {priority, 2, 0xF7}}},
    {"OtherAttributesKeepTheMask",
     0xA5,
     {{0, 1, 0xA5}, {1, 1, 0xA5}, {2, 1, 0xA5}, {6, 1, 0xA5}, {9, 1, 0xA5}, {10, 1, 0xA5}}},
};

class CarPktMask : public CarPktApi, public testing::WithParamInterface<Steps>
{
};

TEST_P(CarPktMask, FollowsTheSets)
{
    entry->bit = GetParam().before;
    for (const Step &step : GetParam().steps) {
        EXPECT_EQ(set(step.id, step.value), 0);
        EXPECT_EQ(entry->bit, step.bit) << "after " << step.id << " = " << step.value;
    }
}

INSTANTIATE_TEST_SUITE_P(CarPktApi, CarPktMask, testing::ValuesIn(maskSteps),
                         [](const testing::TestParamInfo<Steps> &row) {
                             return std::string(row.param.name);
                         });

/* ---- Walk ----------------------------------------------------------------------------- */

static std::string keyOf(const tcpuDefendCarPktIdx &idx)
{
    return std::string(reinterpret_cast<const char *>(idx.policyName), idx.policyNameLen) + "/" +
           std::to_string(idx.pktType);
}

static std::vector<std::string> walk()
{
    std::vector<std::string> visited;
    tcpuDefendCarPktIdx idx{};
    for (int32_t code = cpuDefendCarPktGetFirst(&idx); code == 0 && visited.size() < 200;
         code = cpuDefendCarPktGetNext(&idx, &idx))
        visited.push_back(keyOf(idx));
    return visited;
}

static Answer<std::string> next(const std::string &name, uint32_t pktType)
{
    tcpuDefendCarPktIdx idx = carIdx(name, pktType);
    tcpuDefendCarPktIdx after{};
    const int32_t code = cpuDefendCarPktGetNext(&idx, &after);
    return {code, keyOf(after)};
}

TEST_F(CarPktApi, WalkWritesTheNamesBytesAndNoMore)
{
    addPolicy("e");
    tcpuDefendCarPktIdx first, next;
    memset(&first, '~', sizeof first);
    memset(&next, '~', sizeof next);
    ASSERT_EQ(cpuDefendCarPktGetFirst(&first), 0);
    EXPECT_EQ(image(first.policyName), "e" + std::string(31, '~'));
    EXPECT_EQ(first.policyNameLen, 1u);
    memset(&first, 0, sizeof first);
    memset(first.policyName, 'z', 6); // before all of seven bytes
    first.policyNameLen = 6;
    ASSERT_EQ(cpuDefendCarPktGetNext(&first, &next), 0);
    EXPECT_EQ(image(next.policyName), "default" + std::string(25, '~'));
    EXPECT_EQ(next.policyNameLen, 7u);
}

TEST_F(CarPktApi, WalkGoesByNameLengthThenNameThenType)
{
    addPolicy("aa");
    addPolicy("b");
    EXPECT_EQ(walk(), tenKeys("b") + tenKeys("p") + tenKeys("aa") + tenKeys("default"));
}

TEST_F(CarPktApi, WalkContinuesFromAKeyThatDoesNotExist)
{
    addPolicy("aa");
    using Next = Answer<std::string>;
    EXPECT_EQ(next("p", 10), (Next{0, "aa/0"}));
    EXPECT_EQ(next("p", 0xffffffff), (Next{0, "aa/0"}));
    EXPECT_EQ(next("", 0), (Next{0, "p/0"}));
    EXPECT_EQ(next("o", 99), (Next{0, "p/0"}));
    EXPECT_EQ(next("q", 0), (Next{0, "aa/0"}));
    EXPECT_EQ(next("zz", 0), (Next{0, "default/0"}));
    EXPECT_EQ(next("zzzzzzz", 0), (Next{-1, "/0"}));
    EXPECT_EQ(next("longer than default", 0), (Next{-1, "/0"}));
    cpuDefendCarPktEntryDel(findCar("p", 5));
    EXPECT_EQ(next("p", 5), (Next{0, "p/6"}));
    EXPECT_EQ(next("p", 4), (Next{0, "p/6"}));
}

TEST_F(CarPktApi, WalkNeverVisitsADuplicate)
{
    addCar("p", 5);
    EXPECT_EQ(carEntries().size(), 21u);
    EXPECT_EQ(walk(), tenKeys("p") + tenKeys("default"));
}

TEST_F(CarPktApi, WalkOfAnEmptyListEndsAtOnce)
{
    for (tCpuDefendCarPktEntry *each : carEntries())
        cpuDefendCarPktEntryDel(each);
    tcpuDefendCarPktIdx idx = carIdx("x", 3);
    EXPECT_EQ(cpuDefendCarPktGetFirst(&idx), -1);
    EXPECT_EQ(next("", 0).code, -1);
}

TEST_F(CarPktApi, WalkFromAnOverlongNameStaysInsideTheIndex)
{
    for (uint32_t len : {33u, 256u, 0xffffffffu}) {
        tcpuDefendCarPktIdx idx = carIdx(std::string(32, 'd'), 0);
        idx.policyNameLen = len;
        tcpuDefendCarPktIdx after{};
        const int32_t code = cpuDefendCarPktGetNext(&idx, &after);
        EXPECT_TRUE(code == -1 || after.policyNameLen <= 32) << len;
    }
}

/* ---- Show ----------------------------------------------------------------------------- */

TEST_F(CarPktApi, ShowPrintsTheQueueAsPri)
{
    leave(1);
    entry->queue = 6;
    entry->priority = 7;
    entry->cir = 64;
    entry->deny = 1;
    EXPECT_EQ(show(), "**************************************\r\n"
                      "policyName=p,pktType=1,cbs=6400,cir=64,deny=1,pri=6");
}

TEST_F(CarPktApi, ShowVisitsEveryEntryWithoutALineEnd)
{
    std::string expected;
    for (const std::string name : {"p", "default"})
        for (int type = 0; type < 10; type++)
            expected += "**************************************\r\npolicyName=" + name +
                        ",pktType=" + std::to_string(type) + ",cbs=6400,cir=16,deny=2,pri=2";
    EXPECT_EQ(show(), expected);
}

TEST_F(CarPktApi, ShowStaysInsideANameOf32Bytes)
{
    const std::string name(32, 'n');
    addPolicy(name);
    for (tCpuDefendCarPktEntry *each : carEntries())
        if (each != findCar(name, 0))
            cpuDefendCarPktEntryDel(each);
    findPolicy(name)->policyDescription[0] = 'd'; // right behind it
    EXPECT_EQ(show(), "**************************************\r\npolicyName=" + name +
                          ",pktType=0,cbs=6400,cir=16,deny=2,pri=2");
}

/* ---- Counters of the hardware --------------------------------------------------------- */

TEST_F(CarPktApi, GetOfACounterTakesWhatTheHardwareHasCounted)
{
    cpuDefendHwAdd(nullptr, policy);
    scripted::script.counts[{std::nullopt, 1}] = {7, 3, 700, 300};
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_PASSNUM), (Answer<uint32_t>{0, 7}));
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_DROPNUM), (Answer<uint32_t>{0, 3}));
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_PASSNUM), (Answer<uint32_t>{0, 7}));
    EXPECT_EQ(entry->pktPassNum, 7u);
    EXPECT_EQ(scripted::counted.size(), 3u);
}

TEST_F(CarPktApi, GetOfAnythingElseAsksForNoCounts)
{
    cpuDefendHwAdd(nullptr, policy);
    for (uint32_t id = 0; id < 12; id++)
        if (id != CPUDEFEND_CARPKT_PASSNUM && id != CPUDEFEND_CARPKT_DROPNUM)
            getCar("p", 1, id);
    EXPECT_TRUE(scripted::counted.empty());
}
