// The CAR API: every attribute alike by table, the mask of configured settings, the walk.
#include <algorithm>
#include <functional>

#include "core_test.h"

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

/* ---- Attributes ----------------------------------------------------------------------- */

struct CarNumber {
    const char *name;
    uint32_t id;
    int bits;
    uint32_t fresh; /**< value in a new entry */
    uint32_t (*field)(const tCpuDefendCarPktEntry &);
};

#define FIELD(f) [](const tCpuDefendCarPktEntry &e) -> uint32_t { return e.f; }

static const CarNumber attributes[] = {
    {"Cir", 0, 32, 16, FIELD(cir)},
    {"Cbs", 1, 32, 6400, FIELD(cbs)},
    {"Pps", 2, 32, 512, FIELD(pps)},
    {"Mode", 3, 32, 0, FIELD(mode)},
    {"Queue", 4, 8, 2, FIELD(queue)},
    {"Priority", 5, 8, 2, FIELD(priority)},
    {"Deny", 6, 8, 2, FIELD(deny)},
    {"TotalPktBps", 9, 32, 0, FIELD(totalPktBps)},
    {"TotalPktPps", 10, 32, 6000, FIELD(totalPktPps)},
};

class CarPktAttribute : public CarPktApi, public testing::WithParamInterface<CarNumber>
{
protected:
    const CarNumber &attribute = GetParam();
    uint32_t field() const { return attribute.field(*entry); }
    int32_t set(uint32_t value) const { return CarPktApi::set(attribute.id, value); }
    uint32_t cut(uint32_t value) const { return attribute.bits == 8 ? value & 0xff : value; }

    static constexpr uint32_t some = 0x89ABCD37; /**< differs from every fresh value, cut or not */
};

TEST_P(CarPktAttribute, GetGivesTheFreshValueWidened)
{
    EXPECT_EQ(getCar("p", 1, attribute.id), (Answer<uint32_t>{0, attribute.fresh}));
}

TEST_P(CarPktAttribute, SetStoresTheValueCutToItsWidth)
{
    EXPECT_EQ(set(some), 0);
    EXPECT_EQ(field(), cut(some));
    EXPECT_EQ(getCar("p", 1, attribute.id), (Answer<uint32_t>{0, cut(some)}));
    EXPECT_EQ(attribute.field(*findCar("p", 2)), attribute.fresh);
    EXPECT_EQ(attribute.field(*findCar("default", 1)), attribute.fresh);
}

TEST_P(CarPktAttribute, SetAndSetBackChangesNothingElse)
{
    const std::string before = image(*entry);
    ASSERT_EQ(set(some), 0);
    ASSERT_EQ(set(attribute.fresh), 0);
    EXPECT_EQ(image(*entry), before);
}

TEST_P(CarPktAttribute, EqualValueCallsNoHook)
{
    EXPECT_EQ(set(attribute.fresh), 0);
    EXPECT_TRUE(seam::hooks.empty());
}

TEST_P(CarPktAttribute, HookSeesTheChangeWithItsFlag)
{
    ASSERT_EQ(set(some), 0);
    tcpuDefendCarPktIdx idx = carIdx("p", 1);
    uint32_t value = some + 1;
    ASSERT_EQ(cpuDefendCarPktSyncApi(&idx, attribute.id, &value), 0);
    EXPECT_EQ(field(), cut(some + 1));
    ASSERT_EQ(seam::hooks.size(), 2u);
    for (int i = 0; i < 2; i++) {
        const seam::Hook &hook = seam::hooks[static_cast<size_t>(i)];
        EXPECT_EQ(hook.table, "carPkt");
        EXPECT_EQ(hook.name, "p");
        EXPECT_EQ(hook.pktType, 1u);
        EXPECT_EQ(hook.id, 8004 + attribute.id);
        EXPECT_EQ(hook.number, i == 0 ? some : some + 1);
        EXPECT_EQ(hook.flag, i == 0 ? 3u : 1u);
    }
}

TEST_P(CarPktAttribute, FailedHookAbandonsTheSet)
{
    const std::string before = image(*entry);
    for (int32_t result : {77, -5}) {
        seam::hookResult = result;
        EXPECT_EQ(set(some), result);
        EXPECT_EQ(image(*entry), before);
    }
}

TEST_P(CarPktAttribute, BoundPolicyIsRefusedAndUnchanged)
{
    const std::string before = image(*entry);
    policy->refCount = 1;
    EXPECT_EQ(set(some), 0x041E0005);
    EXPECT_EQ(set(attribute.fresh), 0x041E0005); // even what would change nothing
    EXPECT_EQ(image(*entry), before);
    EXPECT_TRUE(seam::hooks.empty());
    policy->refCount = 0;
    EXPECT_EQ(set(some), 0);
}

TEST_P(CarPktAttribute, MissingEntryIsNoSuchEntry)
{
    for (const auto &[name, type] : std::vector<std::pair<std::string, uint32_t>>{
             {"nobody", 1}, {"p", 10}, {"p", 257}, {"", 1}, {std::string(40, 'p'), 1}}) {
        EXPECT_EQ(setCar(name, type, attribute.id, some), 0x03E80002);
        EXPECT_EQ(getCar(name, type, attribute.id), (Answer<uint32_t>{0x03E80002, untouched}));
    }
    EXPECT_TRUE(seam::hooks.empty());
}

INSTANTIATE_TEST_SUITE_P(CarPktApi, CarPktAttribute, testing::ValuesIn(attributes),
                         [](const testing::TestParamInfo<CarNumber> &row) {
                             return std::string(row.param.name);
                         });

TEST_F(CarPktApi, CountersAreReadOnly)
{
    entry->pktPassNum = 0x80000001;
    entry->pktDropNum = 22;
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_PASSNUM), (Answer<uint32_t>{0, 0x80000001}));
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_DROPNUM), (Answer<uint32_t>{0, 22}));
    const std::string before = image(*entry);
    for (uint32_t id : {CPUDEFEND_CARPKT_PASSNUM, CPUDEFEND_CARPKT_DROPNUM})
        for (uint32_t value : {0u, 22u})
            EXPECT_EQ(set(id, value), -1) << id;
    EXPECT_EQ(image(*entry), before);
    EXPECT_TRUE(seam::hooks.empty());
}

TEST_F(CarPktApi, UnknownIdIsReadAsNothingAndNotSet)
{
    const std::string before = image(*entry);
    for (uint32_t id : {11u, 12u, 255u, 256u, 0x80000000u, 0xffffffffu}) {
        EXPECT_EQ(getCar("p", 1, id), (Answer<uint32_t>{0, untouched})) << id;
        EXPECT_EQ(set(id, 1), -1) << id;
    }
    EXPECT_EQ(image(*entry), before);
}

TEST_F(CarPktApi, MissingEntryThenBindingComeBeforeTheId)
{
    policy->refCount = 1;
    for (uint32_t id : {CPUDEFEND_CARPKT_PASSNUM + 0u, CPUDEFEND_CARPKT_DROPNUM + 0u, 11u, 99u}) {
        EXPECT_EQ(set(id, 1), 0x041E0005) << id;
        EXPECT_EQ(setCar("p", 10, id, 1), 0x03E80002) << id;
        EXPECT_EQ(getCar("p", 10, id), (Answer<uint32_t>{0x03E80002, untouched})) << id;
    }
    policy->refCount = 0;
}

TEST_F(CarPktApi, ReadingABoundPolicyIsAllowed)
{
    policy->refCount = 1;
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_PPS), (Answer<uint32_t>{0, 512}));
    policy->refCount = 0;
}

TEST_F(CarPktApi, PolicyBoundToTheSystemIsRefusedUntilUnbound)
{
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "p");
    EXPECT_EQ(set(CPUDEFEND_CARPKT_CIR, 64), 0x041E0005);
    EXPECT_EQ(entry->cir, 16u);
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "");
    EXPECT_EQ(set(CPUDEFEND_CARPKT_CIR, 64), 0);
    EXPECT_EQ(entry->cir, 64u);
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

TEST_F(CarPktApi, PolicyBoundAnyNumberOfTimesIsRefused)
{
    for (uint32_t bindings : {1u, 2u, 3u, 0x100u, 0x10000u, 0x80000000u, 0xffffffffu}) {
        policy->refCount = bindings;
        EXPECT_EQ(set(CPUDEFEND_CARPKT_CIR, 64), 0x041E0005) << bindings;
    }
    policy->refCount = 0;
    EXPECT_EQ(entry->cir, 16u);
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

TEST_F(CarPktApi, ChangesProgramNoHardware)
{
    for (const CarNumber &attribute : attributes)
        set(attribute.id, 77);
    EXPECT_TRUE(scripted::calls.empty());
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

TEST_F(CarPktApi, Queue258Stores2AndClearsItsBit)
{
    set(CPUDEFEND_CARPKT_QUEUE, 5);
    ASSERT_EQ(entry->bit, 0x10);
    EXPECT_EQ(set(CPUDEFEND_CARPKT_QUEUE, 258), 0);
    EXPECT_EQ(entry->queue, 2);
    EXPECT_EQ(entry->bit, 0);
    seam::hooks.clear();
    EXPECT_EQ(set(CPUDEFEND_CARPKT_QUEUE, 258), 0); // compared at 32 bits: not equal to 2
    EXPECT_EQ(seam::hooks.size(), 1u);
}

TEST_F(CarPktApi, MaskReachesTheHardware)
{
    set(CPUDEFEND_CARPKT_MODE, 1);
    set(CPUDEFEND_CARPKT_MODE, 2);
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "p");
    EXPECT_EQ(scripted::programming().at(1).car.res, 0xE0);
}

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

TEST_F(CarPktApi, NextOfTheLastTypeIsTheNextNameOfItsLength)
{
    addPolicy("a");
    addPolicy("aa");
    using Next = Answer<std::string>;
    EXPECT_EQ(next("a", 9), (Next{0, "p/0"}));
    EXPECT_EQ(next("p", 9), (Next{0, "aa/0"}));
    EXPECT_EQ(next("aa", 9), (Next{0, "default/0"}));
    EXPECT_EQ(next("default", 9), (Next{-1, "/0"}));
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

/** Leave entries behind, at both ends of the list, under names that change the order. */
static void leaveEntriesBehind()
{
    for (const char *name : {"b", "the longest name"})
        addPolicy(name);
    for (const char *name : {"b", "the longest name"})
        setPolicy(name, CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY);
    addPolicy("a name in between");
}

TEST_F(CarPktApi, WalkOverLeftoverEntriesEndsAndRepeatsNothing)
{
    leaveEntriesBehind();
    ASSERT_EQ(gCpuDefend.useCarPktNum, 50u);
    std::vector<std::string> visited = walk();
    EXPECT_LE(visited.size(), 50u);
    std::sort(visited.begin(), visited.end());
    EXPECT_EQ(std::adjacent_find(visited.begin(), visited.end()), visited.end());
}

TEST_F(CarPktApi, EntryWhosePolicyIsGoneCanBeSetUnderTheEmptyName)
{
    setPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY);
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_PPS).code, 0x03E80002);
    EXPECT_EQ(setCar("", 1, CPUDEFEND_CARPKT_PPS, 7), 0);
    EXPECT_EQ(entry->pps, 7u);
}

TEST_F(CarPktApi, ShowPrintsLeftoverEntriesToo)
{
    leave(1);
    setPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY);
    EXPECT_EQ(show(), "**************************************\r\n"
                      "policyName=,pktType=1,cbs=6400,cir=16,deny=2,pri=2");
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

TEST_F(CarPktApi, ShowPrintsDuplicatesToo)
{
    leave(1);
    addCar("p", 1);
    const std::string line = "**************************************\r\n"
                             "policyName=p,pktType=1,cbs=6400,cir=16,deny=2,pri=2";
    EXPECT_EQ(show(), line + line);
}

TEST_F(CarPktApi, ShowOfAnEmptyListPrintsNothing)
{
    for (tCpuDefendCarPktEntry *each : carEntries())
        cpuDefendCarPktEntryDel(each);
    EXPECT_EQ(show(), "");
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

/* ---- Semaphore and kinds -------------------------------------------------------------- */

TEST_F(CarPktApi, SemaphoreIsTakenByEveryCallButShow)
{
    tcpuDefendCarPktIdx idx{};
    const std::vector<std::function<void()>> all{
        [] { getCar("p", 1, 0); },
        [] { getCar("p", 1, 99); },
        [] { getCar("nobody", 1, 0); },
        [this] { set(0, 5); },
        [this] { set(0, 5); },
        [this] { set(7, 5); },
        [this] { set(99, 5); },
        [] { setCar("nobody", 1, 0, 5); },
        [&] { cpuDefendCarPktGetFirst(&idx); },
        [&] { cpuDefendCarPktGetNext(&idx, &idx); },
        [&] { idx = carIdx("zzzzzzzz", 0), cpuDefendCarPktGetNext(&idx, &idx); },
        [this] {
            seam::hookResult = 1;
            set(0, 6);
        },
        [this] {
            policy->refCount = 1;
            set(0, 6);
            policy->refCount = 0;
        },
    };
    for (size_t i = 0; i < all.size(); i++) {
        seam::semTakes = 0;
        all[i]();
        EXPECT_EQ(seam::semTakes, 1) << i;
        EXPECT_EQ(seam::semDepth, 0) << i;
    }
    seam::semTakes = 0;
    show();
    EXPECT_EQ(seam::semTakes, 0);
}

TEST(CarPktAttrKind, IsANumberForEveryAttribute)
{
    for (uint32_t id = 0; id <= 10; id++)
        EXPECT_EQ(cpuDefendCarPktAttrKind(id), NM_NUMBER) << id;
    for (uint32_t id : {11u, 255u, 256u, 0xffffffffu})
        EXPECT_EQ(cpuDefendCarPktAttrKind(id), NM_ANY) << id;
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

TEST_F(CarPktApi, CountersOfAPolicyThatIsNowhereProgrammedAreNotAskedFor)
{
    entry->pktPassNum = 5;
    EXPECT_EQ(getCar("p", 1, CPUDEFEND_CARPKT_PASSNUM), (Answer<uint32_t>{0, 5}));
    EXPECT_TRUE(scripted::counted.empty());
}
