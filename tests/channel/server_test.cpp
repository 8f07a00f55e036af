// The channel's server, the event loop and the netlink walk in process, with system calls that
// fail, are cut by signals, or meet clients that stall and hang up.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/if_tun.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include "client.h"
#include "diagnostics.h"
#include "faults.h"
#include "place.h"
#include "request.h"
#include "scripted_hw.h"

using namespace channel;
using faults::Call;
using faults::plan;

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/** A stalled client costs a second; the rest is room for a loaded or emulated machine. */
constexpr auto ONE_STALL = milliseconds(2000);

milliseconds since(Clock::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

size_t openDescriptors()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

const Index global = globalIndex();
const Bytes plainBody =
    request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_MAXPOLICYNUM, global, number(0));
const Bytes plainReply = answered(plainBody, global, numberItem(4));

class Server : public testing::Test
{
protected:
    void SetUp() override
    {
        scripted::reset();
        plan = {};
        ASSERT_EQ(0, cpuDefendInit(4, 2));
        descriptors_ = openDescriptors();
    }
    void TearDown() override
    {
        osClockSet(nullptr);
        cpuDefendRelease();
        plan = {};
    }

    /** One call of the server. @return what it printed, line numbers as "N" */
    std::string serve(int32_t expected)
    {
        testing::internal::CaptureStderr();
        EXPECT_EQ(expected, cpudefendCmdServer());
        return withoutLines(testing::internal::GetCapturedStderr());
    }

    void expectServed(const Client &client)
    {
        EXPECT_EQ("", serve(0));
        EXPECT_EQ(framed(plainReply), client.readAll());
    }

    /** The daemon holds no descriptor more than it started with; @a clients are the test's. */
    void expectClosed(size_t clients) const
    {
        EXPECT_EQ(descriptors_ + clients, openDescriptors());
    }

    size_t descriptors_ = 0;
};

bool startsWith(const std::string &text, const std::string &start)
{
    return text.compare(0, start.size(), start) == 0;
}

// ---- A request and its reply -------------------------------------------------------------------

TEST_F(Server, AnswersOneRequestPerConnection)
{
    Client client;
    client.write(framed(plainBody) + framed(plainBody));
    expectServed(client);
    expectClosed(1);
}

TEST_F(Server, AsksForAtLeastThirtyBytesAtATime)
{
    Client client;
    client.write(framed(plainBody));
    expectServed(client);
    EXPECT_EQ(30, plan.lowWaterMark);
}

TEST_F(Server, AMalformedRequestIsReportedWhileDebugging)
{
    gCpuDefend.cpuDefendDebug = 1;
    Client client;
    client.write(framed(Bytes(25)));
    EXPECT_EQ("\r\n  lenRx 25 err in func cpudefendCmdProcess in line N!"
              "\r\n call cpudefendCmdProcess failed in line N in func cpudefendCmdServer",
              serve(0));
}

TEST_F(Server, ARequestOfTheGreatestLengthIsServed)
{
    Bytes body = plainBody;
    body.resize(CPUDEFEND_CMD_MAXLEN, 0xAA);
    Client client;
    client.write(framed(body));
    EXPECT_EQ("", serve(0));
    EXPECT_EQ(framed(answered(body, global, numberItem(4))), client.readAll());
}

TEST_F(Server, AGreaterLengthClosesTheConnectionWithoutAReply)
{
    for (uint32_t length : {1519u, 0x10000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        Client client;
        client.write(be32(length) + Bytes(1600));
        const auto start = Clock::now();
        serve(-1);
        EXPECT_LT(since(start), milliseconds(500));
        EXPECT_EQ(Bytes(), client.readAll());
        expectClosed(1);
    }
}

TEST_F(Server, ABodyThatArrivesInPiecesIsServed)
{
    Client client;
    std::thread writer([&client] {
        for (uint8_t byte : framed(plainBody)) {
            client.write({byte});
            std::this_thread::sleep_for(milliseconds(2));
        }
    });
    EXPECT_EQ("", serve(0));
    writer.join();
    EXPECT_EQ(framed(plainReply), client.readAll());
}

TEST_F(Server, AConnectionIsNotInheritedByAProgramStarted)
{
    Client client;
    client.write(framed(plainBody));
    expectServed(client);
    EXPECT_TRUE(plan.acceptedCloseOnExec);
}

// ---- Failures ----------------------------------------------------------------------------------

TEST_F(Server, AcceptFailing)
{
    plan.next[Call::Accept] = {EMFILE};
    EXPECT_EQ("\r\n cpudefendCmdServer accept failed!: Too many open files\n", serve(-1));
    expectClosed(0);
}

TEST_F(Server, SetSockOptFailing)
{
    Client client;
    client.write(framed(plainBody));
    plan.next[Call::SetSockOpt] = {ENOMEM};
    EXPECT_EQ("\r\n cpudefendCmdServer setsockopt failed!: Cannot allocate memory\n", serve(-1));
    expectClosed(1);
    EXPECT_EQ(Bytes(), client.readAll());
}

TEST_F(Server, ReceivingTheLengthFailing)
{
    Client client;
    client.write(framed(plainBody));
    plan.next[Call::Recv] = {EIO};
    EXPECT_EQ("\r\n cpudefendCmdServer recv buflen failed!: Input/output error\n", serve(-1));
    expectClosed(1);
}

TEST_F(Server, ReceivingTheBodyFailing)
{
    Client client;
    client.write(be32(40));
    plan.next[Call::Recv] = {0, EIO};
    EXPECT_EQ("\r\n cpudefendCmdServer recv buf failed!: Input/output error\n", serve(-1));
    expectClosed(1);
}

TEST_F(Server, AReplyThatLeavesInPartsArrivesWhole)
{
    Bytes body = plainBody;
    for (uint8_t i = 0; i < 100; i++)
        body.push_back(i); // so that no two parts are alike
    const Bytes reply = framed(answered(body, global, numberItem(4)));
    for (size_t part : {1u, 2u, 3u, 4u, 5u, 7u, 30u, 100u}) {
        Client client;
        client.write(framed(body));
        plan.sendAtMost = part;
        EXPECT_EQ("", serve(0));
        plan.sendAtMost = 0;
        EXPECT_EQ(reply, client.readAll()) << part;
    }
}

TEST_F(Server, SendingFailingIsDetailedWhileDebugging)
{
    gCpuDefend.cpuDefendDebug = 1;
    Client client;
    client.write(framed(plainBody));
    plan.next[Call::SendMsg] = {ENOBUFS};
    EXPECT_EQ("\r\n send 0 bytes was different from " + std::to_string(plainBody.size() + 4) +
                  " in line N in func cpudefendCmdServer!"
                  "cpudefendCmdServer sendto failed!: No buffer space available\n",
              serve(-1));
}

TEST_F(Server, ServesTheNextClientAfterEachFailure)
{
    for (Call call : {Call::Accept, Call::SetSockOpt, Call::Recv, Call::SendMsg}) {
        Client client;
        client.write(framed(plainBody));
        plan.next[call] = {EIO};
        serve(-1);
        Client next;
        next.write(framed(plainBody));
        EXPECT_EQ("", serve(0));
        if (call == Call::Accept) {
            EXPECT_EQ("", serve(0)) << "the connection that could not be accepted still waits";
        }
        EXPECT_EQ(framed(plainReply), next.readAll());
    }
    expectClosed(0);
}

// ---- Signals -----------------------------------------------------------------------------------

TEST_F(Server, CallsCutByASignalAreTakenUpAgain)
{
    Client client;
    client.write(be32(static_cast<uint32_t>(plainBody.size())));
    plan.next[Call::Accept] = {EINTR, EINTR};
    plan.next[Call::Recv] = {EINTR, EINTR, 0, EINTR, EINTR};
    plan.next[Call::SendMsg] = {EINTR, EINTR};
    std::thread writer([&client] {
        std::this_thread::sleep_for(milliseconds(100));
        client.write(plainBody);
    });
    expectServed(client);
    writer.join();
    for (const auto &[call, left] : plan.next)
        EXPECT_TRUE(left.empty());
    expectClosed(1);
}

TEST_F(Server, ASelectCutByASignalIsNoError)
{
    Client client;
    client.write(framed(plainBody));
    plan.next[Call::Select] = {EINTR};
    testing::internal::CaptureStderr();
    cpuDefenTaskTurn();
    cpuDefenTaskTurn();
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(framed(plainReply), client.readAll());
}

// ---- Clients that stall or hang up
// ---------------------------------------------------------------

/** Serves a client that sends @a sent and then nothing. */
class Stalling : public Server, public testing::WithParamInterface<size_t>
{
};

INSTANTIATE_TEST_SUITE_P(After, Stalling, testing::Values(0, 1, 3, 4, 5, 20, 40));

TEST_P(Stalling, CostsAtMostOneSecond)
{
    Client client;
    const Bytes whole = framed(plainBody);
    ASSERT_LT(GetParam(), whole.size());
    client.write(Bytes(whole.begin(), whole.begin() + static_cast<long>(GetParam())));
    const auto start = Clock::now();
    const std::string text = serve(-1);
    EXPECT_LT(since(start), ONE_STALL);
    EXPECT_TRUE(startsWith(text, GetParam() < 4 ? "\r\n cpudefendCmdServer recv buflen failed!: "
                                                : "\r\n cpudefendCmdServer recv buf failed!: "))
        << text;
    expectClosed(1);
    EXPECT_EQ(Bytes(), client.readAll());
}

TEST_P(Stalling, HangingUpCostsNothing)
{
    Client client;
    const Bytes whole = framed(plainBody);
    client.write(Bytes(whole.begin(), whole.begin() + static_cast<long>(GetParam())));
    client.hangUp();
    const auto start = Clock::now();
    const std::string text = serve(-1);
    EXPECT_LT(since(start), milliseconds(500));
    EXPECT_TRUE(startsWith(text, GetParam() < 4 ? "\r\n cpudefendCmdServer recv buflen failed!: "
                                                : "\r\n cpudefendCmdServer recv buf failed!: "))
        << text;
    expectClosed(0);
}

/** A client that sends a byte of @a data every 150 ms, for as long as somebody listens. */
class Dripping
{
public:
    Dripping(const Client &client, const Bytes &data)
        : thread_([this, &client, data] {
              for (size_t i = 0; i < data.size() && !done_ && client.write({data[i]}); ++i)
                  std::this_thread::sleep_for(milliseconds(150));
          })
    {
    }
    ~Dripping()
    {
        done_ = true;
        thread_.join();
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

TEST_F(Server, AClientThatDripsItsBytesCostsAtMostOneSecondInTotal)
{
    Client client;
    const Dripping drip(client, framed(plainBody));
    const auto start = Clock::now();
    const std::string text = serve(-1);
    EXPECT_LT(since(start), ONE_STALL);
    EXPECT_TRUE(startsWith(text, "\r\n cpudefendCmdServer recv buf failed!: ")) << text;
}

TEST_F(Server, AClientThatReadsNothingCostsAtMostOneSecondOfSending)
{
    Client client;
    client.write(framed(plainBody));
    plan.accepted = [](int fd) {
        const Bytes junk(4096);
        while (send(fd, junk.data(), junk.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0)
            ;
    };
    const auto start = Clock::now();
    const std::string text = serve(-1);
    EXPECT_LT(since(start), ONE_STALL);
    EXPECT_TRUE(startsWith(text, "cpudefendCmdServer sendto failed!: ")) << text;
    expectClosed(1);
}

TEST_F(Server, AClientThatHangsUpBeforeItsReplyCostsNothing)
{
    struct sigaction action {
    };
    action.sa_handler = SIG_DFL;
    struct sigaction before {
    };
    sigaction(SIGPIPE, &action, &before);
    Client client;
    client.write(framed(plainBody));
    client.hangUp();
    EXPECT_EQ("cpudefendCmdServer sendto failed!: Broken pipe\n", serve(-1));
    sigaction(SIGPIPE, &before, nullptr);
    expectClosed(0);
}

// ---- The sockets -------------------------------------------------------------------------------

TEST_F(Server, TheMaskForNewFilesIsWhatItWas)
{
    const mode_t mine = umask(027);
    cpuDefendRelease();
    ASSERT_EQ(0, cpuDefendInit(4, 2));
    EXPECT_EQ(027u, umask(mine));
    EXPECT_EQ(0600u, plan.modeWhenBound & 07777u);
}

/** Somebody is always one step ahead of the socket. */
TEST_F(Server, WhatIsMadeJustBeforeTheSocketGivesWayToIt)
{
    const std::function<void()> makers[] = {
        [] { close(open(CPUDEFEND_CMD_SOCKET, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644)); },
        [] { (void)!symlink("/tmp/cpudefend-test-elsewhere", CPUDEFEND_CMD_SOCKET); },
    };
    for (const auto &maker : makers) {
        cpuDefendRelease();
        plan.binding = maker;
        ASSERT_EQ(0, cpuDefendInit(4, 2));
        EXPECT_EQ(0600u, plan.modeWhenBound & 07777u);
        EXPECT_EQ(0, plan.modeChanges);
        struct stat status;
        ASSERT_EQ(0, lstat(CPUDEFEND_CMD_SOCKET, &status));
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(0600u, status.st_mode & 07777u);
        EXPECT_EQ(std::vector<std::string>(), place::leftBeside());
        const Client client;
        client.write(framed(plainBody));
        expectServed(client);
    }
}

bool makeStrangersFolder()
{
    return mkdir(CPUDEFEND_CMD_SOCKET, 0700) == 0 && chown(CPUDEFEND_CMD_SOCKET, 65534, 65534) == 0;
}

/** Somebody puts a folder there before one step, and takes it away before the next. */
TEST_F(Server, ChangingThePlaceInStepKeepsNoSocketFromIt)
{
    for (const bool first : {false, true}) {
        cpuDefendRelease();
        if (!makeStrangersFolder()) {
            rmdir(CPUDEFEND_CMD_SOCKET);
            GTEST_SKIP() << "only root can give a folder away";
        }
        plan.moving = [there = first]() mutable {
            rmdir(CPUDEFEND_CMD_SOCKET);
            if ((there = !there))
                makeStrangersFolder();
        };
        ASSERT_EQ(0, cpuDefendInit(4, 2));
        plan.moving = nullptr;
    }
}

TEST_F(Server, AFolderOfOnesOwnIsNeverReplaced)
{
    cpuDefendRelease();
    const mode_t mine = umask(027);
    plan.binding = [] { mkdir(CPUDEFEND_CMD_SOCKET, 0700); };
    EXPECT_EQ(-1, cpuDefendInit(4, 2));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ(027u, umask(mine));
    EXPECT_EQ(std::vector<std::string>(), place::leftBeside());
    plan.binding = nullptr;
    EXPECT_EQ(0, rmdir(CPUDEFEND_CMD_SOCKET));
    ASSERT_EQ(0, cpuDefendInit(4, 2));
}

TEST_F(Server, SocketsAreNotInheritedByAProgramStarted)
{
    EXPECT_TRUE(fcntl(gCpuDefend.cmdSock, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(gCpuDefend.rtSock, F_GETFD) & FD_CLOEXEC);
}

// ---- The event loop ----------------------------------------------------------------------------

TEST_F(Server, TheWaitIsOneSecondWhateverTimersAreArmed)
{
    cpuDefenTaskStart();
    const auto start = Clock::now();
    cpuDefenTaskTurn();
    EXPECT_GE(since(start), milliseconds(950));
    ASSERT_EQ(1u, plan.selects.size());
    EXPECT_EQ(1, plan.selects[0].wait.tv_sec);
    EXPECT_EQ(0, plan.selects[0].wait.tv_usec);
}

TEST_F(Server, BothSocketsAreWatchedForReadingAlone)
{
    plan.noWait = true;
    cpuDefenTaskTurn();
    ASSERT_EQ(1u, plan.selects.size());
    const faults::SelectAsked &asked = plan.selects[0];
    EXPECT_EQ(std::max(gCpuDefend.cmdSock, gCpuDefend.rtSock) + 1, asked.count);
    EXPECT_TRUE(FD_ISSET(gCpuDefend.cmdSock, &asked.read));
    EXPECT_TRUE(FD_ISSET(gCpuDefend.rtSock, &asked.read));
    EXPECT_FALSE(asked.write);
    EXPECT_FALSE(asked.except);
}

TEST_F(Server, AClientEndsTheWait)
{
    Client client;
    client.write(framed(plainBody));
    const auto start = Clock::now();
    cpuDefenTaskTurn();
    EXPECT_LT(since(start), milliseconds(700));
    EXPECT_EQ(framed(plainReply), client.readAll());
    EXPECT_EQ(0, plan.semDepth);
}

uint64_t virtualNow;

uint64_t virtualClock()
{
    return virtualNow;
}

int32_t noteDepth(void *depth, uintptr_t, uintptr_t)
{
    *static_cast<int *>(depth) = plan.semDepth;
    return 0;
}

TEST_F(Server, TimersRunWithTheSemaphoreHeld)
{
    virtualNow = 1000;
    osClockSet(virtualClock);
    plan.noWait = true;
    int depth = -1;
    tTimerNode timer{};
    ASSERT_EQ(0, timerStart(&gCpuDefend.timerList, &timer, 100, noteDepth, &depth, 0, 0));
    virtualNow += 99;
    cpuDefenTaskTurn();
    EXPECT_EQ(-1, depth);
    virtualNow += 1;
    cpuDefenTaskTurn();
    EXPECT_EQ(1, depth);
    EXPECT_EQ(0, plan.semDepth);
}

// ---- Netlink -----------------------------------------------------------------------------------

/** A header as the kernel lays it out (host order), then @a payload bytes, unpadded. */
Bytes message(uint16_t type, uint32_t length, size_t payload)
{
    const nlmsghdr header{length, type, 0, 0, 0};
    Bytes made(sizeof header + payload, 0xEE);
    memcpy(made.data(), &header, sizeof header);
    return made;
}

Bytes message(uint16_t type, size_t payload = 0)
{
    return message(type, static_cast<uint32_t>(16 + payload), payload);
}

Bytes padded(Bytes data)
{
    data.resize((data.size() + 3) & ~size_t{3});
    return data;
}

const std::string NEW_LINK = "\r\n cpudefendNotifyRecv: RTM_NEWLINK!";
const std::string DEL_LINK = "\r\n cpudefendNotifyRecv: RTM_DELLINK!";

std::string unknownType(int type)
{
    return "\r\n unknown rtm type " + std::to_string(type) + "!";
}

class Netlink : public Server
{
protected:
    void SetUp() override
    {
        Server::SetUp();
        gCpuDefend.cpuDefendDebug = 1;
    }

    /** What the walk prints for @a data, in a buffer of exactly its size at an odd address. */
    static std::string walk(const Bytes &data)
    {
        const auto buffer = std::make_unique<unsigned char[]>(data.size() + 1);
        std::copy(data.begin(), data.end(), buffer.get() + 1);
        testing::internal::CaptureStderr();
        EXPECT_EQ(0, cpudefendNotifyRecv(buffer.get() + 1, static_cast<int32_t>(data.size())));
        return testing::internal::GetCapturedStderr();
    }

    /** What a turn of the event loop prints. */
    static std::string turn()
    {
        testing::internal::CaptureStderr();
        cpuDefenTaskTurn();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(Netlink, Types87And90AreSkippedSilently)
{
    EXPECT_EQ("", walk(message(87)));
    EXPECT_EQ("", walk(message(90)));
}

TEST_F(Netlink, OtherTypesAreReportedByNumber)
{
    for (int type : {0, 3, 15, 18, 86, 88, 89, 91, 65535})
        EXPECT_EQ(unknownType(type), walk(message(static_cast<uint16_t>(type))));
}

TEST_F(Netlink, FifteenBytesAreIgnored)
{
    Bytes data = message(16);
    data.resize(15);
    EXPECT_EQ("", walk(data));
    EXPECT_EQ("", walk({}));
}

TEST_F(Netlink, ANegativeLengthIsIgnored)
{
    Bytes data = message(16);
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, cpudefendNotifyRecv(data.data(), -1));
    EXPECT_EQ(0, cpudefendNotifyRecv(data.data(), INT32_MIN));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(Netlink, AFirstLengthThatLiesIsIgnored)
{
    for (uint32_t length :
         {0u, 1u, 15u, 17u, 1000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFCu, 0xFFFFFFFDu, 0xFFFFFFFFu})
        EXPECT_EQ("", walk(message(16, length, 0)));
}

TEST_F(Netlink, TheWalkEndsAtALaterLengthThatLies)
{
    for (uint32_t length : {0u, 15u, 17u, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_EQ(NEW_LINK, walk(message(16) + message(17, length, 0)));
}

TEST_F(Netlink, MessagesArePaddedToFourBytes)
{
    for (size_t payload : {1u, 2u, 3u, 4u, 5u})
        EXPECT_EQ(NEW_LINK + DEL_LINK + unknownType(20),
                  walk(padded(message(16, payload)) + padded(message(17, payload)) + message(20)));
}

TEST_F(Netlink, PaddingMissingAtTheEndEndsTheWalk)
{
    EXPECT_EQ(NEW_LINK, walk(message(16, 1)));
    EXPECT_EQ(NEW_LINK, walk(message(16, 3)));
}

TEST_F(Netlink, ADatagramFromTheKernelIsWalkedWithTheSemaphoreHeld)
{
    plan.ready = gCpuDefend.rtSock;
    plan.datagram = faults::Datagram{message(16) + message(17), 0};
    EXPECT_EQ(NEW_LINK + DEL_LINK, turn());
    EXPECT_EQ(std::vector<int>({1, 1}), plan.depthAtMessage);
    EXPECT_EQ(0, plan.semDepth);
}

TEST_F(Netlink, AUserProcessCannotPoseAsTheKernel)
{
    sockaddr_nl address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(gCpuDefend.rtSock, reinterpret_cast<sockaddr *>(&address), &length));
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
    ASSERT_GE(fd, 0);
    const Bytes forged = message(16);
    const ssize_t sent =
        sendto(fd, forged.data(), forged.size(), 0, reinterpret_cast<sockaddr *>(&address), length);
    const int error = errno;
    close(fd);
    if (sent < 0)
        GTEST_SKIP() << "no sending between netlink sockets here: " << strerror(error);
    EXPECT_EQ("", turn());
    char rest;
    EXPECT_EQ(-1, recv(gCpuDefend.rtSock, &rest, 1, MSG_DONTWAIT)) << "it was not even received";
}

/**
 * A link of a network name space of this process's own goes. (Of a link that comes the kernel
 * tells more than the daemon's buffer holds, and cut off messages are ignored.)
 */
TEST(KernelNetlink, ALinkThatGoesIsReported)
{
    if (unshare(CLONE_NEWNET) != 0)
        GTEST_SKIP() << "no network name space: " << strerror(errno);
    ifreq link{};
    strcpy(link.ifr_name, "test0");
    link.ifr_flags = IFF_TUN | IFF_NO_PI;
    const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd < 0 || ioctl(fd, TUNSETIFF, &link) != 0)
        GTEST_SKIP() << "no link that could go: " << strerror(errno);
    plan = {};
    ASSERT_EQ(0, cpuDefendInit(4, 2));
    gCpuDefend.cpuDefendDebug = 1;
    close(fd);
    testing::internal::CaptureStderr();
    cpuDefenTaskTurn();
    EXPECT_EQ(DEL_LINK, testing::internal::GetCapturedStderr());
    cpuDefendRelease();
}

} // namespace
