// The place of the management socket: who may have it, and what is left of it.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "cpuDefend_nm.h"
#include "daemon_process.h"
#include "linux/platform_file.h"
#include "place.h"

using place::leftBeside;
using place::LOCK_FILE;

namespace
{

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

void makeFile(const char *path = CPUDEFEND_CMD_SOCKET)
{
    close(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
}

void makeFolder()
{
    mkdir(CPUDEFEND_CMD_SOCKET, 0700);
}

void makeFullFolder()
{
    makeFolder();
    makeFile(CPUDEFEND_CMD_SOCKET "/file");
}

void makeLink()
{
    (void)!symlink("/tmp/cpudefend-test-elsewhere", CPUDEFEND_CMD_SOCKET);
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
        for (const std::string &path : leftBeside())
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
        expectPlace();
        EXPECT_TRUE(daemon.running());
    }

    /** A socket that is root's alone has the place. */
    static void expectPlace()
    {
        struct stat status;
        ASSERT_EQ(0, lstat(CPUDEFEND_CMD_SOCKET, &status));
        EXPECT_TRUE(S_ISSOCK(status.st_mode));
        EXPECT_EQ(0600u, status.st_mode & 07777);
        EXPECT_EQ(0u, status.st_uid);
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

TEST_F(SocketPlaceOfAStranger, AFolderIsRemoved)
{
    asStranger(makeFolder);
    expectStart(replaced);
    EXPECT_EQ(std::vector<std::string>(), leftBeside());
}

TEST_F(SocketPlaceOfAStranger, AFolderWithSomethingInItIsGivenAnotherName)
{
    asStranger(makeFullFolder);
    const DaemonProcess daemon;
    expectPlace();
    const std::vector<std::string> left = leftBeside();
    ASSERT_EQ(1u, left.size());
    EXPECT_EQ(replaced + "cpuDefend: what was there is " + left[0] + " now\n", daemon.errors());
    EXPECT_TRUE(exists((left[0] + "/file").c_str()));
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

TEST_F(SocketPlaceOfAStranger, AFileOfRootsWhoseLockAStrangerHoldsIsReplaced)
{
    makeFile(LOCK_FILE);
    ASSERT_EQ(0, chmod(LOCK_FILE, 0644));
    int held = -1;
    asStranger([&] {
        held = open(LOCK_FILE, O_RDONLY | O_CLOEXEC);
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

// ---- A stranger who does not rest --------------------------------------------------------------

struct Attack {
    const char *name;
    void (*act)();
    bool leaves = false; /**< what is the stranger's own */
};

void PrintTo(const Attack &attack, std::ostream *out)
{
    *out << attack.name;
}

const Attack attacks[] = {
    {"Files", [] { makeFile(); }},
    {"Links", makeLink},
    {"Folders", makeFolder},
    {"FullFolders", makeFullFolder, true},
    {"FoldersThatGo",
     [] {
         makeFolder();
         rmdir(CPUDEFEND_CMD_SOCKET);
     }},
    {"EverythingInTurn",
     [] {
         makeLink();
         remove(CPUDEFEND_CMD_SOCKET);
         makeFolder();
         remove(CPUDEFEND_CMD_SOCKET);
         makeFile();
         remove(CPUDEFEND_CMD_SOCKET);
         makeFile(LOCK_FILE);
     }},
};

/** A process of the stranger's, which does one thing for as long as this object lives. */
class Attacker
{
public:
    explicit Attacker(void (*act)()) : pid_(fork())
    {
        if (pid_ != 0)
            return;
        if (setuid(STRANGER) != 0 || prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
            _exit(EXIT_FAILURE);
        for (;;)
            act();
    }
    ~Attacker()
    {
        int status = 0;
        kill(pid_, SIGKILL);
        EXPECT_EQ(pid_, waitpid(pid_, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status)) << "it did not attack";
    }
    Attacker(const Attacker &) = delete;
    Attacker &operator=(const Attacker &) = delete;

private:
    pid_t pid_;
};

class SocketPlaceUnderAttack : public SocketPlaceOfAStranger,
                               public testing::WithParamInterface<Attack>
{
protected:
    /** @return whether a daemon started and has the place */
    static bool starts(int signal)
    try {
        DaemonProcess daemon;
        expectPlace();
        return daemon.running() && daemon.stop(signal) >= 0;
    } catch (const std::exception &failure) {
        ADD_FAILURE() << failure.what();
        return false;
    }
};

TEST_P(SocketPlaceUnderAttack, EveryStartSucceeds)
{
    int started = 0;
    {
        const Attacker one(GetParam().act), other(GetParam().act);
        for (int start = 0; start < 20; start++) // every other one finds the socket of one killed
            started += starts(start % 2 ? SIGTERM : SIGKILL);
    }
    EXPECT_EQ(20, started);
    for (const std::string &name : leftBeside()) {
        EXPECT_TRUE(GetParam().leaves) << name;
        struct stat status;
        ASSERT_EQ(0, lstat(name.c_str(), &status));
        EXPECT_EQ(STRANGER, status.st_uid) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(With, SocketPlaceUnderAttack, testing::ValuesIn(attacks),
                         [](const auto &attack) { return std::string(attack.param.name); });

} // namespace
