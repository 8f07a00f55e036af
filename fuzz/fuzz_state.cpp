#include "fuzz_state.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include "cpuDefend.h"
#include "memory.h"

namespace
{

constexpr uint32_t POLICIES = 3; // few, so that the pools run out
constexpr uint32_t SLOTS = 2;
constexpr int NO_SOCKET = 1000; // stands for each socket; nothing is ever done with it

/** Usage readings, up and down, one for each sample. */
constexpr uint32_t PERCENT[] = {10, 45, 75, 95, 31, 0, 100};
constexpr uint32_t HUNDREDTHS[] = {1000, 4500, 7500, 9500, 3100, 0, 10000};

uint64_t now;

uint64_t fuzzClock()
{
    return now;
}

/** Elements of a list; it must be linked both ways and end within @a most. */
uint32_t lengthOf(const list_head *list, uint32_t most)
{
    uint32_t length = 0;
    for (const list_head *at = list; at->next != list; at = at->next) {
        FUZZ_REQUIRE(at->next->prev == at);
        FUZZ_REQUIRE(length < most);
        ++length;
    }
    return length;
}

uint32_t checkPolicies()
{
    uint32_t count = 0;
    const tCpuDefendPolicyEntry *before = nullptr;
    for (void *at = avl_first(&gCpuDefend.policyList); at;
         at = avl_next(&gCpuDefend.policyList, at)) {
        const auto *policy = static_cast<const tCpuDefendPolicyEntry *>(at);
        FUZZ_REQUIRE(policy->policyNameLen <= CPUDEFEND_NAME_MAXLEN);
        FUZZ_REQUIRE(!before || cpuDefendPolicyCmp(before, policy) < 0);
        lengthOf(&policy->carPktList, gCpuDefend.maxCarPktNum);
        FUZZ_REQUIRE(lengthOf(&policy->userDefinedList, gCpuDefend.maxUserDefinedNum) ==
                     policy->userDefinedNum);
        FUZZ_REQUIRE(policy->policyDescriptionLen <= CPUDEFEND_DESCRIPTION_MAXLEN);
        FUZZ_REQUIRE((policy->srcTraceEnable == 1) == (policy->srcTraceTimer.link.next != nullptr));
        before = policy;
        ++count;
    }
    return count;
}

/** Sources in the tree, walked from end to end; each must know its neighbours. */
uint32_t checkSources()
{
    uint32_t count = 0;
    for (void *at = avl_first(&gCpuDefend.srcTraceList); at;
         at = avl_next(&gCpuDefend.srcTraceList, at)) {
        const auto *source = static_cast<const tCpuDefendSrcTraceEntry *>(at);
        for (const avl_node_t *child : source->node.child)
            FUZZ_REQUIRE(!child || child->parent == &source->node);
        FUZZ_REQUIRE(count < gCpuDefend.maxSrcTraceNum);
        ++count;
    }
    return count;
}

void checkSlots()
{
    list_for_each_entry(tCpuDefendSlotEntry, slot, &gCpuDefend.slotList, node)
    {
        FUZZ_REQUIRE(slot->policyNameLen <= CPUDEFEND_NAME_MAXLEN);
        FUZZ_REQUIRE(slot->cpuRatControlTimer.link.next != nullptr);
        for (const tCpuDefendCpuRatControl &level : slot->cpuRatControl)
            FUZZ_REQUIRE(level.policyNameLen <= CPUDEFEND_NAME_MAXLEN);
    }
}

} // namespace

void fuzzFail(const char *condition, const char *file, int line)
{
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    abort();
}

void fuzzStart()
{
    osClockSet(fuzzClock);
    FUZZ_REQUIRE(zynMemoryUsageSet(0, PERCENT, sizeof PERCENT / sizeof *PERCENT) == 0);
    FUZZ_REQUIRE(zynMemoryUsageSet(1, HUNDREDTHS, sizeof HUNDREDTHS / sizeof *HUNDREDTHS) == 0);
    FUZZ_REQUIRE(cpuDefendInit(POLICIES, SLOTS) == 0);
    FUZZ_REQUIRE(cpuDefendSlotEntryAdd(1, 2));
    cpuDefenTaskStart();
    gCpuDefend.cpuDefendDebug = 1;
}

void fuzzEnd()
{
    cpuDefendRelease();
    zynMemoryReset();
}

void fuzzPass(uint32_t ms)
{
    now += ms;
    OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
    timerListCheck(&gCpuDefend.timerList);
    OsixGiveSem(gCpuDefend.cpuDefendSem);
}

void fuzzCheckState()
{
    const tCpuDefendSystem &g = gCpuDefend;
    FUZZ_REQUIRE(checkPolicies() == g.usePolicyNum);
    FUZZ_REQUIRE(lengthOf(&g.policyFreeList, g.maxPolicyNum) + g.usePolicyNum == g.maxPolicyNum);
    FUZZ_REQUIRE(lengthOf(&g.carPktList, g.maxCarPktNum) == g.useCarPktNum);
    FUZZ_REQUIRE(lengthOf(&g.carPktFreeList, g.maxCarPktNum) + g.useCarPktNum == g.maxCarPktNum);
    FUZZ_REQUIRE(lengthOf(&g.userDefinedList, g.maxUserDefinedNum) +
                     lengthOf(&g.userDefinedFreeList, g.maxUserDefinedNum) ==
                 g.maxUserDefinedNum);
    FUZZ_REQUIRE(lengthOf(&g.slotList, g.maxSlotNum) == g.useSlotNum);
    FUZZ_REQUIRE(lengthOf(&g.slotFreeList, g.maxSlotNum) + g.useSlotNum == g.maxSlotNum);
    FUZZ_REQUIRE(checkSources() == g.useSrcTraceNum);
    FUZZ_REQUIRE(lengthOf(&g.srcTraceFreeList, g.maxSrcTraceNum) + g.useSrcTraceNum ==
                 g.maxSrcTraceNum);
    checkSlots();
    FUZZ_REQUIRE(g.policyNameLen <= CPUDEFEND_NAME_MAXLEN);
    lengthOf(&g.timerList, g.maxPolicyNum + g.maxSlotNum + 1);
    // Nobody holds the semaphore between requests: giving it back must fail.
    FUZZ_REQUIRE(OsixGiveSem(g.cpuDefendSem) != 0);
}

extern "C" {

int __wrap_socket(int, int, int)
{
    return NO_SOCKET;
}

int __wrap_bind(int, const sockaddr *, socklen_t)
{
    return 0;
}

int __wrap_listen(int, int)
{
    return 0;
}

int __wrap_setsockopt(int, int, int, const void *, socklen_t)
{
    return 0;
}

int __wrap_unlink(const char *)
{
    return 0;
}

void __wrap_NM_DEBUG_OUTPUT(const char *format, ...)
{
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
}

} // extern "C"
