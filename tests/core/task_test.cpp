// The event loop: what it waits for and in which order it serves it, what it puts in force
// together, and how many packets it takes.

#include <gtest/gtest.h>

#include <linux/netlink.h>
#include <sys/eventfd.h>

#include <array>
#include <string>
#include <vector>

#include "channel/client.h"
#include "channel/faults.h"
#include "scripted_hw.h"

using namespace channel;
using faults::plan;

namespace
{

/** What the loop called, each with the takes of the semaphore and the changes around it. */
std::vector<std::string> trail;

void note(const std::string &what)
{
    trail.push_back(what + ' ' + std::to_string(plan.semDepth) + '/' +
                    std::to_string(scripted::changeDepth));
}

struct Hooked {
    uint32_t ifUnit;
    uint16_t protocol;
    packet_rxpktinfo info;
    std::vector<uint8_t> frame;
    int semDepth;
};

std::vector<Hooked> hooked; // packets handed to source tracing
bool recordsAll;            // which records their senders

} // namespace

// What the loop calls of the cards and of source tracing, in the place of the core's.

void cpuDefendCardStart()
{
    note("look");
}

void cpuDefendCardNotify(const unsigned char *, int32_t len)
{
    note("cards(" + std::to_string(len) + ")");
}

void cpuDefendFollow()
{
    note("follow");
}

void cpuDefendRetry()
{
    note("retry");
    gCpuDefend.retryDue = 0;
}

int32_t cpuDefendSrcTracePkt(uint32_t ifUnit, uint16_t protocol, packet_rxpktinfo *info,
                             unsigned char *buf, int32_t length)
{
    hooked.push_back({ifUnit, protocol, *info, {buf, buf + length}, plan.semDepth});
    if (recordsAll)
        cpuDefendSrcTraceEntryAdd(ifUnit, buf, CPUDEFEND_PKTTYPE_ARP, buf);
    return 0;
}

namespace
{

uint64_t clockReading;

/** A descriptor that is readable, or not, as the test wants. */
class Signal
{
public:
    explicit Signal(bool readable) : fd_(eventfd(readable, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    ~Signal() { close(fd_); }
    Signal(const Signal &) = delete;
    Signal &operator=(const Signal &) = delete;

    int fd() const { return fd_; }

private:
    int fd_;
};

constexpr size_t PER_TURN = 512, PER_SECOND = 10000;

class Task : public testing::Test
{
protected:
    void SetUp() override
    {
        scripted::reset();
        plan = {};
        plan.noWait = true;
        clockReading = 5000;
        osClockSet([] { return clockReading; });
        ASSERT_EQ(0, cpuDefendInit(4, 2));
        trail.clear();
        hooked.clear();
        recordsAll = false;
    }
    void TearDown() override
    {
        osMessagesAbout(OS_MESSAGES_OF_START);
        EXPECT_EQ(0, plan.semDepth);
        EXPECT_EQ(0u, scripted::changeDepth);
        EXPECT_FALSE(scripted::loneEnd);
        cpuDefendRelease();
        osClockSet(nullptr);
        scripted::reset();
        plan = {};
    }

    /** Start the loop with @a source as the source of packets. */
    static void start(const Signal &source)
    {
        scripted::script.pktSock = source.fd();
        cpuDefenTaskStart();
        trail.clear();
    }

    static size_t taken() { return scripted::packetsTaken; }

    /** Packets that a number of turns take. */
    static size_t turns(size_t count)
    {
        const size_t before = taken();
        for (size_t i = 0; i < count; i++)
            cpuDefenTaskTurn();
        return taken() - before;
    }

    /** Whether the last turn waited for @a fd. */
    static bool waitedFor(int fd) { return FD_ISSET(fd, &plan.selects.back().read); }

    static std::string turn()
    {
        trail.clear();
        cpuDefenTaskTurn();
        return text();
    }

    /** Start the loop, and begin the next second. */
    static void startEarlier()
    {
        cpuDefenTaskStart();
        clockReading += 1000;
        timerListCheck(&gCpuDefend.timerList);
        scripted::changes = scripted::changesEnded = 0;
    }

    static std::string text()
    {
        std::string all;
        for (const std::string &each : trail)
            all += (all.empty() ? "" : ", ") + each;
        return all;
    }
};

scripted::Packet packet(uint8_t mark, size_t length = 60)
{
    scripted::Packet made;
    made.info.pkt_inport = 70u + mark;
    made.info.pkt_dataoffset = 14;
    made.info.pkt_outervid = mark;
    made.protocol = 0x0806;
    made.frame.assign(length, mark);
    return made;
}

void flood()
{
    scripted::script.packets = {packet(1)};
    scripted::script.flood = true;
}

Bytes datagram(size_t size = 32)
{
    const nlmsghdr header{static_cast<uint32_t>(size), 16, 0, 0, 0};
    Bytes made(size);
    memcpy(made.data(), &header, sizeof header);
    return made;
}

// ---- Packets -----------------------------------------------------------------------------------

using Packets = Task;

TEST_F(Packets, WithoutASourceNoneIsEverTaken)
{
    cpuDefenTaskStart();
    EXPECT_EQ(0, gCpuDefend.pktSock);
    flood(); // nobody asks for it
    EXPECT_EQ(0u, turns(3));
    EXPECT_TRUE(hooked.empty());
    EXPECT_FALSE(waitedFor(0)) << "the number that stands for no source";
}

TEST_F(Packets, EachGoesToTheHookAsItCame)
{
    const Signal source(true);
    start(source);
    scripted::script.packets = {packet(3), packet(1, 1500), packet(2, 14)}; // 80 are looked at
    scripted::script.packets[1].protocol = 0x0800;
    EXPECT_EQ(3u, turns(1));
    ASSERT_EQ(3u, hooked.size());
    const std::array<uint8_t, 3> marks{3, 1, 2};
    const std::array<size_t, 3> lengths{60, 80, 14};
    for (size_t i = 0; i < hooked.size(); i++) {
        EXPECT_EQ(70u + marks[i], hooked[i].ifUnit);
        EXPECT_EQ(i == 1 ? 0x0800 : 0x0806, hooked[i].protocol);
        EXPECT_EQ(14, hooked[i].info.pkt_dataoffset);
        EXPECT_EQ(marks[i], hooked[i].info.pkt_outervid);
        EXPECT_EQ(std::vector<uint8_t>(lengths[i], marks[i]), hooked[i].frame);
        EXPECT_EQ(1, hooked[i].semDepth);
    }
}

/** The table has four records here. */
TEST_F(Packets, TheSourceHearsOfTheRoomThatTheyLeave)
{
    using Told = std::vector<std::pair<uint32_t, uint32_t>>;
    recordsAll = true;
    const Signal source(true);
    start(source);
    EXPECT_EQ((Told{{0, 4}}), scripted::room) << "before there is any";
    scripted::script.packets = {packet(1), packet(1), packet(2)};
    turns(1);
    EXPECT_EQ((Told{{0, 4}, {1, 4}, {1, 4}, {2, 4}}), scripted::room);
}

TEST_F(Packets, AreTakenWithoutASignOfThem)
{
    const Signal source(false);
    start(source);
    scripted::script.packets = {packet(1), packet(2)};
    EXPECT_EQ(2u, turns(1));
    plan.next[faults::Call::Select] = {EINTR};
    scripted::script.packets = {packet(3)};
    EXPECT_EQ(1u, turns(1));
}

TEST_F(Packets, ASecondTakesALimitedNumber)
{
    const Signal source(true);
    start(source);
    flood();
    EXPECT_EQ(PER_TURN, turns(1));
    EXPECT_EQ(PER_SECOND - PER_TURN, turns(30));
    EXPECT_EQ(0u, turns(30));
    clockReading += 999; // 5000 was the first millisecond of its second
    EXPECT_EQ(0u, turns(30));
    clockReading += 1;
    EXPECT_EQ(PER_SECOND, turns(30));
}

TEST_F(Packets, SourceIsLeftOutOnceTheSecondsShareIsUsedUp)
{
    const Signal source(true);
    start(source);
    flood();
    turns(19);
    EXPECT_LT(taken(), PER_SECOND);
    turns(1);
    EXPECT_EQ(PER_SECOND, taken());
    EXPECT_TRUE(waitedFor(source.fd()));
    turns(1);
    EXPECT_FALSE(waitedFor(source.fd()));
    EXPECT_TRUE(waitedFor(gCpuDefend.cmdSock));
    EXPECT_TRUE(waitedFor(gCpuDefend.rtSock));
    clockReading += 1000;
    turns(1);
    EXPECT_TRUE(waitedFor(source.fd()));
}

TEST_F(Packets, SourceBeyondSelectIsAskedAtEachTurn)
{
    scripted::script.pktSock = FD_SETSIZE;
    cpuDefenTaskStart();
    scripted::script.packets = {packet(1)};
    EXPECT_EQ(1u, turns(1));
    EXPECT_LE(plan.selects.back().count, FD_SETSIZE);
}

TEST_F(Packets, AFloodDoesNotStarveTheChannel)
{
    const Signal source(true);
    start(source);
    flood();
    const Bytes body =
        request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXPOLICYNUM, globalIndex(), number(0));
    for (int i = 0; i < 40; i++) { // in and out of the second's share
        Client client;
        ASSERT_TRUE(client.write(framed(body)));
        const size_t before = taken();
        size_t takenBeforeReply = SIZE_MAX;
        plan.sending = [&] { takenBeforeReply = taken() - before; };
        cpuDefenTaskTurn();
        EXPECT_EQ(0u, takenBeforeReply) << "the next turn serves the client, packets come after";
        EXPECT_EQ(framed(answered(body, globalIndex(), numberItem(4))), client.readAll());
    }
    EXPECT_EQ(PER_SECOND, taken());
}

TEST_F(Packets, AFloodDoesNotStarveNetlinkAndThePlatform)
{
    const Signal source(true), platform(true);
    scripted::script.platformFd = platform.fd();
    start(source);
    flood();
    for (int i = 0; i < 40; i++) {
        cpuDefenTaskTurn();
        EXPECT_EQ(i + 1u, scripted::platformRuns);
    }
    plan.ready = gCpuDefend.rtSock;
    plan.datagram = faults::Datagram{datagram(), 0};
    cpuDefenTaskTurn();
    EXPECT_FALSE(plan.datagram);
}

// ---- The platform's own work -------------------------------------------------------------------

using Platform = Task;

TEST_F(Platform, WorkIsDoneWhenItsDescriptorIsReadable)
{
    const Signal busy(true), idle(false);
    scripted::script.platformFd = idle.fd();
    turns(2);
    EXPECT_TRUE(waitedFor(idle.fd()));
    EXPECT_EQ(0u, scripted::platformRuns);
    scripted::script.platformFd = busy.fd();
    turns(2);
    EXPECT_EQ(2u, scripted::platformRuns);
}

TEST_F(Platform, DescriptorBeyondSelectIsLeftAlone)
{
    scripted::script.platformFd = FD_SETSIZE;
    turns(1);
    EXPECT_EQ(0u, scripted::platformRuns);
}

TEST_F(Platform, WorkIsOneChangeAndCardsAreLookedAtAnew)
{
    const Signal busy(true);
    scripted::script.platformFd = busy.fd();
    scripted::script.platform = [] { note("platform"); };
    startEarlier();
    EXPECT_EQ("follow 1/1, platform 1/1, look 1/1, retry 1/1, follow 1/1", turn());
    EXPECT_EQ(2u, scripted::changesEnded) << "the timers', and this one";
}

// ---- What is put in force together --------------------------------------------------------------

class Changes : public Task
{
protected:
    static int32_t callback(void *what, uintptr_t, uintptr_t)
    {
        note(static_cast<const char *>(what));
        return 0;
    }
};

TEST_F(Changes, StartLooksForCards)
{
    cpuDefenTaskStart();
    EXPECT_EQ("look 1/1, follow 1/1", text());
    EXPECT_EQ(1u, scripted::changesEnded);
    EXPECT_EQ(500, timerListNextTimeout(&gCpuDefend.timerList));
}

TEST_F(Changes, TimersOfATurnAreOne)
{
    char first[] = "first", second[] = "second";
    tTimerNode timers[2] = {};
    timerStart(&gCpuDefend.timerList, &timers[0], 10, callback, first, 0, 0);
    timerStart(&gCpuDefend.timerList, &timers[1], 20, callback, second, 0, 0);
    EXPECT_EQ("follow 1/1", turn());
    clockReading += 20;
    EXPECT_EQ("first 1/1, second 1/1, follow 1/1", turn());
    EXPECT_EQ(2u, scripted::changesEnded);
}

TEST_F(Changes, NotificationIsOne)
{
    plan.ready = gCpuDefend.rtSock;
    plan.datagram = faults::Datagram{datagram(), 0};
    EXPECT_EQ("follow 1/1, cards(32) 1/1, follow 1/1", turn());
    EXPECT_EQ(2u, scripted::changesEnded);
}

TEST_F(Changes, NotificationFromAnybodyElseIsNone)
{
    plan.ready = gCpuDefend.rtSock;
    plan.datagram = faults::Datagram{datagram(), 4321};
    EXPECT_EQ("follow 1/1", turn());
    EXPECT_FALSE(plan.datagram) << "it was not even received";
}

TEST_F(Changes, CardsAreLookedAtAnewWhenNotificationsWereLost)
{
    plan.ready = gCpuDefend.rtSock;
    plan.next[faults::Call::RecvFrom] = {ENOBUFS};
    startEarlier();
    EXPECT_EQ("follow 1/1, look 1/1, follow 1/1", turn());
    clockReading += 1000;
    for (int error : {EINTR, EAGAIN}) {
        plan.ready = gCpuDefend.rtSock;
        plan.next[faults::Call::RecvFrom] = {error};
        EXPECT_EQ("follow 1/1", turn());
        EXPECT_TRUE(plan.next[faults::Call::RecvFrom].empty());
    }
}

TEST_F(Changes, CardsAreLookedAtAndRefusalsRetriedOnceInASecond)
{
    const Signal busy(true), idle(false);
    cpuDefenTaskStart();
    scripted::script.platformFd = busy.fd();
    EXPECT_EQ("follow 1/1, retry 1/1, follow 1/1", turn());
    for (int i = 0; i < 3; i++)
        EXPECT_EQ("follow 1/1, follow 1/1", turn()) << "all was done in this second";
    scripted::script.platformFd = idle.fd();
    clockReading += 999;
    EXPECT_EQ("follow 1/1", turn());
    clockReading += 1;
    EXPECT_EQ("look 1/1, retry 1/1, follow 1/1", turn()) << "what was put off is done";
    EXPECT_EQ("follow 1/1", turn());
    clockReading += 1000;
    EXPECT_EQ("follow 1/1", turn());
    scripted::script.platformFd = busy.fd();
    EXPECT_EQ("follow 1/1, look 1/1, retry 1/1, follow 1/1", turn());
}

TEST_F(Changes, CardsAreNotLookedAtAgainWhenThePlatformMovedNoPort)
{
    const Signal busy(true);
    cpuDefenTaskStart();
    scripted::script.platformFd = busy.fd();
    scripted::script.portsMoved = 0;
    clockReading += 1000;
    for (int i = 0; i < 2; i++)
        EXPECT_EQ("follow 1/1, follow 1/1", turn());
    scripted::script.portsMoved = -1;
    EXPECT_EQ("follow 1/1, look 1/1, retry 1/1, follow 1/1", turn());
}

TEST_F(Changes, ATurnServesTheChannelFirstAndPacketsLast)
{
    const Signal source(true), platform(true);
    scripted::script.platformFd = platform.fd();
    scripted::script.platform = [] { note("platform"); };
    start(source);
    scripted::script.packets = {packet(1)};
    Client client;
    client.write(framed(
        request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXPOLICYNUM, globalIndex(), number(0))));
    const nlmsghdr forUs{16, 99, 0, 0, 0};
    sockaddr_nl address{};
    socklen_t length = sizeof address;
    getsockname(gCpuDefend.rtSock, reinterpret_cast<sockaddr *>(&address), &length);
    const int sender = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
    const ssize_t sent =
        sendto(sender, &forUs, sizeof forUs, 0, reinterpret_cast<sockaddr *>(&address), length);
    close(sender);
    if (sent != sizeof forUs)
        GTEST_SKIP() << "no sending between netlink sockets here: " << strerror(errno);
    plan.datagram = faults::Datagram{datagram(), 0}; // instead of what was sent
    plan.sending = [] { note("reply"); };
    scripted::script.packets.front().info.pkt_inport = 1;
    clockReading += 1000;
    EXPECT_EQ("follow 1/1, reply 0/0, platform 1/1, look 1/1, retry 1/1, follow 1/1, "
              "cards(32) 1/1, follow 1/1",
              turn());
    EXPECT_EQ(1u, hooked.size());
    EXPECT_FALSE(client.readAll().empty());
}

// ---- Management requests
// -------------------------------------------------------------------------

class Requests : public Changes
{
protected:
    /** Have the loop answer a request. @return the return code of the reply */
    static int32_t ask(const Bytes &body)
    {
        Client client;
        EXPECT_TRUE(client.write(framed(body)));
        turn();
        const Bytes reply = client.readAll();
        if (reply.size() < 4 + CODE_AT + 4)
            return INT32_MIN;
        int32_t code = 0;
        for (size_t i = 0; i < 4; i++)
            code = static_cast<int32_t>(static_cast<uint32_t>(code) << 8 | reply[4 + CODE_AT + i]);
        return code;
    }

    static Bytes bindTo(const std::string &name, uint32_t func = CPUDEFEND_GLOBAL_SETAPI)
    {
        return request(func, CPUDEFEND_GLOBAL_POLICY, globalIndex(), octets(name));
    }
};

TEST_F(Requests, ChangeIsInForceBeforeTheReply)
{
    for (const std::string name : {"default", ""}) {
        scripted::calls.clear();
        bool replied = false;
        plan.sending = [&] {
            replied = true;
            EXPECT_EQ(0u, scripted::changeDepth);
            EXPECT_EQ(scripted::changes, scripted::changesEnded);
            EXPECT_GE(scripted::programming().size(), 10u);
        };
        const uint32_t before = scripted::changes;
        EXPECT_EQ(0, ask(bindTo(name)));
        EXPECT_TRUE(replied);
        EXPECT_EQ(before + 2, scripted::changes) << "the timers', and this one";
        for (const scripted::Record &record : scripted::programming())
            EXPECT_EQ(scripted::changes, record.change) << record.text();
    }
}

TEST_F(Requests, ReplayedChangeIsOneToo)
{
    plan.sending = [] { note("reply"); };
    EXPECT_EQ(0, ask(bindTo("default", CPUDEFEND_GLOBAL_SYNCAPI)));
    EXPECT_EQ("follow 1/1, follow 1/1, reply 0/0", text());
    for (const scripted::Record &record : scripted::programming())
        EXPECT_EQ(2u, record.change) << record.text();
}

TEST_F(Requests, WhatWasRefusedIsAskedForAgainInTheNextTurn)
{
    EXPECT_EQ(0, ask(bindTo("default")));
    EXPECT_EQ("retry 1/1, follow 1/1", turn());
    EXPECT_EQ("follow 1/1", turn());
    EXPECT_EQ(
        0, ask(request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_DEBUG, globalIndex(), number(2))));
    EXPECT_EQ("follow 1/1", turn()) << "nothing was programmed";
}

TEST_F(Requests, CodeOfTheEndIsAnsweredToWhatWasProgrammedAlone)
{
    scripted::script.changeEnds = {0, EIO}; // the timers', the request's
    EXPECT_EQ(EIO, ask(bindTo("default")));
    scripted::script.changeEnds = {0, EIO};
    EXPECT_EQ(
        0, ask(request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_DEBUG, globalIndex(), number(2))));
    EXPECT_TRUE(scripted::script.changeEnds.empty());
}

TEST_F(Requests, QueriesAndWhatIsRefusedAreNone)
{
    const std::string timersOnly = "follow 1/1";
    ask(request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXPOLICYNUM, globalIndex(), number(0)));
    EXPECT_EQ(timersOnly, text());
    ask(request(CPUDEFEND_SLOT_GETFIRST, 0, slotIndex(0, 0), number(0)));
    EXPECT_EQ(timersOnly, text());
    ask(request(CPUDEFEND_POLICY_GETNEXT, 0, policyIndex("default"), number(0)));
    EXPECT_EQ(timersOnly, text());
    // a value of the wrong type never reaches the handler
    EXPECT_EQ(-1, ask(request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, globalIndex(),
                              number(1))));
    EXPECT_EQ(timersOnly, text());
    ask(Bytes(10)); // malformed
    EXPECT_EQ(timersOnly, text());
}

/** Use up what may be said, at a time of its own: at any other all may be said again. */
void sayAllThatMayBeSaid(uint32_t about)
{
    static uint64_t time;
    clockReading += time += 1'000'000'000;
    osMessagesAbout(about);
    while (osMessageAdmitted())
        ;
}

/** What is wrong with a request, as the next turn says it. */
std::string saidOfRequest()
{
    Client client;
    EXPECT_TRUE(client.write({0, 0, 0x10, 0})); // longer than one may be
    testing::internal::CaptureStderr();
    cpuDefenTaskTurn();
    return testing::internal::GetCapturedStderr();
}

TEST_F(Requests, WhatIsSaidOfThemIsSaidBesideAFloodOfEvents)
{
    sayAllThatMayBeSaid(OS_MESSAGES_OF_EVENTS);
    EXPECT_NE(std::string::npos, saidOfRequest().find("recv buf failed!"));
    EXPECT_FALSE(osMessageAdmitted()) << "it is about events again";
}

TEST_F(Requests, WhatIsSaidOfThemIsLimited)
{
    sayAllThatMayBeSaid(OS_MESSAGES_OF_REQUESTS);
    EXPECT_EQ(std::string::npos, saidOfRequest().find("recv buf failed!"));
}

} // namespace
