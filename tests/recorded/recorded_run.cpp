// recorded_run SEED COUNT: carry out COUNT random steps on the core and print what comes of them.
//
// For each step a line "# number kind"; then "> request", "< reply", "* call of the platform",
// "! message" and whatever the core prints itself. The same seed and count give the same text for
// as long as the core does the same, so a digest of it says whether a change of the code has
// changed what the core does, and a diff what.
//
// The core starts over every STEPS_PER_START steps, in a process of its own, with other pools.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "channel/request.h"
#include "cpuDefend.h"
#include "random_request.h"
#include "surroundings.h"

using namespace recorded;

// What a debugger calls by name.
extern "C" {
int32_t cpuDefendSlotShow();
int32_t cpuDefendPolicyShow();
int32_t cpuDefendUserDefinedShow();
int32_t cpuDefendCarPktShow();
int32_t cpuDefendSrcTraceShow();
int32_t cpuDefendSrcTraceShow2();
int32_t cpuDefendSlotTest();
}

namespace
{

constexpr uint32_t STEPS_PER_START = 500;

uint64_t steppedClock()
{
    return surroundings->now;
}

/* ---- Steps ---------------------------------------------------------------------------------- */

void printBytes(char direction, const channel::Bytes &bytes)
{
    putchar(direction);
    for (size_t i = 0; i < bytes.size(); i++)
        printf(i % 4 == 0 ? " %02x" : "%02x", bytes[i]);
    putchar('\n');
}

void ask(channel::Bytes body)
{
    printBytes('>', body);
    // A copy of just this size, so that a checker sees what reads or writes past it.
    const auto buffer = std::make_unique<unsigned char[]>(body.size());
    memcpy(buffer.get(), body.data(), body.size());
    const uint32_t length = cpudefendCmdProcess(buffer.get(), static_cast<uint32_t>(body.size()));
    if (length == 0)
        puts("< nothing");
    else
        printBytes('<', channel::Bytes(buffer.get(), buffer.get() + length));
}

void stepRequest(Dice &dice)
{
    ask(randomRequest(dice));
}

void stepTime(Dice &dice)
{
    static const uint32_t periods[] = {1, 10, 100, 250, 499, 500, 500, 1000, 2000};
    surroundings->now += dice.of(periods);
    cpuDefenTaskTurn();
}

void stepUsage(Dice &dice)
{
    static const uint32_t usages[] = {0, 1, 10, 11, 31, 50, 51, 61, 75, 90, 91, 100};
    surroundings->percent = dice.of(usages);
    surroundings->hundredths = dice.below(100);
    stepTime(dice);
}

void stepNotification(Dice &dice)
{
    surroundings->datagrams.push_back(randomNotification(dice));
    surroundings->sender = dice.once(15) ? 4711 : 0;
    surroundings->overrun = dice.once(15);
    surroundings->links = dice.below(7);
    surroundings->listing = dice.once(4) ? 1 + dice.below(2) : 0;
    cpuDefenTaskTurn();
    surroundings->datagrams.clear();
}

void stepPackets(Dice &dice)
{
    const Packet packet = randomPacket(dice);
    for (uint32_t n = dice.below(5); n > 0; n--)
        surroundings->packets.push_back(packet);
    surroundings->packets.push_back(randomPacket(dice));
    cpuDefenTaskTurn();
}

void stepPlatform(Dice &dice)
{
    surroundings->platformIsDue = true;
    surroundings->portsMoved = dice.once(2);
    cpuDefenTaskTurn();
}

/** A port is in another place from now on, or in none. */
void stepPort(Dice &dice)
{
    static const std::pair<uint32_t, uint32_t> places[] = {{0, 0}, {1, 1}, {1, 1}, {1, 2},
                                                           {1, 2}, {2, 1}, {3, 3}, {257, 1}};
    const uint32_t unit = 1 + dice.below(6);
    surroundings->ports.erase(unit);
    if (!dice.once(6))
        surroundings->ports[unit] = dice.of(places);
}

void stepRole(Dice &dice)
{
    surroundings->role = dice.once(2) ? 0 : dice.below(3);
}

void stepFailure(Dice &dice)
{
    switch (dice.below(3)) {
    case 0: surroundings->changeFails = dice.below(3); break;
    case 1: surroundings->dropsIn = 1 + dice.below(3); break;
    default: surroundings->failIn = 1 + dice.below(12);
    }
}

void stepConsole(Dice &dice)
{
    static int32_t (*const entries[])() = {cpuDefendSlotShow,        cpuDefendPolicyShow,
                                           cpuDefendUserDefinedShow, cpuDefendCarPktShow,
                                           cpuDefendSrcTraceShow,    cpuDefendSrcTraceShow2,
                                           cpuDefendSlotTest};
    const int32_t result = dice.of(entries)();
    printf("\n< %d\n", result);
}

void stepSync(Dice &dice)
{
    OsixTakeSem(gCpuDefend.cpuDefendSem, OSIX_WAIT_FOREVER);
    const uint32_t flag = dice.below(4);
    printf("< %d\n", cpuDefendSyncSend(flag, 0));
    OsixGiveSem(gCpuDefend.cpuDefendSem);
}

/** Diagnostics on again, as a request may have switched them off. */
void stepDebug(Dice &)
{
    ask(setGlobal(CPUDEFEND_GLOBAL_DEBUG, 1));
}

const struct {
    const char *name;
    uint32_t weight;
    void (*run)(Dice &);
} kinds[] = {
    {"request", 120, stepRequest},
    {"time", 15, stepTime},
    {"usage", 15, stepUsage},
    {"packets", 25, stepPackets},
    {"notification", 15, stepNotification},
    {"port", 6, stepPort},
    {"platform", 2, stepPlatform},
    {"role", 1, stepRole},
    {"failure", 14, stepFailure},
    {"console", 1, stepConsole},
    {"sync", 1, stepSync},
    {"debug", 3, stepDebug},
};

void step(Dice &dice)
{
    uint32_t total = 0;
    for (const auto &kind : kinds)
        total += kind.weight;
    uint32_t left = dice.below(total);
    const auto *kind = kinds;
    for (; left >= kind->weight; kind++)
        left -= kind->weight;
    printf(" %s\n", kind->name);
    kind->run(dice);
}

/* ---- A start and what follows it ------------------------------------------------------------ */

/** Entries of the types that no policy has by itself, so that their packets are traced. */
void traceMore()
{
    static const uint8_t name[] = {'d', 'e', 'f', 'a', 'u', 'l', 't'};
    for (uint32_t type : {11u, 12u, 14u, 21u, 22u}) {
        int32_t result = 0;
        cpuDefendCarPktEntryAdd(name, sizeof name, type, &result);
        printf("< %d\n", result);
    }
}

/** Start the core on pools of some size, small ones mostly. @return whether it started */
bool start(Dice &dice)
{
    static const uint32_t policies[] = {0, 2, 3, 5, 8, 8, 16};
    static const uint32_t slots[] = {0, 1, 2, 3, 3};
    surroundings->now = dice.once(2) ? dice.number() : 0xFFFFFFFFull * 10 - 20000;
    osClockSet(steppedClock);
    const uint32_t policyNumber = dice.of(policies);
    if (cpuDefendInit(policyNumber, dice.of(slots)) != 0)
        return false;
    for (int i = 0; i < 6; i++)
        stepPort(dice);
    surroundings->links = dice.below(7);
    cpuDefenTaskStart();
    cpuDefendTest = dice.once(4);
    stepDebug(dice);
    for (const channel::Bytes &request : provisions())
        ask(request);
    traceMore();
    return true;
}

/** @return the exit status */
int run(uint32_t seed, uint32_t first, uint32_t count)
{
    Dice dice(seed * 2654435761u + first);
    Surroundings own(~seed + first);
    surroundings = &own;
    printf("# start\n");
    if (!start(dice))
        return 1;
    for (uint32_t n = first; n < first + count; n++) {
        printf("# %u", n);
        step(dice);
    }
    return fflush(stdout) == 0 ? 0 : 1;
}

/** The same in a process of its own. @return whether it did well */
bool runApart(uint32_t seed, uint32_t first, uint32_t count)
{
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0)
        _exit(run(seed, first, count));
    int status = -1;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s SEED COUNT\n", argv[0]);
        return 2;
    }
    const auto seed = static_cast<uint32_t>(strtoul(argv[1], nullptr, 10));
    const auto count = static_cast<uint32_t>(strtoul(argv[2], nullptr, 10));
    for (uint32_t n = 0; n < count; n += STEPS_PER_START) {
        const uint32_t left = count - n;
        if (!runApart(seed, n, left < STEPS_PER_START ? left : STEPS_PER_START)) {
            fprintf(stderr, "the run broke off after step %u\n", n);
            return 1;
        }
    }
    return 0;
}
