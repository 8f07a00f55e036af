// What is programmed follows the cards: random steps on stepped time, and after each the hardware
// holds what binding all of the configuration afresh would program.
//
// CPUDEFEND_SEED and CPUDEFEND_STEPS replace the seeds and the number of steps of each.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>

#include "core/invariants.h"
#include "core/link_message.h"
#include "cpuDefend/cpuDefend_change.h"
#include "cpuDefend_nm_api.h"
#include "fresh.h"
#include "world.h"

using namespace cpudefend;

using namespace chassis;

namespace
{

using Numbers = std::pair<uint32_t, uint32_t>;

constexpr Numbers NO_SLOT{0, 0};
constexpr uint32_t FIRST_UNIT = 2000000100; // none that this machine has
constexpr uint32_t UNITS = 7;
constexpr uint32_t SLOTS = 3; // records, for the four slots that there can be
const Numbers places[] = {{1, 1}, {1, 2}, {2, 1}, {7, 200}, NO_SLOT, NO_SLOT, {1, 300}};
const std::string names[] = {"a", "b", "cc", "ddd", "default", "nobody", ""};

uint64_t clockReading;

uint64_t readClock()
{
    return clockReading;
}

unsigned char *bytes(std::string &text)
{
    return reinterpret_cast<unsigned char *>(text.data());
}

/** Ports and the records of their slots, as they should be. */
class Cards
{
public:
    void come(uint32_t unit, Numbers place)
    {
        if (place.first > 255 || place.second > 255)
            place = NO_SLOT;
        auto port = find(unit);
        const Numbers before = port == ports_.end() ? NO_SLOT : port->second;
        if (port == ports_.end() && place == NO_SLOT)
            return;
        if (port == ports_.end())
            ports_.emplace_back(unit, place);
        else
            port->second = place;
        if (before != place)
            settle(before);
    }

    void go(uint32_t unit) { come(unit, NO_SLOT); }

    void goAll()
    {
        ports_.clear();
        records.clear();
    }

    std::multiset<Numbers> records;
    bool everHadOne = false;

private:
    using Port = std::pair<uint32_t, Numbers>;

    std::vector<Port>::iterator find(uint32_t unit)
    {
        return std::find_if(ports_.begin(), ports_.end(),
                            [unit](const Port &port) { return port.first == unit; });
    }

    void settle(Numbers left)
    {
        ports_.erase(std::remove_if(ports_.begin(), ports_.end(),
                                    [](const Port &port) { return port.second == NO_SLOT; }),
                     ports_.end());
        if (std::none_of(ports_.begin(), ports_.end(),
                         [left](const Port &port) { return port.second == left; }))
            records.erase(left);
        for (const Port &port : ports_)
            if (!records.count(port.second) && records.size() < SLOTS) {
                records.insert(port.second);
                everHadOne = true;
            }
    }

    std::vector<Port> ports_;
};

class Walk
{
public:
    explicit Walk(uint32_t seed) : random_(seed)
    {
        clockReading = 1000;
        osClockSet(readClock);
    }

    /** Take a random step. @return what is wrong after it */
    std::vector<std::string> step();

    std::string what;               /**< the step that was taken */
    std::map<std::string, int> met; /**< what the steps came to */

private:
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_()) % limit; }
    const std::string &anyName() { return names[below(7)]; }
    Numbers anySlot() { return places[below(4)]; }

    void notify(const std::string &messages);
    void port();
    void move();
    void listAnew();
    void bindSystem();
    void systemMode();
    void systemLevel();
    void bindSlot();
    void slotMode();
    void slotLevel();
    void advance();
    void policy();
    void lists();
    void rule();
    void car();
    void fail();
    void room();
    void role() { scripted::script.slave = below(3) == 0; }
    void position();
    void set(uint32_t attr, std::string value);
    void set(uint32_t attr, uint32_t value);
    void set(const Numbers &slot, uint32_t attr, std::string value);
    void set(const Numbers &slot, uint32_t attr, uint32_t value);

    void check();
    void checkSlots();
    void checkHardware();
    void checkCounts();
    void complain(const std::string &text) { found_.push_back(text); }

    std::mt19937 random_;
    Cards cards_;
    Bound before_;
    bool excused_ = false; /**< from an earlier step: a call failed, or a policy in use changed */
    std::vector<std::string> found_;
};

/* ---- Steps -------------------------------------------------------------------------------- */

void Walk::notify(const std::string &messages)
{
    cpuDefendCardNotify(reinterpret_cast<const unsigned char *>(messages.data()),
                        static_cast<int32_t>(messages.size()));
}

void Walk::port()
{
    const uint32_t unit = FIRST_UNIT + below(UNITS);
    if (below(5) < 2) {
        cards_.go(unit);
        return notify(linkIsGone(unit));
    }
    scripted::script.ports.emplace(unit, places[below(7)]);
    cards_.come(unit, scripted::script.ports[unit]);
    notify(linkIsThere(unit));
}

/** A link gets a name that puts it somewhere else, or nowhere. */
void Walk::move()
{
    const uint32_t unit = FIRST_UNIT + below(UNITS);
    scripted::script.ports[unit] = places[below(7)];
    cards_.come(unit, scripted::script.ports[unit]);
    notify(linkIsThere(unit));
}

/** The kernel has none of these links. */
void Walk::listAnew()
{
    if (below(4) != 0)
        return;
    cards_.goAll();
    cpuDefendCardStart();
}

void Walk::set(uint32_t attr, std::string value)
{
    octetstring octets{bytes(value), static_cast<uint32_t>(value.size())};
    _cpuDefendGlobalSetApi(0, attr, &octets, below(2) ? ZYN_FLAG_LOCAL : ZYN_FLAG_PEER);
}

void Walk::set(uint32_t attr, uint32_t value)
{
    octetstring cell{};
    memcpy(&cell, &value, sizeof value);
    _cpuDefendGlobalSetApi(0, attr, &cell, ZYN_FLAG_LOCAL);
}

void Walk::set(const Numbers &slot, uint32_t attr, std::string value)
{
    tcpuDefendSlotIdx idx{slot.first, slot.second};
    octetstring octets{bytes(value), static_cast<uint32_t>(value.size())};
    _cpuDefendSlotSetApi(&idx, attr, &octets, below(2) ? ZYN_FLAG_LOCAL : ZYN_FLAG_PEER);
}

void Walk::set(const Numbers &slot, uint32_t attr, uint32_t value)
{
    tcpuDefendSlotIdx idx{slot.first, slot.second};
    octetstring cell{};
    memcpy(&cell, &value, sizeof value);
    _cpuDefendSlotSetApi(&idx, attr, &cell, ZYN_FLAG_LOCAL);
}

void Walk::bindSystem()
{
    set(CPUDEFEND_GLOBAL_POLICY, anyName());
}

void Walk::systemMode()
{
    set(CPUDEFEND_GLOBAL_POLICYMODE, below(2));
}

void Walk::systemLevel()
{
    const uint32_t level = 2 * below(3);
    if (below(2))
        set(CPUDEFEND_GLOBAL_L1POLICYNAME + level, anyName());
    else
        set(CPUDEFEND_GLOBAL_L1CPURAT + level, below(100));
}

void Walk::bindSlot()
{
    set(anySlot(), CPUDEFEND_SLOT_POLICY, anyName());
}

void Walk::slotMode()
{
    set(anySlot(), CPUDEFEND_SLOT_POLICYMODE, below(2));
}

void Walk::slotLevel()
{
    const uint32_t level = 2 * below(3);
    if (below(2))
        set(anySlot(), CPUDEFEND_SLOT_L1POLICYNAME + level, anyName());
    else
        set(anySlot(), CPUDEFEND_SLOT_L1CPURAT + level, below(100));
}

void Walk::advance()
{
    hardware.percent = below(101);
    clockReading += below(2) ? 500 : below(1200);
    timerListCheck(&gCpuDefend.timerList);
}

/** Give back a CAR entry that outlived its policy, so that the pool lasts. */
bool releaseLeftover()
{
    list_for_each_entry(tCpuDefendCarPktEntry, car, &gCpuDefend.carPktList, node)
    {
        if (list_empty(&car->policyNode))
            return cpuDefendCarPktEntryDel(car) == 0;
    }
    return false;
}

/** A policy comes or goes. The CAR entries of new ones can't be told apart. */
void Walk::policy()
{
    const std::string &name = names[below(5)];
    tCpuDefendPolicyIdx idx{};
    memcpy(idx.name, name.data(), name.size());
    idx.len = static_cast<uint32_t>(name.size());
    uint32_t status = below(3) ? uint32_t{CPUDEFEND_ROW_CREATE} : uint32_t{CPUDEFEND_ROW_DESTROY};
    cpuDefendPolicySetApi(&idx, CPUDEFEND_POLICY_ENTRYSTATUS, &status);
    while (releaseLeftover())
        ;
}

/** Also of a policy that is in use: it is warned of and stored. */
void Walk::lists()
{
    const std::string &name = names[below(5)];
    tCpuDefendPolicyIdx idx{};
    memcpy(idx.name, name.data(), name.size());
    idx.len = static_cast<uint32_t>(name.size());
    static const uint32_t attrs[] = {
        CPUDEFEND_POLICY_WHITELISTENABLE, CPUDEFEND_POLICY_WHITELISTIP4ACL,
        CPUDEFEND_POLICY_WHITELISTIP4CIR, CPUDEFEND_POLICY_BLACKLISTIP6ACL};
    uint32_t value = below(4);
    if (cpuDefendPolicySetApi(&idx, attrs[below(4)], &value) == CPUDEFEND_EINUSE) {
        excused_ = true;
        met["a policy in use is changed"]++;
    }
}

void Walk::rule()
{
    const std::string &name = names[below(5)];
    tcpuDefendUserDefinedIdx idx{};
    memcpy(idx.policyName, name.data(), name.size());
    idx.policyNameLen = static_cast<uint32_t>(name.size());
    idx.index = below(3);
    const uint32_t attr = below(6);
    uint32_t value = below(3);
    if (attr == CPUDEFEND_USERDEFINED_ENTRYSTATUS)
        value = value ? uint32_t{CPUDEFEND_ROW_CREATE} : uint32_t{CPUDEFEND_ROW_DESTROY};
    cpuDefendUserDefinedSetApi(&idx, attr, &value);
}

void Walk::car()
{
    const std::string &name = names[below(5)];
    tcpuDefendCarPktIdx idx{};
    memcpy(idx.policyName, name.data(), name.size());
    idx.policyNameLen = static_cast<uint32_t>(name.size());
    idx.pktType = below(10);
    uint32_t value = below(3);
    if (below(2))
        cpuDefendCarPktSetApi(&idx, below(7), &value);
    else
        cpuDefendCarPktGetApi(&idx, CPUDEFEND_CARPKT_PASSNUM + below(2), &value);
}

void Walk::fail()
{
    hardware.failAt = hardware.failable + below(12);
}

/** The platform's work has made room for ACLs, or has taken it. */
void Walk::room()
{
    hardware.aclRoom = below(2) ? SIZE_MAX : below(4);
    gCpuDefend.retryDue = 1;
}

/** The peer says which level is selected. */
void Walk::position()
{
    const Numbers slot = below(2) ? anySlot() : NO_SLOT;
    std::string record(12, '\0');
    record[3] = static_cast<char>(slot.first);
    record[7] = static_cast<char>(slot.second);
    record[11] = static_cast<char>(below(6));
    cpuDefendSyncRcv(bytes(record), 12);
}

std::vector<std::string> Walk::step()
{
    static const struct {
        const char *name;
        void (Walk::*run)();
    } kinds[] = {
        {"port", &Walk::port},
        {"port", &Walk::port},
        {"port", &Walk::port},
        {"move", &Walk::move},
        {"list anew", &Walk::listAnew},
        {"bind system", &Walk::bindSystem},
        {"bind system", &Walk::bindSystem},
        {"system mode", &Walk::systemMode},
        {"system level", &Walk::systemLevel},
        {"system level", &Walk::systemLevel},
        {"bind slot", &Walk::bindSlot},
        {"bind slot", &Walk::bindSlot},
        {"slot mode", &Walk::slotMode},
        {"slot level", &Walk::slotLevel},
        {"slot level", &Walk::slotLevel},
        {"advance", &Walk::advance},
        {"advance", &Walk::advance},
        {"advance", &Walk::advance},
        {"policy", &Walk::policy},
        {"lists", &Walk::lists},
        {"rule", &Walk::rule},
        {"car", &Walk::car},
        {"fail", &Walk::fail},
        {"room", &Walk::room},
        {"role", &Walk::role},
        {"role", &Walk::role},
        {"position", &Walk::position},
    };
    const auto &kind = kinds[below(sizeof kinds / sizeof *kinds)];
    what = kind.name;
    found_.clear();
    hardware.log.clear();
    before_ = freshBindings();
    {
        const Change change;
        (this->*kind.run)();
    }
    {
        const Change nextTurn;
        if (gCpuDefend.retryDue)
            cpuDefendRetry();
    }
    check();
    return found_;
}

/* ---- Checks ------------------------------------------------------------------------------- */

bool programmed(const Call &call)
{
    return call.kind == Kind::Add || call.kind == Kind::Del;
}

void Walk::check()
{
    found_ = invariants::violations();
    if (!found_.empty())
        return;
    for (const std::string &text : hardware.complaints)
        complain(text);
    if (scripted::changeDepth != 0)
        complain("a change has not ended");
    if (hardwareHeld() != daemonHeld())
        complain("the hardware holds " + text(hardwareHeld()) + "the daemon thinks " +
                 text(daemonHeld()));
    checkSlots();
    if (cards_.everHadOne)
        checkHardware();
}

void Walk::checkSlots()
{
    std::multiset<Numbers> seen;
    list_for_each_entry(const tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
    {
        seen.emplace(slot->sysId, slot->slotId);
        const auto *policy = slot->policyNameLen
                                 ? cpuDefendPolicyEntryGet(slot->policyName, slot->policyNameLen)
                                 : nullptr;
        if (cards_.everHadOne && slot->policyEntry != policy)
            complain("a slot points to another policy than the one it names");
    }
    if (seen != cards_.records)
        complain("there are " + std::to_string(seen.size()) + " slots, not " +
                 std::to_string(cards_.records.size()) + ", or others");
    list_for_each_entry(const tCpuDefendSlotEntry, slot, &gCpuDefend.slotFreeList, node)
    {
        if (slot->cpuRatControlTimer.link.next || slot->policyEntry || slot->policyNameLen)
            complain("a slot that is gone is sampled, or bound");
    }
}

void Walk::checkHardware()
{
    const bool calls = std::any_of(hardware.log.begin(), hardware.log.end(), programmed);
    if (scripted::script.slave) {
        if (calls)
            complain("a slave programs");
        excused_ = true;
        met["slave"]++;
        return;
    }
    const bool failed = std::any_of(hardware.log.begin(), hardware.log.end(), [](const Call &call) {
        return programmed(call) && call.result == HARDWARE_FAILURE;
    });
    met["a call fails"] += failed;
    checkCounts();
    const Held fresh = freshHardware();
    if (hardwareHeld() == fresh) {
        if (hardware.aclRoom != SIZE_MAX) { // so little that a list may be missing unseen
            met["there is no room"] += hardware.anyDropped;
            return;
        }
        met["mended"] += excused_;
        excused_ = false;
        met["slots are programmed"] += fresh.size() > 1;
        met["the system is programmed"] += fresh.count(std::nullopt) != 0;
        return;
    }
    // A policy that changes in use, or a call that has failed, shows at the next change.
    const bool changed = calls || freshBindings() != before_;
    if (!failed && (!excused_ || changed))
        complain("the hardware holds " + text(hardwareHeld()) + "instead of " + text(fresh) +
                 "with " + text(freshBindings()));
    excused_ = true;
}

void Walk::checkCounts()
{
    std::map<std::string, uint32_t> counts;
    for (const auto &[place, bound] : freshBindings())
        for (const std::string &name : bound)
            counts[name]++;
    for (void *at = avl_first(&gCpuDefend.policyList); at;
         at = avl_next(&gCpuDefend.policyList, at)) {
        const auto *policy = static_cast<tCpuDefendPolicyEntry *>(at);
        const std::string name(reinterpret_cast<const char *>(policy->policyName),
                               policy->policyNameLen);
        if (policy->refCount != counts[name])
            complain("refCount of " + name + " is " + std::to_string(policy->refCount) + ", not " +
                     std::to_string(counts[name]));
    }
}

uint32_t fromEnvironment(const char *name, uint32_t otherwise)
{
    const char *text = getenv(name);
    return text ? static_cast<uint32_t>(strtoul(text, nullptr, 0)) : otherwise;
}

} // namespace

class FollowWalk : public testing::TestWithParam<uint32_t>
{
};

TEST_P(FollowWalk, AfterEveryStepTheHardwareHoldsWhatAFreshBindWouldProgram)
{
    const uint32_t seed = fromEnvironment("CPUDEFEND_SEED", GetParam());
    const uint32_t steps = fromEnvironment("CPUDEFEND_STEPS", 3000);
    std::map<std::string, int> met;
    for (uint32_t n = 0; n < steps;) {
        World life(8, SLOTS);
        Walk walk(seed + n);
        for (uint32_t age = 0; age < 600 && n < steps; age++, n++) {
            const std::vector<std::string> found = walk.step();
            for (const std::string &line : found)
                ADD_FAILURE() << "CPUDEFEND_SEED=" << seed << ", step " << n << ", " << walk.what
                              << ": " << line;
            if (!found.empty())
                return;
        }
        for (const auto &[what, times] : walk.met)
            met[what] += times;
    }
    for (const char *what :
         {"slave", "a call fails", "mended", "slots are programmed", "the system is programmed",
          "a policy in use is changed", "there is no room"})
        EXPECT_GT(met[what], 0) << what;
}

INSTANTIATE_TEST_SUITE_P(Seeds, FollowWalk,
                         testing::Values(1u, 100001u, 200001u, 300001u, 400001u, 500001u, 600001u,
                                         700001u));
