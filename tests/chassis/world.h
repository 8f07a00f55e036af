/**
 * A chassis under test: the daemon's core, the modelled hardware below it, and the model that
 * tells what should have come of each step. Time is stepped; nothing here waits.
 */
#ifndef CHASSIS_WORLD_H
#define CHASSIS_WORLD_H

#include <random>
#include <string>
#include <vector>

#include "model.h"

namespace chassis
{

/** What can be done to a chassis. The table in world.cpp says how, and with which arguments. */
enum class Op {
    BindSystem,
    SystemMode,
    SystemThreshold,
    SystemLevel,
    BindSlot,
    SlotMode,
    SlotThreshold,
    SlotLevel,
    AddSlot,
    DeleteSlot,
    CreatePolicy,
    DestroyPolicy,
    ConfigurePolicy,
    CreateRule,
    DestroyRule,
    ConfigureRule,
    ConfigureCar,
    ReleaseLeftover,
    Usage,
    Advance,
    Role,
    Packet,
    ResetSystemTraces,
    ResetSlotTraces,
    ReceiveSync,
    FailCall
};

/** Names that steps refer to by their index: six policies, one that is never made, none. */
enum Name : uint32_t { A, B, CC, DDD, LONGEST, DEFAULT, NOBODY, EMPTY };

/** Slots that steps refer to by their index. The last one's numbers do not fit a record. */
enum SlotName : uint32_t { S1, S2, S3, S257 };

/** Settings of a policy that steps refer to by their index. */
enum Setting : uint32_t {
    WHITE_LIST,
    WHITE_IP4,
    WHITE_IP6,
    WHITE_IP4_CIR,
    BLACK_LIST,
    BLACK_IP4,
    BLACK_IP6,
    TRACING,
    TRACE_DATA,
    TRACE_THRESHOLD,
    TRACE_ALARM_THRESHOLD
};

struct Step {
    Op op;
    uint32_t a = 0, b = 0, c = 0;

    std::string text() const;
};

/** A random step, each kind as often as its weight says. */
Step randomStep(std::mt19937 &random);

/** A step of that kind with random arguments. */
Step randomStep(std::mt19937 &random, Op op);

class World
{
public:
    explicit World(uint32_t policies, uint32_t slots = 3);
    ~World();
    World(const World &) = delete;
    World &operator=(const World &) = delete;

    /**
     * Carry out a step, here and in the model.
     * @return what differs, and which invariants do not hold afterwards
     */
    std::vector<std::string> run(const Step &step);

    /** Carry out steps with a check after the last one only. @return as above */
    std::vector<std::string> prepare(const std::vector<Step> &steps);

    /** Whether every policy is held in just as many places as its refCount says. */
    bool isPaired() const;

    Model model;

    /* The steps; see the table in world.cpp. */
    void bindSystem(const Step &);
    void systemMode(const Step &);
    void systemThreshold(const Step &);
    void systemLevel(const Step &);
    void bindSlot(const Step &);
    void slotMode(const Step &);
    void slotThreshold(const Step &);
    void slotLevel(const Step &);
    void addSlot(const Step &);
    void deleteSlot(const Step &);
    void createPolicy(const Step &);
    void destroyPolicy(const Step &);
    void configurePolicy(const Step &);
    void createRule(const Step &);
    void destroyRule(const Step &);
    void configureRule(const Step &);
    void configureCar(const Step &);
    void releaseLeftover(const Step &);
    void usage(const Step &);
    void advance(const Step &);
    void role(const Step &);
    void packets(const Step &);
    void resetSystemTraces(const Step &);
    void resetSlotTraces(const Step &);
    void receiveSync(const Step &);
    void failCall(const Step &);

private:
    void packet(const Step &);
    void mark(const std::string &name);
    void take(const Step &step);
    void check();
    void checkController(const Controller &expected, const tCpuDefendCpuRatControl *levels,
                         const std::string &name, uint32_t mode, uint32_t position);
    void checkPolicies();
    void checkSlots();
    void checkTimers();
    std::string about() const;
    void expect(const char *what, int64_t expected, int64_t seen);
    void expect(const char *what, const std::string &expected, const std::string &seen);

    /** What the checks are about: told with what they find. */
    const char *about_ = "";
    size_t record_ = 0;
    uint32_t marks_ = 0;
    std::vector<std::string> found_;
};

} // namespace chassis

#endif
