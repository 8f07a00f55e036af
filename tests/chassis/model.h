/**
 * What the chassis should do, told once more and plainly: names, levels, slots, timers and the
 * order of hardware calls, without pools, links or records.
 *
 * The model carries out a step after the daemon did. Where the daemon should have called the
 * hardware it takes the next call from the log, holds it against the one that it expects, and goes
 * on with the answer that the daemon had.
 *
 * A policy's refCount is the additions less the removals that were attempted on a master card.
 * That equals the places that hold the policy as long as each addition and each removal did
 * program what it was to. `unpaired` counts those that did not, removals negative: the failed
 * calls, and the removal where the policy is not programmed, which the daemon asks for
 * - when the slots that follow the system's policy or level are others than when it was
 *   programmed: a slot was added or deleted, given or relieved of a policy, or switched in mode;
 *   and when the first slot comes or the last one goes, as then the system itself changes sides;
 * - when the L2 level of the system is renamed with slots present: the removal names L1;
 * - when a slot is deleted in CPU-rate mode, which leaves its fixed policy programmed;
 * - when a selected position is replayed from the peer, or the role changed in between.
 */
#ifndef CHASSIS_MODEL_H
#define CHASSIS_MODEL_H

#include <array>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "cpuDefend.h"
#include "hardware.h"

namespace chassis
{

struct Level {
    uint32_t threshold = 0;
    std::string name;
};

/** What the system and a slot have in common. */
struct Controller {
    std::string name; /**< the fixed policy's */
    uint32_t mode = CPUDEFEND_FIXED;
    uint32_t position = 0;
    std::array<Level, CPUDEFEND_CPURAT_LEVELS> levels;

    /** The level at a position, null for what is no level. */
    const Level *at(uint32_t position) const;
};

constexpr int NO_RECORD = -1;

struct Slot : Controller {
    uint32_t sys = 0, slot = 0;
    int policy = NO_RECORD; /**< the bound policy's record */

    Place place() const { return std::pair(sys, slot); }
};

struct Policy {
    int record;    /**< where it stands in its pool */
    uint32_t mark; /**< the rate of its first CAR entry, which no other policy has; 0: none */
    uint32_t refCount = 0;
    int64_t unpaired = 0;
};

struct Timer {
    enum Owner { System, OfSlot, OfPolicy } owner;
    int record; /**< of the owner in its pool */
    uint64_t expiry;

    bool operator==(const Timer &) const = default;
};

class Model
{
public:
    Model(uint32_t policies, uint32_t slots, uint64_t now);

    /* Steps. Each returns what the daemon should have. */
    int32_t setSystemPolicy(const std::string &name, uint32_t flag);
    int32_t setSystemMode(uint32_t mode, uint32_t flag);
    int32_t setSystemThreshold(uint32_t position, uint32_t value, uint32_t flag);
    int32_t setSystemLevel(uint32_t position, const std::string &name, uint32_t flag);
    int32_t resetSystemTraces(uint32_t value, uint32_t flag);
    int32_t setSlotPolicy(Slot *slot, const std::string &name, uint32_t flag);
    int32_t setSlotMode(Slot *slot, uint32_t mode, uint32_t flag);
    int32_t setSlotThreshold(Slot *slot, uint32_t position, uint32_t value, uint32_t flag);
    int32_t setSlotLevel(Slot *slot, uint32_t position, const std::string &name, uint32_t flag);
    int32_t resetSlotTraces(Slot *slot, uint32_t value, uint32_t flag);

    Slot *addSlot(uint32_t sys, uint32_t slot); /**< null when the pool is exhausted */
    int32_t deleteSlot(Slot *slot);
    Slot *findSlot(uint32_t sys, uint32_t slot);

    Policy *createPolicy(const std::string &name); /**< null when the pool is exhausted */
    int32_t destroyPolicy(const std::string &name);
    Policy *findPolicy(const std::string &name);

    void receiveSync(uint32_t sys, uint32_t slot, uint8_t position);
    void setTracing(const Policy &policy, bool on);
    void advance(uint32_t ms);

    /** Start with the log at its first call. */
    void beginStep();
    /** What went wrong in the step, calls that nobody expected included. */
    std::vector<std::string> endStep();

    Controller system;
    std::vector<Slot> slotRecords;
    std::deque<int> slots, freeSlots; /**< records, first one first */
    std::map<std::string, Policy> policies;
    std::deque<int> freePolicies;
    std::deque<Timer> timers;
    uint64_t now;

private:
    int32_t next(const Call &expected);
    int32_t scalarSync(uint32_t id, const std::string &value, uint32_t flag);
    int32_t slotSync(const Slot &slot, uint32_t id, const std::string &value, uint32_t flag);

    bool isSlave();
    int32_t hwAdd(const Place &place, const std::string &name);
    int32_t hwDel(const Place &place, const std::string &name);
    /** Call for the system or, where there are slots, for each that is concerned. */
    template <typename Concerns, typename Do> int32_t everywhere(Concerns concerns, Do act);

    int32_t unbindSystem();
    void arm(Timer::Owner owner, int record, uint32_t period);
    void disarm(Timer::Owner owner, int record);
    void fire(const Timer &timer);
    void sampleSystem();
    void switchSystem(uint32_t match);
    void sampleSlot(Slot *slot);
    void sendPosition(const Slot &slot);

    size_t at_ = 0; /**< in the log */
    std::vector<std::string> complaints_;
};

} // namespace chassis

#endif
