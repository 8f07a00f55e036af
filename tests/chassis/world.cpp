#include "world.h"

#include <cstdlib>
#include <cstring>
#include <set>

#include "core/invariants.h"
#include "cpuDefend_nm_api.h"

namespace chassis
{

/* ---- The vocabulary of steps -------------------------------------------------------------- */

static const std::string names[] = {
    "a", "b", "cc", "ddd", "a-name-as-long-as-a-name-may-be!", "default", "nobody", ""};

static const std::pair<uint32_t, uint32_t> slotNumbers[] = {{1, 1}, {1, 2}, {2, 1}, {257, 1}};

static const uint32_t thresholds[] = {0, 10, 30, 50, 60, 90, 100, 255};
static const uint32_t usages[] = {0, 1, 10, 11, 31, 50, 51, 75, 90, 91, 100};
static const uint32_t modes[] = {0, 1, 2, 1, 0, 1};
static const uint32_t periods[] = {1, 100, 250, 499, 500, 500, 1000, 2000}; // ms
static const uint32_t callsAhead[] = {0, 0, 0, 1, 2, 3, 5, 8, 13, 21};
static const uint32_t positions[] = {0, 1, 2, 3, 4, 255};

/** Flags of a set: a local change, or one replayed from the peer. */
static const uint32_t flags[] = {ZYN_FLAG_LOCAL, ZYN_FLAG_PEER};

/** Attributes of a policy, each with values to choose from. */
static const struct {
    uint32_t attr;
    uint32_t values[4];
} policySettings[] = {
    {CPUDEFEND_POLICY_WHITELISTENABLE, {1, 2, 1, 1}},
    {CPUDEFEND_POLICY_WHITELISTIP4ACL, {0, 2000, 2001, 65536}},
    {CPUDEFEND_POLICY_WHITELISTIP6ACL, {0, 3000, 3001, 3000}},
    {CPUDEFEND_POLICY_WHITELISTIP4CIR, {16, 64, 128, 0}},
    {CPUDEFEND_POLICY_BLACKLISTENABLE, {1, 2, 1, 1}},
    {CPUDEFEND_POLICY_BLACKLISTIP4ACL, {0, 2500, 2501, 2000}},
    {CPUDEFEND_POLICY_BLACKLISTIP6ACL, {0, 3500, 0, 3501}},
    {CPUDEFEND_POLICY_SRCTRACEENABLE, {1, 2, 1, 257}},
    {CPUDEFEND_POLICY_SRCTRACEPKTDATAENABLE, {1, 2, 1, 2}},
    {CPUDEFEND_POLICY_SRCTRACETHRESHOLD, {0, 1, 2, 128}},
    {CPUDEFEND_POLICY_SRCTRACEALARMTHRESHOLD, {0, 1, 3, 128}},
};

static const uint32_t ruleValues[] = {0, 1, 2000, 4000};

/** Not the rate: it marks the policy. */
static const uint32_t carAttrs[] = {CPUDEFEND_CARPKT_CBS,      CPUDEFEND_CARPKT_PPS,
                                    CPUDEFEND_CARPKT_MODE,     CPUDEFEND_CARPKT_QUEUE,
                                    CPUDEFEND_CARPKT_PRIORITY, CPUDEFEND_CARPKT_DENY};

template <typename T, size_t N> static constexpr uint32_t sizeOf(const T (&)[N])
{
    return N;
}

/** What a step is called, how often a random one is of this kind, its arguments, its doing. */
static const struct OpInfo {
    Op op;
    const char *name;
    uint32_t weight;
    uint32_t a, b, c; /**< each argument is below */
    void (World::*run)(const Step &);
} ops[] = {
    {Op::BindSystem, "BindSystem", 6, 8, 2, 1, &World::bindSystem},
    {Op::SystemMode, "SystemMode", 4, sizeOf(modes), 2, 1, &World::systemMode},
    {Op::SystemThreshold, "SystemThreshold", 3, 3, sizeOf(thresholds), 2, &World::systemThreshold},
    {Op::SystemLevel, "SystemLevel", 5, 3, 8, 2, &World::systemLevel},
    {Op::BindSlot, "BindSlot", 8, 4, 8, 2, &World::bindSlot},
    {Op::SlotMode, "SlotMode", 5, 4, sizeOf(modes), 2, &World::slotMode},
    {Op::SlotThreshold, "SlotThreshold", 4, 4, 3, sizeOf(thresholds), &World::slotThreshold},
    {Op::SlotLevel, "SlotLevel", 7, 4, 3, 8, &World::slotLevel},
    {Op::AddSlot, "AddSlot", 5, 4, 1, 1, &World::addSlot},
    {Op::DeleteSlot, "DeleteSlot", 2, 3, 1, 1, &World::deleteSlot},
    {Op::CreatePolicy, "CreatePolicy", 6, 6, 1, 1, &World::createPolicy},
    {Op::DestroyPolicy, "DestroyPolicy", 5, 8, 1, 1, &World::destroyPolicy},
    {Op::ConfigurePolicy, "ConfigurePolicy", 7, 7, sizeOf(policySettings), 4,
     &World::configurePolicy},
    {Op::CreateRule, "CreateRule", 5, 8, 4, 1, &World::createRule},
    {Op::DestroyRule, "DestroyRule", 4, 8, 4, 1, &World::destroyRule},
    {Op::ConfigureRule, "ConfigureRule", 6, 6 * 4, 5, sizeOf(ruleValues), &World::configureRule},
    {Op::ConfigureCar, "ConfigureCar", 4, 6 * 10, sizeOf(carAttrs), 3, &World::configureCar},
    {Op::ReleaseLeftover, "ReleaseLeftover", 5, 40, 1, 1, &World::releaseLeftover},
    {Op::Usage, "Usage", 10, sizeOf(usages), 100, 1, &World::usage},
    {Op::Advance, "Advance", 22, sizeOf(periods), 1, 1, &World::advance},
    {Op::Role, "Role", 1, 10, 1, 1, &World::role},
    {Op::Packet, "Packet", 8, 5, 2, 3, &World::packets},
    {Op::ResetSystemTraces, "ResetSystemTraces", 1, 2, 2, 1, &World::resetSystemTraces},
    {Op::ResetSlotTraces, "ResetSlotTraces", 4, 4, 2, 1, &World::resetSlotTraces},
    {Op::ReceiveSync, "ReceiveSync", 2, 5, sizeOf(positions), 1, &World::receiveSync},
    {Op::FailCall, "FailCall", 5, sizeOf(callsAhead), 1, 1, &World::failCall},
};

static constexpr bool opsInOrder()
{
    constexpr Op last = Op::FailCall;
    return sizeof ops / sizeof *ops == static_cast<size_t>(last) + 1;
}
static_assert(opsInOrder());

static const OpInfo &infoOf(Op op)
{
    return ops[static_cast<size_t>(op)];
}

std::string Step::text() const
{
    return std::string(infoOf(op).name) + ' ' + std::to_string(a) + ' ' + std::to_string(b) + ' ' +
           std::to_string(c);
}

static Step withArguments(const OpInfo &info, std::mt19937 &random)
{
    const auto below = [&random](uint32_t limit) {
        return static_cast<uint32_t>(random()) % limit;
    };
    Step step{info.op};
    step.a = below(info.a);
    step.b = below(info.b);
    step.c = below(info.c);
    return step;
}

Step randomStep(std::mt19937 &random, Op op)
{
    return withArguments(infoOf(op), random);
}

Step randomStep(std::mt19937 &random)
{
    uint32_t total = 0;
    for (const OpInfo &info : ops)
        total += info.weight;
    uint32_t left = static_cast<uint32_t>(random()) % total;
    const OpInfo *info = ops;
    for (; left >= info->weight; info++)
        left -= info->weight;
    return withArguments(*info, random);
}

/* ---- Values and indexes ------------------------------------------------------------------- */

static unsigned char *bytes(std::string &text)
{
    return reinterpret_cast<unsigned char *>(text.data());
}

/** A value of the management API: bytes or a number. */
class Value
{
public:
    explicit Value(const std::string &text) : text_(text) { cell_.octets = octets(); }
    explicit Value(uint32_t number) { cell_.number = number; }
    octetstring *operator()() { return &cell_.octets; }

private:
    octetstring octets() { return {bytes(text_), static_cast<uint32_t>(text_.size())}; }

    std::string text_;
    union {
        octetstring octets;
        uint32_t number;
    } cell_;
};

template <typename Idx> static Idx childIdx(const std::string &policy, uint32_t number)
{
    Idx idx{};
    memcpy(idx.policyName, policy.data(), policy.size());
    idx.policyNameLen = static_cast<uint32_t>(policy.size());
    if constexpr (requires { idx.index; })
        idx.index = number;
    else
        idx.pktType = number;
    return idx;
}

static tCpuDefendPolicyIdx policyIdx(const std::string &policy)
{
    tCpuDefendPolicyIdx idx{};
    memcpy(idx.name, policy.data(), policy.size());
    idx.len = static_cast<uint32_t>(policy.size());
    return idx;
}

template <typename Bytes> static std::string text(const Bytes &name, uint32_t len)
{
    return std::string(reinterpret_cast<const char *>(name), len);
}

static int32_t setSystem(uint32_t attr, Value value, uint32_t flag)
{
    return _cpuDefendGlobalSetApi(0, attr, value(), flag);
}

static int32_t setSlot(uint32_t which, uint32_t attr, Value value, uint32_t flag)
{
    tcpuDefendSlotIdx idx{slotNumbers[which].first, slotNumbers[which].second};
    return _cpuDefendSlotSetApi(&idx, attr, value(), flag);
}

/* ---- Life ----------------------------------------------------------------------------------- */

static uint64_t clockReading;

static uint64_t readClock()
{
    return clockReading;
}

/** Interface units from here on: none that this machine has, or its link would be a card. */
static constexpr uint32_t NO_LINK = 2000000000;

static uint64_t started()
{
    startHardware();
    for (uint32_t i = 0; i < 3; i++)
        scripted::script.ports[NO_LINK + i + 1] = slotNumbers[i];
    scripted::script.ports[NO_LINK + 4] = {0, 0}; // the system itself
    clockReading = 1000;
    osClockSet(readClock);
    return clockReading;
}

World::World(uint32_t policies, uint32_t slots) : model(policies, slots, started())
{
    if (cpuDefendInit(policies, slots) != 0)
        abort();
    cpuDefenTaskStart();
    mark("default");
}

World::~World()
{
    cpuDefendRelease();
    osClockSet(nullptr);
}

/** Give a new policy's first CAR entry a rate by which the hardware's copies can be told. */
void World::mark(const std::string &name)
{
    Policy *policy = model.findPolicy(name);
    list_head &cars = gCpuDefend.policyTable[policy->record].carPktList;
    if (list_empty(&cars))
        return; // the pool of CAR entries is exhausted
    policy->mark = 1000000 + ++marks_;
    list_entry(cars.next, tCpuDefendCarPktEntry, policyNode)->cir = policy->mark;
}

void World::take(const Step &step)
{
    hardware.log.clear();
    model.beginStep();
    (this->*infoOf(step.op).run)(step);
    for (const std::string &complaint : model.endStep())
        found_.push_back(complaint);
}

std::vector<std::string> World::run(const Step &step)
{
    return prepare({step});
}

std::vector<std::string> World::prepare(const std::vector<Step> &steps)
{
    found_.clear();
    for (const Step &step : steps)
        take(step);
    check();
    return found_;
}

/* ---- Steps: the system and the slots ----------------------------------------------------------
 */

void World::bindSystem(const Step &s)
{
    const int32_t seen = setSystem(CPUDEFEND_GLOBAL_POLICY, Value(names[s.a]), flags[s.b]);
    expect("result", model.setSystemPolicy(names[s.a], flags[s.b]), seen);
}

void World::systemMode(const Step &s)
{
    const int32_t seen = setSystem(CPUDEFEND_GLOBAL_POLICYMODE, Value(modes[s.a]), flags[s.b]);
    expect("result", model.setSystemMode(modes[s.a], flags[s.b]), seen);
}

void World::systemThreshold(const Step &s)
{
    const uint32_t value = thresholds[s.b];
    const int32_t seen = setSystem(CPUDEFEND_GLOBAL_L1CPURAT + 2 * s.a, Value(value), flags[s.c]);
    expect("result", model.setSystemThreshold(s.a + 1, value, flags[s.c]), seen);
}

void World::systemLevel(const Step &s)
{
    const int32_t seen =
        setSystem(CPUDEFEND_GLOBAL_L1POLICYNAME + 2 * s.a, Value(names[s.b]), flags[s.c]);
    expect("result", model.setSystemLevel(s.a + 1, names[s.b], flags[s.c]), seen);
}

static Slot *slotOf(Model &model, uint32_t which)
{
    return model.findSlot(slotNumbers[which].first, slotNumbers[which].second);
}

void World::bindSlot(const Step &s)
{
    const int32_t seen = setSlot(s.a, CPUDEFEND_SLOT_POLICY, Value(names[s.b]), flags[s.c]);
    Slot *slot = slotOf(model, s.a);
    expect("result", slot ? model.setSlotPolicy(slot, names[s.b], flags[s.c]) : CPUDEFEND_ENOSLOT,
           seen);
}

void World::slotMode(const Step &s)
{
    const int32_t seen = setSlot(s.a, CPUDEFEND_SLOT_POLICYMODE, Value(modes[s.b]), flags[s.c]);
    Slot *slot = slotOf(model, s.a);
    expect("result", slot ? model.setSlotMode(slot, modes[s.b], flags[s.c]) : CPUDEFEND_ENOSLOT,
           seen);
}

void World::slotThreshold(const Step &s)
{
    const uint32_t value = thresholds[s.c];
    const int32_t seen =
        setSlot(s.a, CPUDEFEND_SLOT_L1CPURAT + 2 * s.b, Value(value), ZYN_FLAG_LOCAL);
    Slot *slot = slotOf(model, s.a);
    expect("result",
           slot ? model.setSlotThreshold(slot, s.b + 1, value, ZYN_FLAG_LOCAL) : CPUDEFEND_ENOSLOT,
           seen);
}

void World::slotLevel(const Step &s)
{
    const int32_t seen =
        setSlot(s.a, CPUDEFEND_SLOT_L1POLICYNAME + 2 * s.b, Value(names[s.c]), ZYN_FLAG_PEER);
    Slot *slot = slotOf(model, s.a);
    expect("result",
           slot ? model.setSlotLevel(slot, s.b + 1, names[s.c], ZYN_FLAG_PEER) : CPUDEFEND_ENOSLOT,
           seen);
}

void World::addSlot(const Step &s)
{
    const auto [sys, slot] = slotNumbers[s.a];
    const bool seen = cpuDefendSlotEntryAdd(sys, slot) != nullptr;
    expect("result", model.addSlot(sys, slot) != nullptr, seen);
}

void World::deleteSlot(const Step &s)
{
    Slot *slot = slotOf(model, s.a);
    tCpuDefendSlotEntry *entry =
        cpuDefendSlotEntryGet(slotNumbers[s.a].first, slotNumbers[s.a].second);
    expect("slot found", slot != nullptr, entry != nullptr);
    if (!slot || !entry)
        return;
    const int32_t seen = cpuDefendSlotEntryDel(entry);
    expect("result", model.deleteSlot(slot), seen);
}

/* ---- Steps: policies, rules, CAR entries ------------------------------------------------------
 */

void World::createPolicy(const Step &s)
{
    tCpuDefendPolicyIdx idx = policyIdx(names[s.a]);
    const int32_t seen =
        cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_ENTRYSTATUS, Value(CPUDEFEND_ROW_CREATE)());
    if (model.findPolicy(names[s.a]))
        return expect("result", 0, seen);
    const bool created = model.createPolicy(names[s.a]) != nullptr;
    expect("result", created ? 0 : CPUDEFEND_ENOMEM, seen);
    if (created && seen == 0)
        mark(names[s.a]);
}

void World::destroyPolicy(const Step &s)
{
    tCpuDefendPolicyIdx idx = policyIdx(names[s.a]);
    const int32_t seen =
        cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_ENTRYSTATUS, Value(CPUDEFEND_ROW_DESTROY)());
    expect("result", model.destroyPolicy(names[s.a]), seen);
}

void World::configurePolicy(const Step &s)
{
    const uint32_t attr = policySettings[s.b].attr;
    const uint32_t value = policySettings[s.b].values[s.c];
    const Policy *policy = model.findPolicy(names[s.a]);
    const bool retimed = policy && attr == CPUDEFEND_POLICY_SRCTRACEENABLE &&
                         gCpuDefend.policyTable[policy->record].srcTraceEnable != value;
    tCpuDefendPolicyIdx idx = policyIdx(names[s.a]);
    const int32_t seen = cpuDefendPolicySetApi(&idx, attr, Value(value)());
    if (retimed)
        model.setTracing(*policy, value == CPUDEFEND_ENABLE);
    if (!policy)
        expect("result", CPUDEFEND_ENOENTRY, seen);
    else if (seen == CPUDEFEND_EINUSE)
        expect("warned of a policy in use", true, policy->refCount != 0);
    else if (seen != CPUDEFEND_EWHITELISTOFF && seen != CPUDEFEND_EBLACKLISTOFF)
        expect("result", 0, seen);
}

/** What changing a rule or CAR entry gives, when there is such a one. */
static int32_t changeResult(Model &model, const std::string &policy, bool exists)
{
    if (!exists)
        return CPUDEFEND_ENOENTRY;
    const Policy *owner = model.findPolicy(policy);
    return owner && owner->refCount != 0 ? CPUDEFEND_EBOUND : 0;
}

static int32_t setRule(const std::string &policy, uint32_t index, uint32_t attr, uint32_t value)
{
    auto idx = childIdx<tcpuDefendUserDefinedIdx>(policy, index);
    return cpuDefendUserDefinedSetApi(&idx, attr, &value);
}

static bool ruleExists(const std::string &policy, uint32_t index)
{
    std::string copy = policy;
    return cpuDefendUserDefinedEntryGet(bytes(copy), static_cast<uint32_t>(copy.size()), index);
}

static int32_t createResult(Model &model, const std::string &policy, uint32_t index)
{
    const Policy *owner = model.findPolicy(policy);
    if (owner && owner->refCount != 0)
        return CPUDEFEND_EBOUND;
    if (ruleExists(policy, index))
        return 0;
    if (!owner)
        return CPUDEFEND_ENOPOLICY;
    return list_empty(&gCpuDefend.userDefinedFreeList) ? CPUDEFEND_ENOMEM : 0;
}

void World::createRule(const Step &s)
{
    const int32_t expected = createResult(model, names[s.a], s.b);
    const uint32_t before = gCpuDefend.useUserDefinedNum;
    const bool existed = ruleExists(names[s.a], s.b);
    expect("result", expected,
           setRule(names[s.a], s.b, CPUDEFEND_USERDEFINED_ENTRYSTATUS, CPUDEFEND_ROW_CREATE));
    expect("count of rules", before + (expected == 0 && !existed), gCpuDefend.useUserDefinedNum);
}

void World::destroyRule(const Step &s)
{
    const uint32_t before = gCpuDefend.useUserDefinedNum;
    const bool existed = ruleExists(names[s.a], s.b);
    const int32_t expected = changeResult(model, names[s.a], true); // 0 without a rule, too
    expect("result", expected,
           setRule(names[s.a], s.b, CPUDEFEND_USERDEFINED_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY));
    expect("count of rules", before + (expected == 0 && existed), gCpuDefend.useUserDefinedNum);
}

void World::configureRule(const Step &s)
{
    const std::string &policy = names[s.a / 4];
    const uint32_t index = s.a % 4;
    const int32_t expected = changeResult(model, policy, ruleExists(policy, index));
    expect("result", expected,
           setRule(policy, index, CPUDEFEND_USERDEFINED_DENY + s.b, ruleValues[s.c]));
}

void World::configureCar(const Step &s)
{
    const std::string &policy = names[s.a / 10];
    const uint32_t type = s.a % 10;
    uint32_t value = s.c;
    auto idx = childIdx<tcpuDefendCarPktIdx>(policy, type);
    const bool exists = cpuDefendCarPktEntryGet(idx.policyName, idx.policyNameLen, type);
    const int32_t expected = changeResult(model, policy, exists);
    expect("result", expected, cpuDefendCarPktSetApi(&idx, carAttrs[s.b], &value));
}

/** Give back a CAR entry that outlived its policy, so that the pool lasts. */
void World::releaseLeftover(const Step &s)
{
    uint32_t left = s.a;
    list_for_each_entry(tCpuDefendCarPktEntry, car, &gCpuDefend.carPktList, node)
    {
        if (!list_empty(&car->policyNode) || left-- != 0)
            continue;
        const uint32_t before = gCpuDefend.useCarPktNum;
        expect("result", 0, cpuDefendCarPktEntryDel(car));
        return expect("count of CAR entries", before - 1, gCpuDefend.useCarPktNum);
    }
}

/* ---- Steps: time, hardware, packets, the peer --------------------------------------------------
 */

void World::usage(const Step &s)
{
    hardware.percent = usages[s.a];
    hardware.hundredths = s.b;
}

void World::advance(const Step &s)
{
    clockReading += periods[s.a];
    timerListCheck(&gCpuDefend.timerList);
    model.advance(periods[s.a]);
}

/** The master more often than not. */
void World::role(const Step &s)
{
    scripted::script.slave = s.a == 0;
}

/** A packet from 10.0.0.n: an ARP request or an IGMP report. */
struct Frame {
    unsigned char bytes[CPUDEFEND_PKTDATA_LEN] = {};
    uint32_t protocol;
    uint8_t pktType;
    const uint8_t *srcIp;

    Frame(bool arp, uint8_t n) : protocol(arp ? 0x0806 : 0x0800)
    {
        pktType = arp ? CPUDEFEND_PKTTYPE_ARP : CPUDEFEND_PKTTYPE_IGMP;
        unsigned char *network = bytes + 14;
        unsigned char *source = network + (arp ? 14 : 12);
        network[0] = 0x45;
        network[9] = 2; // IGMP
        source[0] = 10;
        source[3] = n;
        bytes[11] = n; // the source MAC's last byte
        srcIp = source;
    }
};

/** What a packet should add to a CAR entry's total: 1, and 1 more when its source is recorded. */
static uint32_t totalAfter(const tCpuDefendCarPktEntry &car, uint32_t before, uint32_t ifUnit,
                           const Frame &frame)
{
    if (car.pktType != frame.pktType)
        return before;
    const auto *trace =
        cpuDefendSrcTraceEntryGet(ifUnit, frame.srcIp, frame.pktType, frame.bytes + 6);
    return before + (trace && trace->totalNum == before + 1 ? 2 : 1);
}

/** Three packets in one tick of up-time, so that a burst can come of them. */
void World::packets(const Step &s)
{
    for (int i = 0; i < 3; i++)
        packet(s);
}

void World::packet(const Step &s)
{
    const Frame frame(s.b == 0, static_cast<uint8_t>(s.c));
    const uint32_t ifUnit = NO_LINK + s.a;
    const auto port = scripted::script.ports.find(ifUnit);
    const bool known = port != scripted::script.ports.end();
    const Slot *slot = known ? model.findSlot(port->second.first, port->second.second) : nullptr;
    const Policy *policy = model.findPolicy(slot ? slot->name : model.system.name);
    const bool traced =
        known && policy && gCpuDefend.policyTable[policy->record].srcTraceEnable == 1;

    std::vector<uint32_t> totals;
    for (uint32_t i = 0; i < gCpuDefend.maxCarPktNum; i++)
        totals.push_back(gCpuDefend.carPktTable[i].pktSrcTraceTotalNum);
    expect("result", traced ? 0 : -1,
           cpuDefendSrcTracePktData(ifUnit, frame.protocol, frame.bytes, 14, 0, 0));
    for (uint32_t i = 0; i < gCpuDefend.maxCarPktNum; i++) {
        const tCpuDefendCarPktEntry &car = gCpuDefend.carPktTable[i];
        const bool concerned = traced && !list_empty(&car.policyNode) && car.policyNode.next &&
                               car.policyEntry == &gCpuDefend.policyTable[policy->record];
        expect("total of packets",
               concerned ? totalAfter(car, totals[i], ifUnit, frame) : totals[i],
               car.pktSrcTraceTotalNum);
    }
}

/** Traced sources, of one slot or of all others. */
static uint32_t traces(const Slot *slot, bool ofIt)
{
    uint32_t n = 0;
    for (void *at = avl_first(&gCpuDefend.srcTraceList); at;
         at = avl_next(&gCpuDefend.srcTraceList, at)) {
        const auto *trace = static_cast<tCpuDefendSrcTraceEntry *>(at);
        n += ofIt == (trace->sysId == slot->sys && trace->slotId == slot->slot);
    }
    return n;
}

void World::resetSystemTraces(const Step &s)
{
    const uint32_t before = gCpuDefend.useSrcTraceNum;
    const int32_t seen = setSystem(CPUDEFEND_GLOBAL_RESETSRCTRACE, Value(s.a), flags[s.b]);
    const int32_t expected = model.resetSystemTraces(s.a, flags[s.b]);
    expect("result", expected, seen);
    expect("traces", expected == 0 ? 0 : before, gCpuDefend.useSrcTraceNum);
}

void World::resetSlotTraces(const Step &s)
{
    Slot *slot = slotOf(model, s.a);
    const uint32_t own = slot ? traces(slot, true) : 0;
    const uint32_t others = slot ? traces(slot, false) : 0;
    const int32_t seen = setSlot(s.a, CPUDEFEND_SLOT_RESETSRCTRACE, Value(s.a), flags[s.b]);
    if (!slot)
        return expect("result", CPUDEFEND_ENOSLOT, seen);
    const int32_t expected = model.resetSlotTraces(slot, s.a, flags[s.b]);
    expect("result", expected, seen);
    const bool reset = expected == 0 && slot->policy != NO_RECORD &&
                       gCpuDefend.policyTable[slot->policy].srcTraceEnable == 1;
    expect("the slot's traces", reset ? 0 : own, traces(slot, true));
    expect("others' traces", others, traces(slot, false));
}

void World::receiveSync(const Step &s)
{
    const uint32_t sys = s.a < 4 ? slotNumbers[s.a].first : 0;
    const uint32_t slot = s.a < 4 ? slotNumbers[s.a].second : 0;
    const auto position = static_cast<uint8_t>(positions[s.b]);
    std::string record(12 + 5, '\x07'); // the last five bytes are no record
    memset(record.data(), 0, 12);
    record[2] = static_cast<char>(sys >> 8);
    record[3] = static_cast<char>(sys);
    record[7] = static_cast<char>(slot);
    record[11] = static_cast<char>(position);
    expect("result", 0, setSystem(CPUDEFEND_GLOBAL_SYNCSTATE, Value(record), ZYN_FLAG_PEER));
    model.receiveSync(sys, slot, position);
}

void World::failCall(const Step &s)
{
    hardware.failAt = hardware.failable + callsAhead[s.a];
}

/* ---- Checks ------------------------------------------------------------------------------------
 */

std::string World::about() const
{
    return *about_ ? about_ + std::to_string(record_) + ' ' : "";
}

void World::expect(const char *what, int64_t expected, int64_t seen)
{
    if (expected != seen)
        found_.push_back(about() + what + ": expected " + std::to_string(expected) + ", saw " +
                         std::to_string(seen));
}

void World::expect(const char *what, const std::string &expected, const std::string &seen)
{
    if (expected != seen)
        found_.push_back(about() + what + ": expected '" + expected + "', saw '" + seen + '\'');
}

void World::check()
{
    const std::vector<std::string> broken = invariants::violations();
    found_.insert(found_.end(), broken.begin(), broken.end());
    found_.insert(found_.end(), hardware.complaints.begin(), hardware.complaints.end());
    expect("the end of a change that has not begun", false, scripted::loneEnd);
    if (!broken.empty())
        return; // links may lead nowhere
    about_ = "system ";
    record_ = 0;
    checkController(model.system, gCpuDefend.cpuRatControl,
                    text(gCpuDefend.policyName, gCpuDefend.policyNameLen), gCpuDefend.policyMode,
                    gCpuDefend.selectedPosition);
    checkPolicies();
    checkSlots();
    checkTimers();
    about_ = "";
}

void World::checkController(const Controller &expected, const tCpuDefendCpuRatControl *levels,
                            const std::string &name, uint32_t mode, uint32_t position)
{
    expect("policy", expected.name, name);
    expect("mode", expected.mode, mode);
    expect("position", expected.position, position);
    for (size_t i = 0; i < expected.levels.size(); i++) {
        expect("threshold", expected.levels[i].threshold, levels[i].cpuRat);
        expect("level", expected.levels[i].name,
               text(levels[i].policyName, levels[i].policyNameLen));
    }
}

void World::checkPolicies()
{
    about_ = "policy ";
    expect("count", static_cast<int64_t>(model.policies.size()), gCpuDefend.usePolicyNum);
    void *at = avl_first(&gCpuDefend.policyList);
    for (const auto &[name, policy] : model.policies) {
        const auto *entry = static_cast<tCpuDefendPolicyEntry *>(at);
        if (!entry)
            return;
        record_ = static_cast<size_t>(policy.record);
        expect("record", policy.record, entry - gCpuDefend.policyTable);
        expect("name", name, text(entry->policyName, entry->policyNameLen));
        expect("refCount", policy.refCount, entry->refCount);
        expect("places that hold it", static_cast<uint32_t>(policy.refCount - policy.unpaired),
               policy.mark ? hardware.copies(policy.mark) : 0);
        at = avl_next(&gCpuDefend.policyList, at);
    }
}

static std::deque<int> slotRecords(const list_head &head)
{
    std::deque<int> records;
    list_for_each_entry(const tCpuDefendSlotEntry, slot, &head, node)
        records.push_back(static_cast<int>(slot - gCpuDefend.slotTable));
    return records;
}

void World::checkSlots()
{
    about_ = "slot ";
    expect("order", true, slotRecords(gCpuDefend.slotList) == model.slots);
    expect("free order", true, slotRecords(gCpuDefend.slotFreeList) == model.freeSlots);
    for (record_ = 0; record_ < model.slotRecords.size(); record_++) {
        const tCpuDefendSlotEntry &seen = gCpuDefend.slotTable[record_];
        const Slot &expected = model.slotRecords[record_];
        checkController(expected, seen.cpuRatControl, text(seen.policyName, seen.policyNameLen),
                        seen.policyMode, seen.selectedPosition);
        expect("sysId", expected.sys, seen.sysId);
        expect("slotId", expected.slot, seen.slotId);
        expect("policy record", expected.policy,
               seen.policyEntry ? seen.policyEntry - gCpuDefend.policyTable : NO_RECORD);
    }
}

static Timer timerOf(const tTimerNode *node)
{
    if (node == &gCpuDefend.cpuRatControlTimer)
        return {Timer::System, 0, node->expiry};
    for (uint32_t i = 0; i < gCpuDefend.maxSlotNum; i++)
        if (node == &gCpuDefend.slotTable[i].cpuRatControlTimer)
            return {Timer::OfSlot, static_cast<int>(i), node->expiry};
    for (uint32_t i = 0; i < gCpuDefend.maxPolicyNum; i++)
        if (node == &gCpuDefend.policyTable[i].srcTraceTimer)
            return {Timer::OfPolicy, static_cast<int>(i), node->expiry};
    return {Timer::System, NO_RECORD, 0};
}

void World::checkTimers()
{
    about_ = "timer ";
    std::deque<Timer> seen;
    list_for_each_entry(const tTimerNode, node, &gCpuDefend.timerList, link)
        seen.push_back(timerOf(node));
    expect("order", true, seen == model.timers);
}

bool World::isPaired() const
{
    for (const auto &[name, policy] : model.policies)
        if (policy.unpaired != 0 || (policy.mark == 0 && policy.refCount != 0))
            return false;
    return true;
}

} // namespace chassis
