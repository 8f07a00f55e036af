#include "client/channel.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "client/errors.h"
#include "fake_daemon.h"

using namespace cpudefend;
using namespace std::chrono_literals;

namespace
{

/** How an exchange over a channel fails, or nullopt when it does not. */
std::optional<Failure> failureOf(const std::string &path,
                                 std::chrono::milliseconds timeout = Channel::kTimeout,
                                 std::string *reason = nullptr)
{
    try {
        Channel(path, timeout).exchange(Bytes(40, 1));
    } catch (const Error &error) {
        if (reason)
            *reason = error.what();
        return error.failure();
    }
    return std::nullopt;
}

} // namespace

TEST(Channel, CarriesARequestAndItsReply)
{
    Bytes seen;
    FakeDaemon daemon([&](int fd, const Bytes &body) {
        seen = body;
        reply(fd, {7, 8, 9});
    });
    EXPECT_EQ(Channel(daemon.path()).exchange(Bytes(40, 5)), (Bytes{7, 8, 9}));
    EXPECT_EQ(seen, Bytes(40, 5));
}

TEST(Channel, AReplyMayComeInPieces)
{
    FakeDaemon daemon([](int fd, const Bytes &) {
        for (const uint8_t byte : frame({7, 8, 9})) {
            send(fd, &byte, 1, MSG_NOSIGNAL);
            usleep(1000);
        }
    });
    EXPECT_EQ(Channel(daemon.path()).exchange(Bytes(40)), (Bytes{7, 8, 9}));
}

TEST(Channel, NoSocketMeansTheDaemonIsNotRunning)
{
    std::string reason;
    EXPECT_EQ(failureOf("/tmp/no-such.socket", 5s, &reason), Failure::NotRunning);
    EXPECT_EQ(reason, "the daemon is not running (nothing listens on /tmp/no-such.socket)");
}

TEST(Channel, ASocketLeftBehindMeansTheDaemonIsNotRunning)
{
    std::string path;
    {
        FakeDaemon daemon([](int, const Bytes &) {});
        path = daemon.path();
        ASSERT_EQ(link(path.c_str(), (path + ".left").c_str()), 0);
    }
    EXPECT_EQ(failureOf(path + ".left"), Failure::NotRunning);
    unlink((path + ".left").c_str());
}

TEST(Channel, ASocketOfAnotherUserIsNotPermitted)
{
    FakeDaemon daemon([](int, const Bytes &) {});
    ASSERT_EQ(chmod(daemon.path().c_str(), 0), 0);
    const uid_t self = geteuid();
    if (self == 0 && seteuid(65534) != 0)
        GTEST_SKIP() << "cannot give up root's rights here";
    std::string reason;
    const auto failure = failureOf(daemon.path(), 5s, &reason);
    ASSERT_TRUE(self != 0 || seteuid(0) == 0);
    EXPECT_EQ(failure, Failure::NotPermitted);
    EXPECT_EQ(reason, "permission denied on " + daemon.path());
}

TEST(Channel, NothingIsSentToADaemonOfAnotherUser)
{
    std::atomic<bool> asked = false;
    const auto serve = [&](int fd, const Bytes &) {
        asked = true;
        reply(fd, {7, 8, 9});
    };
    const uid_t self = geteuid();
    if (self != 0 || seteuid(65534) != 0)
        GTEST_SKIP() << "only root can become another user";
    std::optional<FakeDaemon> daemon(std::in_place, serve);
    ASSERT_EQ(seteuid(0), 0);
    std::string reason;
    EXPECT_EQ(failureOf(daemon->path(), 5s, &reason), Failure::NotTrusted);
    EXPECT_EQ(reason, "user 65534 listens on " + daemon->path() + ", who is neither root nor you");
    daemon.reset();
    EXPECT_FALSE(asked);
}

TEST(Channel, ALinkIsNotFollowedNotEvenToADaemonThatIsTrusted)
{
    std::atomic<bool> asked = false;
    std::optional<FakeDaemon> daemon(std::in_place, [&](int fd, const Bytes &) {
        asked = true;
        reply(fd, {7, 8, 9});
    });
    const std::string link = daemon->path() + ".link";
    ASSERT_EQ(symlink(daemon->path().c_str(), link.c_str()), 0);
    std::string reason;
    EXPECT_EQ(failureOf(link, 5s, &reason), Failure::NotTrusted);
    EXPECT_EQ(reason, link + " is no socket: a link may lead to anybody's");
    unlink(link.c_str());
    daemon.reset();
    EXPECT_FALSE(asked);
}

TEST(Channel, RootsDaemonIsTrustedByEverybodyWhomItLetsIn)
{
    FakeDaemon daemon([](int fd, const Bytes &) { reply(fd, {7, 8, 9}); });
    ASSERT_EQ(chmod(daemon.path().c_str(), 0666), 0);
    const uid_t self = geteuid();
    if (self != 0 || seteuid(65534) != 0)
        GTEST_SKIP() << "only root can become another user";
    EXPECT_EQ(failureOf(daemon.path()), std::nullopt);
    ASSERT_EQ(seteuid(0), 0);
}

TEST(Channel, ClosedWithoutAReply)
{
    FakeDaemon daemon([](int, const Bytes &) {});
    EXPECT_EQ(failureOf(daemon.path()), Failure::Closed);
}

TEST(Channel, ReplyCutInItsLengthOrBodyIsClosed)
{
    for (const std::size_t kept : {2, 4, 6}) {
        FakeDaemon daemon([kept](int fd, const Bytes &) {
            const Bytes framed = frame(Bytes(40, 1));
            send(fd, framed.data(), kept, MSG_NOSIGNAL);
        });
        std::string reason;
        EXPECT_EQ(failureOf(daemon.path(), 5s, &reason), Failure::Closed) << kept;
        EXPECT_EQ(reason, "the daemon's reply is cut short") << kept;
    }
}

TEST(Channel, ReplyLongerThanAnyIsMalformed)
{
    FakeDaemon daemon([](int fd, const Bytes &) { reply(fd, Bytes(CPUDEFEND_CMD_MAXLEN + 1)); });
    EXPECT_EQ(failureOf(daemon.path()), Failure::ReplyMalformed);
}

TEST(Channel, ASilentDaemonIsGivenUpInTime)
{
    std::atomic<bool> done = false;
    FakeDaemon daemon([&](int, const Bytes &) {
        while (!done)
            usleep(1000);
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(failureOf(daemon.path(), 50ms), Failure::TimedOut);
    const auto took = std::chrono::steady_clock::now() - start;
    done = true;
    EXPECT_GE(took, 50ms);
    EXPECT_LT(took, 4s);
}

TEST(Channel, TheLimitHoldsForTheWholeExchange)
{
    std::atomic<bool> done = false;
    FakeDaemon daemon([&](int fd, const Bytes &) { // a byte now and then, never the end
        const Bytes framed = frame(Bytes(1000, 1));
        for (std::size_t i = 0; i < framed.size() && !done; ++i) {
            send(fd, &framed[i], 1, MSG_NOSIGNAL);
            usleep(20000);
        }
    });
    EXPECT_EQ(failureOf(daemon.path(), 200ms), Failure::TimedOut);
    done = true;
}

TEST(Channel, APathTooLongForASocketIsRefused)
{
    EXPECT_EQ(failureOf("/tmp/" + std::string(200, 'x')), Failure::System);
}
