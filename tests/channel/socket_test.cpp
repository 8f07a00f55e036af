// The place of the management socket: who may have it, and what is left of it.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include "cpuDefend_nm.h"
#include "daemon_process.h"
#include "linux/platform_file.h"

namespace
{

constexpr char LOCK_FILE[] = CPUDEFEND_CMD_SOCKET ".lock";
constexpr uid_t STRANGER = 65534;

bool exists(const char *path)
{
    struct stat status;
    return lstat(path, &status) == 0;
}

bool isServed()
{
    Bytes reply;
    return exchange({}, &reply); // a request too short to be one is answered, too
}

/** A socket that listens in this process. */
class Listener
{
public:
    explicit Listener(const std::string &path) : path_(path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path.c_str());
        EXPECT_EQ(0, bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address));
        EXPECT_EQ(0, listen(fd_, 1));
    }
    ~Listener()
    {
        close(fd_);
        unlink(path_.c_str());
    }

private:
    std::string path_;
    int fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

/** Each test begins and ends with nothing there. */
class SocketPlace : public testing::Test
{
protected:
    SocketPlace() { clear(); }
    ~SocketPlace() override { clear(); }

    static void clear()
    {
        for (const char *path : {CPUDEFEND_CMD_SOCKET, LOCK_FILE})
            std::filesystem::remove_all(path);
    }

    static void expectRefused(const std::string &reason)
    {
        std::string errors;
        EXPECT_EQ(255, runDaemon({}, {}, 20, &errors));
        EXPECT_EQ("cpuDefend: couldn't take " CPUDEFEND_CMD_SOCKET ": " + reason + "\n", errors);
    }
};

/** The same with somebody about who is neither root nor the daemon's user. */
class SocketPlaceOfAStranger : public SocketPlace
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0 || seteuid(STRANGER) != 0)
            GTEST_SKIP() << "only root can become another user";
        ASSERT_EQ(0, seteuid(0));
    }

    static void asStranger(const std::function<void()> &act)
    {
        ASSERT_EQ(0, seteuid(STRANGER));
        act();
        ASSERT_EQ(0, seteuid(0));
    }

    /** A daemon starts, in spite of all, says so, and serves. */
    static void expectStart(const std::string &said)
    {
        DaemonProcess daemon;
        EXPECT_EQ(said, daemon.errors());
        EXPECT_TRUE(isServed());
        struct stat status;
        ASSERT_EQ(0, lstat(CPUDEFEND_CMD_SOCKET, &status));
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(0u, status.st_uid);
        EXPECT_TRUE(daemon.running());
    }

    const std::string replaced = "cpuDefend: " CPUDEFEND_CMD_SOCKET " is user 65534's: it is "
                                 "replaced\n";
};

TEST_F(SocketPlace, ASecondDaemonIsRefusedAndTheFirstGoesOn)
{
    DaemonProcess daemon;
    expectRefused("another daemon has it");
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(daemon.running());
}

TEST_F(SocketPlace, AServedSocketIsRespectedWithoutItsLock)
{
    DaemonProcess daemon;
    unlink(LOCK_FILE);
    expectRefused("another daemon serves it");
    EXPECT_TRUE(isServed());
}

TEST_F(SocketPlace, ADaemonThatIsTooBusyToAnswerLives)
{
    const Listener busy(CPUDEFEND_CMD_SOCKET); // it accepts nobody, and has room for two
    std::vector<int> waiting;
    for (int i = 0; i < 2; i++)
        waiting.push_back(connectToDaemon());
    expectRefused("another daemon serves it");
    for (int fd : waiting)
        close(fd);
}

TEST_F(SocketPlace, TheRefusedLeaveTheLockToTheOneThatHasIt)
{
    DaemonProcess daemon;
    for (int i = 0; i < 2; i++)
        expectRefused("another daemon has it");
    EXPECT_TRUE(exists(LOCK_FILE));
}

/** Their many records keep them busy between the look around and the socket. */
TEST_F(SocketPlace, OfManyThatStartAtOnceOneServes)
{
    std::vector<std::unique_ptr<DaemonProcess>> daemons(8);
    std::vector<std::thread> starts;
    for (auto &daemon : daemons)
        starts.emplace_back([&daemon] {
            try {
                daemon = std::make_unique<DaemonProcess>(std::vector<std::string>{"20000"});
            } catch (const std::exception &) { // refused before the first one served
            }
        });
    for (std::thread &start : starts)
        start.join();
    const auto living = [&daemons] {
        int count = 0;
        for (auto &daemon : daemons)
            count += daemon && daemon->running();
        return count;
    };
    EXPECT_TRUE(within(std::chrono::seconds(20), [&] { return living() == 1; })) << living();
    EXPECT_TRUE(isServed());
    EXPECT_EQ(1, living());
}

TEST_F(SocketPlace, ALockThatADeadDaemonLeftIsNoBar)
{
    DaemonProcess killed;
    killed.stop(SIGKILL);
    ASSERT_TRUE(exists(LOCK_FILE));
    DaemonProcess daemon;
    EXPECT_EQ("", daemon.errors());
    EXPECT_TRUE(isServed());
}

TEST_F(SocketPlace, NothingIsLeftOfADaemonThatIsToldToStop)
{
    for (int signal : {SIGTERM, SIGINT}) {
        DaemonProcess daemon;
        const int status = daemon.stop(signal);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) << status;
        EXPECT_FALSE(exists(CPUDEFEND_CMD_SOCKET));
        EXPECT_FALSE(exists(LOCK_FILE));
    }
}

TEST_F(SocketPlace, AStopLeavesWhatIsNotTheDaemonsOwn)
{
    DaemonProcess daemon;
    unlink(CPUDEFEND_CMD_SOCKET);
    const Listener other(CPUDEFEND_CMD_SOCKET);
    daemon.stop(SIGTERM);
    EXPECT_TRUE(exists(CPUDEFEND_CMD_SOCKET));
}

TEST_F(SocketPlace, HangingUpDoesNotEndTheDaemon)
{
    DaemonProcess daemon;
    kill(daemon.pid(), SIGHUP);
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(daemon.running());
}

TEST_F(SocketPlace, ALinkIsReplacedAndNotFollowed)
{
    const std::string elsewhere = "/tmp/cpudefend-test-elsewhere";
    const Listener other(elsewhere);
    ASSERT_EQ(0, symlink(elsewhere.c_str(), CPUDEFEND_CMD_SOCKET));
    DaemonProcess daemon;
    EXPECT_TRUE(isServed());
    EXPECT_TRUE(exists(elsewhere.c_str()));
}

TEST_F(SocketPlace, ASecondNameOfWhatOthersServeIsReplaced)
{
    const std::string elsewhere = "/tmp/cpudefend-test-elsewhere";
    const Listener other(elsewhere);
    ASSERT_EQ(0, link(elsewhere.c_str(), CPUDEFEND_CMD_SOCKET));
    DaemonProcess daemon;
    EXPECT_TRUE(isServed());
}

TEST_F(SocketPlaceOfAStranger, TheSocketOfOneWhoListensIsReplaced)
{
    std::unique_ptr<Listener> listener;
    asStranger([&] { listener = std::make_unique<Listener>(CPUDEFEND_CMD_SOCKET); });
    expectStart(replaced);
}

TEST_F(SocketPlaceOfAStranger, ALinkToWhatRootServesIsReplaced)
{
    const std::string elsewhere = "/tmp/cpudefend-test-elsewhere";
    const Listener other(elsewhere);
    asStranger([&] { ASSERT_EQ(0, symlink(elsewhere.c_str(), CPUDEFEND_CMD_SOCKET)); });
    expectStart(replaced);
}

TEST_F(SocketPlaceOfAStranger, AFolderIsMovedAside)
{
    const std::string file = CPUDEFEND_CMD_SOCKET "/file";
    asStranger([&] {
        ASSERT_EQ(0, mkdir(CPUDEFEND_CMD_SOCKET, 0700));
        std::ofstream{file};
    });
    ASSERT_TRUE(exists(file.c_str()));
    expectStart(replaced);
}

TEST_F(SocketPlaceOfAStranger, ALockThatIsHeldIsReplaced)
{
    int held = -1;
    asStranger([&] {
        held = open(LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        ASSERT_EQ(0, flock(held, LOCK_EX));
    });
    expectStart("");
    close(held);
}

TEST_F(SocketPlaceOfAStranger, AFolderAsTheLockIsNoBar)
{
    asStranger([&] { ASSERT_EQ(0, mkdir(LOCK_FILE, 0700)); });
    expectStart("cpuDefend: couldn't lock " CPUDEFEND_CMD_SOCKET
                ".lock: two starts at once are not told apart\n");
}

TEST_F(SocketPlaceOfAStranger, TheLockIsOutOfReach)
{
    DaemonProcess daemon;
    asStranger([] { EXPECT_EQ(-1, open(LOCK_FILE, O_RDONLY | O_CLOEXEC)); });
}

} // namespace
