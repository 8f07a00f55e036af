// Start-up: the pools, what is made in which order, and what a failure leaves behind.
#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "channel/diagnostics.h"
#include "core_test.h"

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

class StartUp : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        release();
    }

    /** cpuDefendInit with its calls noted, and failing as seam::fail tells. */
    int32_t init(uint32_t policies = 4, uint32_t slots = 2)
    {
        seam::calls.clear();
        seam::blocks = 0;
        seam::armed = true;
        const int32_t result = cpuDefendInit(policies, slots);
        seam::armed = false;
        return result;
    }

    static std::vector<seam::Call> callsOf(const std::string &function)
    {
        std::vector<seam::Call> found;
        for (const seam::Call &call : seam::calls)
            if (call.function == function)
                found.push_back(call);
        return found;
    }

    /** Start-up failed, and nothing of it is left but sockets. */
    static void expectReleased(int32_t result)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(seam::blocks, 0);
        EXPECT_EQ(image(gCpuDefend), std::string(sizeof gCpuDefend, '\0'));
    }
};

/* ---- Pools ---------------------------------------------------------------------------- */

struct PoolSizes {
    uint32_t policyArg, slotArg;
    uint32_t policies, rules, cars, traces, slots;
};

static const PoolSizes poolSizes[] = {
    {0, 0, 32, 256, 320, 32, 10},
    {32, 10, 32, 256, 320, 32, 10},
    {4, 2, 4, 32, 40, 4, 2},
    {0, 3, 32, 256, 320, 32, 3},
    {5, 0, 5, 40, 50, 5, 10},
    {1, 1, 1, 8, 10, 1, 1},
    {1000, 255, 1000, 8000, 10000, 1000, 255},
};

TEST_F(StartUp, PoolsAreSizedByTheArguments)
{
    for (const PoolSizes &row : poolSizes) {
        SCOPED_TRACE(testing::Message() << row.policyArg << ' ' << row.slotArg);
        restart(row.policyArg, row.slotArg);
        EXPECT_EQ(gCpuDefend.maxPolicyNum, row.policies);
        EXPECT_EQ(gCpuDefend.maxUserDefinedNum, row.rules);
        EXPECT_EQ(gCpuDefend.maxCarPktNum, row.cars);
        EXPECT_EQ(gCpuDefend.maxSrcTraceNum, row.traces);
        EXPECT_EQ(gCpuDefend.maxSlotNum, row.slots);
        EXPECT_EQ(length(gCpuDefend.policyFreeList), row.policies - 1);
        EXPECT_EQ(length(gCpuDefend.userDefinedFreeList), row.rules);
        EXPECT_EQ(length(gCpuDefend.carPktFreeList), row.cars - 10);
        EXPECT_EQ(length(gCpuDefend.srcTraceFreeList), row.traces);
        EXPECT_EQ(length(gCpuDefend.slotFreeList), row.slots);
    }
}

TEST_F(StartUp, WhatTheRecordHeldBeforeIsGone)
{
    memset(gCpuDefend.policyName, 'x', sizeof gCpuDefend.policyName);
    gCpuDefend.policyNameLen = 32;
    gCpuDefend.cpuDefendDebug = 1;
    gCpuDefend.selectedPosition = 3;
    gCpuDefend.policyMode = 1;
    gCpuDefend.cpuDefendTaskId = 9;
    gCpuDefend.pktSock = 7;
    gCpuDefend.rtSock = 1000000;
    gCpuDefend.useSlotNum = gCpuDefend.usePolicyNum = 77;
    gCpuDefend.cpuRatControl[2].cpuRat = 90;
    gCpuDefend.cpuRatControl[2].policyNameLen = 4;
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(std::string(gCpuDefend.policyName, gCpuDefend.policyName + 32),
              std::string(32, '\0'));
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(gCpuDefend.cpuDefendDebug, 0);
    EXPECT_EQ(gCpuDefend.selectedPosition, 0);
    EXPECT_EQ(gCpuDefend.policyMode, 0);
    EXPECT_EQ(gCpuDefend.cpuDefendTaskId, 0u);
    EXPECT_EQ(gCpuDefend.pktSock, 0);
    EXPECT_EQ(gCpuDefend.usePolicyNum, 1u);
    EXPECT_EQ(gCpuDefend.useSlotNum, 0u);
    EXPECT_EQ(callsOf("socket").size(), 2u);
    EXPECT_EQ(image(gCpuDefend.cpuRatControl), std::string(sizeof gCpuDefend.cpuRatControl, '\0'));
}

/** Pool indexes of the records on a free list, in the order in which they are handed out. */
template <typename T> static std::vector<long> handedOut(const list_head &freeList, const T *table)
{
    std::vector<long> indexes;
    for (const list_head *link = freeList.next; link != &freeList; link = link->next)
        indexes.push_back(static_cast<const T *>(static_cast<const void *>(link)) - table);
    return indexes;
}

static std::vector<long> downFrom(long index)
{
    std::vector<long> indexes;
    for (; index >= 0; index--)
        indexes.push_back(index);
    return indexes;
}

TEST_F(StartUp, EveryPoolHandsOutItsHighestIndexFirst)
{
    ASSERT_EQ(init(4, 3), 0);
    const tCpuDefendSystem &g = gCpuDefend;
    EXPECT_EQ(handedOut(g.userDefinedFreeList, g.userDefinedTable), downFrom(31));
    EXPECT_EQ(handedOut(g.srcTraceFreeList, g.srcTraceTable), downFrom(3));
    EXPECT_EQ(handedOut(g.slotFreeList, g.slotTable), downFrom(2));

    // The default policy and its entries have taken theirs.
    EXPECT_EQ(findPolicy("default"), &g.policyTable[3]);
    EXPECT_EQ(handedOut(g.policyFreeList, g.policyTable), downFrom(2));
    EXPECT_EQ(handedOut(g.carPktFreeList, g.carPktTable), downFrom(29));
    for (uint32_t type = 0; type < 10; type++)
        EXPECT_EQ(findCar("default", type), &g.carPktTable[39 - type]);
}

/* ---- Order and arguments of what start-up calls --------------------------------------- */

TEST_F(StartUp, TablesAreAllocatedOnceAndInOrder)
{
    ASSERT_EQ(init(4, 2), 0);
    const std::vector<seam::Call> made = callsOf("calloc");
    ASSERT_EQ(made.size(), 5u);
    EXPECT_EQ(made[0].args, (std::vector<long>{4, sizeof(tCpuDefendPolicyEntry)}));
    EXPECT_EQ(made[1].args, (std::vector<long>{32, sizeof(tCpuDefendUserDefinedEntry)}));
    EXPECT_EQ(made[2].args, (std::vector<long>{40, sizeof(tCpuDefendCarPktEntry)}));
    EXPECT_EQ(made[3].args, (std::vector<long>{4, sizeof(tCpuDefendSrcTraceEntry)}));
    EXPECT_EQ(made[4].args, (std::vector<long>{2, sizeof(tCpuDefendSlotEntry)}));
}

TEST_F(StartUp, StepsFollowTheirOrder)
{
    ASSERT_EQ(init(), 0);
    std::vector<std::string> order;
    for (const seam::Call &call : seam::calls)
        if (call.function != "calloc")
            order.push_back(call.function);
    EXPECT_EQ(order, (std::vector<std::string>{"OsixCreateMSem", "socket", "bind", "setsockopt",
                                               "socket", "bind", "listen"}));
    EXPECT_EQ(callsOf("OsixCreateMSem")[0].args, std::vector<long>{13});
}

TEST_F(StartUp, NetlinkSocketJoinsTheLinkGroup)
{
    ASSERT_EQ(init(), 0);
    const seam::Call made = callsOf("socket")[0];
    EXPECT_EQ(made.args[0], AF_NETLINK);
    EXPECT_EQ(made.args[1] & ~SOCK_CLOEXEC, SOCK_DGRAM);
    EXPECT_EQ(made.args[2], 0);
    EXPECT_EQ(gCpuDefend.rtSock, made.result);

    const seam::Call bound = callsOf("bind")[0];
    sockaddr_nl address;
    ASSERT_EQ(bound.address.size(), sizeof address);
    memcpy(&address, bound.address.data(), sizeof address);
    EXPECT_EQ(bound.args[0], gCpuDefend.rtSock);
    EXPECT_EQ(address.nl_family, AF_NETLINK);
    EXPECT_EQ(address.nl_pid, 0u);
    EXPECT_EQ(address.nl_groups, 0u);
    EXPECT_EQ(callsOf("setsockopt")[0].args,
              (std::vector<long>{gCpuDefend.rtSock, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, 1, 4}));
}

TEST_F(StartUp, ManagementSocketListens)
{
    ASSERT_EQ(init(), 0);
    const seam::Call made = callsOf("socket")[1];
    EXPECT_EQ(made.args[0], AF_UNIX);
    EXPECT_EQ(made.args[1] & ~SOCK_CLOEXEC, SOCK_STREAM);
    EXPECT_EQ(made.args[2], 0);
    EXPECT_EQ(gCpuDefend.cmdSock, made.result);

    const seam::Call bound = callsOf("bind")[1];
    sockaddr_un address;
    ASSERT_EQ(bound.address.size(), 110u);
    ASSERT_EQ(sizeof address, 110u);
    memcpy(&address, bound.address.data(), sizeof address);
    EXPECT_EQ(bound.args, (std::vector<long>{gCpuDefend.cmdSock, 110}));
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_STREQ(address.sun_path, "/tmp/cpudefendCmd.socket");
    EXPECT_EQ(callsOf("listen")[0].args, (std::vector<long>{gCpuDefend.cmdSock, 10}));
}

TEST_F(StartUp, SocketIsTheOwnersAloneFromItsFirstInstant)
{
    const mode_t before = umask(0);
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(umask(before), 0u); // put back
    EXPECT_EQ(callsOf("bind")[1].mask & 0177, 0177);
    struct stat status;
    ASSERT_EQ(stat("/tmp/cpudefendCmd.socket", &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

TEST_F(StartUp, FileCreationMaskIsPutBackWhenTheBindFails)
{
    const mode_t before = umask(0);
    seam::fail[{"bind", 1}] = -1;
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(umask(before), 0u);
}

TEST_F(StartUp, SocketsAreClosedOnExec)
{
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(fcntl(gCpuDefend.rtSock, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(gCpuDefend.cmdSock, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

/* ---- Failures ------------------------------------------------------------------------- */

TEST_F(StartUp, FailedAllocationIsReportedAndEarlierTablesFreed)
{
    const char *const messages[] = {
        "[cpuDefend] Malloc policyTable error !\r\n",
        "[cpuDefend] Malloc userDefinedTable error !\r\n",
        "[cpuDefend] Malloc carPktTable error !\r\n",
        "[cpuDefend] Malloc srcTraceTable error !\r\n",
        "[cpuDefend] Malloc slotTable error !\r\n",
    };
    for (int nth = 0; nth < 5; nth++) {
        SCOPED_TRACE(nth);
        seam::fail = {{{"calloc", nth}, 0}};
        CaptureStdout();
        const int32_t result = init();
        EXPECT_EQ(GetCapturedStdout(), messages[nth]);
        expectReleased(result);
        EXPECT_EQ(seam::calls.size(), static_cast<size_t>(nth) + 1); // nothing after it
    }
}

TEST_F(StartUp, FailedSemaphoreIsReportedAndTheTablesFreed)
{
    seam::fail[{"OsixCreateMSem", 0}] = 0;
    CaptureStdout();
    const int32_t result = init();
    EXPECT_EQ(GetCapturedStdout(), "\n\r cpuDefend module create sem error.");
    expectReleased(result);
    EXPECT_TRUE(callsOf("OsixDeleteSem").empty());
    EXPECT_TRUE(callsOf("socket").empty());
}

TEST_F(StartUp, FailedDefaultPolicyIsSilentAndReleasesAll)
{
    seam::noPolicies = true; // the semaphore is there by then, and no socket
    CaptureStdout();
    CaptureStderr();
    const int32_t result = init();
    EXPECT_EQ(GetCapturedStdout() + GetCapturedStderr(), "");
    expectReleased(result);
    EXPECT_EQ(callsOf("OsixDeleteSem").size(), 1u);
    EXPECT_TRUE(callsOf("socket").empty());
}

/** As long as it lives, nothing can be printed, and trying leaves an errno of its own. */
struct NoStdout {
    NoStdout() : kept(dup(STDOUT_FILENO))
    {
        fflush(stdout);
        setvbuf(stdout, nullptr, _IONBF, 0);
        close(STDOUT_FILENO);
    }
    ~NoStdout()
    {
        dup2(kept, STDOUT_FILENO);
        close(kept);
        setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
        clearerr(stdout);
    }
    int kept;
};

TEST_F(StartUp, ReasonOfAFailureOutlastsWhatIsSaidOfIt)
{
    for (const auto &step : {std::pair{"calloc", 0}, {"calloc", 3}, {"OsixCreateMSem", 0}}) {
        seam::fail = {{step, 0}};
        int32_t result;
        int reason;
        {
            const NoStdout silent;
            result = init();
            reason = errno;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(reason, seam::failure) << step.first;
    }
    seam::fail.clear();
    seam::noPolicies = true;
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(errno, ENOMEM);
}

struct SocketFailure {
    const char *function;
    int nth;
    long result;
    size_t opened;       /**< sockets open by then */
    const char *message; /**< while debugging is on */
    int reason = seam::failure;
};

static const SocketFailure socketFailures[] = {
    {"socket", 0, -1, 0, "rtSock failed in line N in func cpuDefendInit"},
    {"socket", 0, 0, 0, "rtSock failed in line N in func cpuDefendInit", EBADF},
    {"bind", 0, -1, 1, "rtSock bind failed in line N in func cpuDefendInit"},
    {"setsockopt", 0, -1, 1, "rtSock setsockopt failed in line N in func cpuDefendInit"},
    {"setsockopt", 0, 1, 1, "rtSock setsockopt failed in line N in func cpuDefendInit"},
    {"socket", 1, -1, 1, "cmdSock failed in line N in func cpuDefendInit"},
    {"socket", 1, 0, 1, "cmdSock failed in line N in func cpuDefendInit", EBADF},
    {"bind", 1, -1, 2, "[cpudefend] bind failed!\r\n"},
    {"listen", 0, -1, 2, "[cpudefend] listen failed!\r\n"},
    // Beyond what select can wait for.
    {"socket", 0, FD_SETSIZE, 0, "rtSock failed in line N in func cpuDefendInit", EMFILE},
    {"socket", 1, FD_SETSIZE, 1, "cmdSock failed in line N in func cpuDefendInit", EMFILE},
};

class SocketFailures : public StartUp, public testing::WithParamInterface<SocketFailure>
{
};

TEST_P(SocketFailures, AreSilentAndReleaseAllButTheSockets)
{
    const SocketFailure &row = GetParam();
    seam::fail[{row.function, row.nth}] = row.result;
    CaptureStdout();
    CaptureStderr();
    const int32_t result = init();
    EXPECT_EQ(errno, row.reason);
    EXPECT_EQ(GetCapturedStdout() + GetCapturedStderr(), "");
    expectReleased(result);
    EXPECT_EQ(callsOf("OsixDeleteSem").size(), 1u);
    EXPECT_EQ(seam::calls.at(seam::calls.size() - 2).function, row.function); // the last but that

    // Sockets opened before stay open: only the record forgets them.
    EXPECT_EQ(seam::sockets().size(), row.opened);
    for (int fd : seam::sockets())
        EXPECT_GE(fcntl(fd, F_GETFD), 0);
}

TEST_P(SocketFailures, AreSaidWhileDebugging)
{
    const SocketFailure &row = GetParam();
    seam::fail[{row.function, row.nth}] = row.result;
    seam::debugging = true;
    CaptureStderr();
    EXPECT_EQ(init(), -1);
    seam::debugging = false;
    EXPECT_EQ(channel::withoutLines(GetCapturedStderr()), row.message);
}

static std::string title(const testing::TestParamInfo<SocketFailure> &failure)
{
    const SocketFailure &row = failure.param;
    const std::string result = row.result < 0 ? "Minus1" : std::to_string(row.result);
    return row.function + std::to_string(row.nth) + "Gives" + result;
}

INSTANTIATE_TEST_SUITE_P(StartUp, SocketFailures, testing::ValuesIn(socketFailures), title);

/* ---- The end -------------------------------------------------------------------------- */

static bool isInPlace()
{
    struct stat status;
    return lstat(CPUDEFEND_CMD_SOCKET, &status) == 0;
}

TEST_F(StartUp, ReleaseGivesBackAllThatWasTaken)
{
    ASSERT_EQ(init(), 0);
    cpuDefenTaskStart();
    addRule("default", 1);
    cpuDefendSlotEntryAdd(1, 2);
    EXPECT_TRUE(isInPlace());
    cpuDefendRelease();
    EXPECT_EQ(seam::blocks, 0);
    EXPECT_EQ(seam::sockets(), std::vector<int>());
    EXPECT_EQ(image(gCpuDefend), std::string(sizeof gCpuDefend, '\0'));
    EXPECT_FALSE(isInPlace());
    EXPECT_EQ(init(), 0);
}

TEST_F(StartUp, ClaimOutlastsAFailedStartAndIsGivenUpAtTheEnd)
{
    struct stat status;
    const char *const lock = CPUDEFEND_CMD_SOCKET ".lock";
    ASSERT_EQ(cpuDefendSocketClaim(), 0);
    seam::fail[{"listen", 0}] = -1;
    EXPECT_EQ(init(), -1);
    EXPECT_EQ(stat(lock, &status), 0);
    EXPECT_EQ(fcntl(gCpuDefend.claim.lock, F_GETFD), FD_CLOEXEC);
    EXPECT_FALSE(isInPlace());
    cpuDefendRelease();
    EXPECT_NE(stat(lock, &status), 0);
    EXPECT_EQ(image(gCpuDefend), std::string(sizeof gCpuDefend, '\0'));
}

TEST_F(StartUp, ReleaseWhereNothingWasTakenDoesNothing)
{
    cpuDefendRelease();
    ASSERT_EQ(init(), 0);
    cpuDefendRelease();
    cpuDefendRelease();
    EXPECT_EQ(image(gCpuDefend), std::string(sizeof gCpuDefend, '\0'));
}

TEST_F(StartUp, ReleaseLeavesWhatOthersPutInThePlace)
{
    ASSERT_EQ(init(), 0);
    unlink(CPUDEFEND_CMD_SOCKET);
    std::ofstream(CPUDEFEND_CMD_SOCKET) << "another's";
    cpuDefendRelease();
    EXPECT_TRUE(isInPlace());
    unlink(CPUDEFEND_CMD_SOCKET);
}
