// The real daemon as a process on its real socket.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "cpuDefend_nm.h"
#include "daemon_process.h"
#include "linux/platform_file.h"
#include "request.h"
#include "transcript.h"

using namespace channel;

namespace
{

const Index global = globalIndex();

channel::Bytes globalGet(uint32_t attribute)
{
    return request(CPUDEFEND_GLOBAL_GETAPI, attribute, global, number(0));
}

/** A global count as the running daemon tells it. */
uint32_t globalCount(uint32_t attribute)
{
    channel::Bytes reply;
    const channel::Bytes body = globalGet(attribute);
    EXPECT_TRUE(exchange(body, &reply));
    EXPECT_EQ(body.size(), reply.size());
    if (reply.size() != body.size())
        return 0;
    const size_t at = valueAt(global) + 3;
    return static_cast<uint32_t>(reply[at]) << 24 | static_cast<uint32_t>(reply[at + 1]) << 16 |
           static_cast<uint32_t>(reply[at + 2]) << 8 | reply[at + 3];
}

std::vector<uint32_t> poolSizes()
{
    std::vector<uint32_t> sizes;
    for (uint32_t id = CPUDEFEND_GLOBAL_MAXPOLICYNUM; id <= CPUDEFEND_GLOBAL_MAXSLOTNUM; ++id)
        sizes.push_back(globalCount(id));
    return sizes;
}

void expectServing()
{
    channel::Bytes reply;
    const channel::Bytes body = globalGet(CPUDEFEND_GLOBAL_POLICYMODE);
    ASSERT_TRUE(exchange(body, &reply));
    EXPECT_EQ(answered(body, global, numberItem(0)), reply);
}

/** Send bytes, say that no more will come, and collect what does until the daemon closes. */
channel::Bytes converse(const channel::Bytes &sent)
{
    const int fd = connectToDaemon();
    EXPECT_GE(fd, 0);
    if (fd < 0)
        return {};
    send(fd, sent.data(), sent.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    channel::Bytes got;
    uint8_t buf[2048];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0 || (n < 0 && errno == EINTR);)
        if (n > 0)
            got.insert(got.end(), buf, buf + n);
    close(fd);
    return got;
}

// ---- Start -------------------------------------------------------------------------------------

const std::vector<uint32_t> DEFAULT_SIZES = {32, 256, 320, 32, 10};

TEST(DaemonStart, WithoutArgumentsHasTheDefaultPools)
{
    const DaemonProcess daemon;
    EXPECT_EQ(DEFAULT_SIZES, poolSizes());
}

TEST(DaemonStart, ZeroesMeanTheDefaults)
{
    const DaemonProcess daemon({"0", "0"});
    EXPECT_EQ(DEFAULT_SIZES, poolSizes());
}

TEST(DaemonStart, ArgumentsSizeThePools)
{
    const DaemonProcess daemon({"4", "2"});
    EXPECT_EQ(std::vector<uint32_t>({4, 32, 40, 4, 2}), poolSizes());
    EXPECT_EQ(1u, globalCount(CPUDEFEND_GLOBAL_USEPOLICYNUM));
    EXPECT_EQ(10u, globalCount(CPUDEFEND_GLOBAL_USECARPKTNUM));
}

TEST(DaemonStart, FurtherArgumentsAreNotRead)
{
    const DaemonProcess daemon({"4", "2", "99", "--help"});
    EXPECT_EQ(std::vector<uint32_t>({4, 32, 40, 4, 2}), poolSizes());
}

TEST(DaemonStart, AskedForItsVersionItOnlyTellsThat)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, runDaemon({"--version"}, {}, 20, nullptr));
    EXPECT_EQ("cpuDefend " CPUDEFEND_VERSION "\n", testing::internal::GetCapturedStdout());
    const DaemonProcess daemon({"4", "--version"});
    EXPECT_EQ(DEFAULT_SIZES.back(), poolSizes().back());
}

TEST(DaemonStart, ACrashIsSaidFromTheStartOn)
{
    for (const auto &[signal, said] :
         {std::pair{SIGSEGV, "cpuDefend: caught SIGSEGV (signal 11)"},
          std::pair{SIGABRT, "cpuDefend: caught SIGABRT (signal 6)"}}) {
        DaemonProcess daemon;
        const int status = daemon.stop(signal);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
        EXPECT_NE(daemon.errors().find(said), std::string::npos) << daemon.errors();
    }
}

TEST(DaemonStart, AStaleSocketFileIsReplaced)
{
    {
        DaemonProcess killed;
        killed.stop(SIGKILL);
        struct stat status;
        ASSERT_EQ(0, stat(CPUDEFEND_CMD_SOCKET, &status)) << "nothing stale to replace";
        ASSERT_EQ(-1, connectToDaemon());
    }
    const DaemonProcess daemon;
    expectServing();
}

/** A start that must fail: an error that names @a what, and a non-zero exit. */
void expectRefusedStart(const std::map<std::string, std::string> &env, const std::string &what)
{
    std::string errors;
    const int status = runDaemon({}, env, 20, &errors);
    EXPECT_GT(status, 0);
    EXPECT_LT(status, 256);
    EXPECT_NE(128 + SIGSEGV, status);
    EXPECT_NE(128 + SIGABRT, status);
    EXPECT_NE(std::string::npos, errors.find(what)) << errors;
}

/** A folder where a file is wanted. */
class FolderInTheWay
{
public:
    explicit FolderInTheWay(const std::string &path) : path_(path)
    {
        unlink(path_.c_str());
        EXPECT_EQ(0, mkdir(path_.c_str(), 0700));
    }
    ~FolderInTheWay() { rmdir(path_.c_str()); }

private:
    std::string path_;
};

TEST(DaemonStart, AJournalThatCannotBeOpenedIsAnError)
{
    const FolderInTheWay folder("/tmp/cpudefend-test-journal");
    for (const std::string file : {"/tmp/no/such/folder/journal", "/tmp/cpudefend-test-journal"})
        expectRefusedStart({{"CPUDEFEND_JOURNAL", file}}, file);
}

TEST(DaemonStart, APlatformFileThatIsMissingIsAnError)
{
    expectRefusedStart({{"CPUDEFEND_PLATFORM", "/tmp/no-such-platform.toml"}},
                       "/tmp/no-such-platform.toml");
}

TEST(DaemonStart, APlatformFileThatCannotBeReadIsAnError)
{
    const std::string file = "/tmp/cpudefend-test-platform.toml";
    const FolderInTheWay folder(file);
    expectRefusedStart({{"CPUDEFEND_PLATFORM", file}}, file);
}

TEST(DaemonStart, ASocketPathThatCannotBeHadIsAnError)
{
    const FolderInTheWay folder(CPUDEFEND_CMD_SOCKET);
    expectRefusedStart({}, "cpuDefend: couldn't take " CPUDEFEND_CMD_SOCKET
                           ": a folder is in its place\n");
}

/**
 * In a process with mounts of its own, once @a arrange has changed them, @a body is to return what
 * is wrong. @return that, in short
 */
template <typename Arrange, typename Body> std::string apart(Arrange arrange, Body body)
{
    int said[2];
    if (pipe2(said, O_CLOEXEC) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        std::string wrong = "no mount name space";
        if (unshare(CLONE_NEWNS) == 0 &&
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, "") == 0 && arrange())
            wrong = body();
        (void)!write(said[1], wrong.data(), wrong.size());
        _exit(0);
    }
    close(said[1]);
    std::string wrong(500, '\0');
    const ssize_t len = read(said[0], wrong.data(), wrong.size());
    close(said[0]);
    waitpid(child, nullptr, 0);
    wrong.resize(len > 0 ? static_cast<size_t>(len) : 0);
    return wrong;
}

template <typename Body> std::string withoutDev(Body body)
{
    return apart([] { return mount("none", "/dev", "tmpfs", 0, "") == 0; }, body);
}

/** @return what a daemon says that does not start, its standard error being @a errFd */
std::string startsOrSays(int errFd = -1)
try {
    const DaemonProcess daemon({}, {}, "", errFd);
    return "";
} catch (const std::exception &failure) {
    return failure.what();
}

TEST(DaemonStart, NeedsNoDevNullWhileItsDescriptorsAreOpen)
{
    const std::string wrong = withoutDev([] { return startsOrSays(); });
    if (wrong == "no mount name space")
        GTEST_SKIP() << wrong;
    EXPECT_EQ(wrong, "");
}

TEST(DaemonStart, SaysWhyADescriptorCannotBeOpened)
{
    const std::string wrong = withoutDev([]() -> std::string {
        close(STDIN_FILENO);
        std::string errors;
        const int status = runDaemon({}, {}, 20, &errors);
        return std::to_string(status) + ' ' + errors;
    });
    if (wrong == "no mount name space")
        GTEST_SKIP() << wrong;
    EXPECT_EQ(wrong, "255 couldn't open /dev/null: No such file or directory\n");
}

TEST(DaemonStart, SaysWhyItsSocketCannotBeMade)
{
    const auto fill = [] { // as far as the daemon can tell
        return mount("/tmp", "/tmp", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
               mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    };
    const std::string wrong =
        apart(fill, [] { return startsOrSays(memfd_create("errors", MFD_CLOEXEC)); });
    if (wrong == "no mount name space")
        GTEST_SKIP() << wrong;
    EXPECT_EQ(wrong, "the daemon did not start: cpuDefend: couldn't lock " CPUDEFEND_CMD_SOCKET
                     ".lock: two starts at once are not told apart\n"
                     "cpuDefend: couldn't take " CPUDEFEND_CMD_SOCKET ": Read-only file system\n"
                     "couldn't start the daemon: Read-only file system\n");
}

TEST(DaemonStart, ClosedStandardDescriptorsDoNotHinderIt)
{
    const int kept = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    {
        const DaemonProcess daemon;
        expectServing();
    }
    dup2(kept, STDIN_FILENO);
    close(kept);
}

// ---- Service
// -------------------------------------------------------------------------------------

TEST(DaemonService, MalformedRequestsOfEveryKindAreAnsweredWithLengthZero)
{
    DaemonProcess daemon;
    const channel::Bytes sound = globalGet(CPUDEFEND_GLOBAL_DEBUG);
    const channel::Bytes kinds[] = {
        {},
        channel::Bytes(25),
        channel::Bytes(26),
        channel::Bytes(1518),
        channel::Bytes(1518, 0xFF),
        over(sound, FUNC_AT, be32(27)),
        over(sound, MARKER_AT, {0}),
        over(sound, COUNT_AT, {1}),
        over(sound, valueAt(global), {0}),
        over(sound, valueAt(global) + 2, be16(5)),
        channel::Bytes(sound.begin(), sound.end() - 1),
        request(CPUDEFEND_POLICY_GETAPI, 0, policyIndex(std::string(33, 'x')), number(0)),
    };
    for (const channel::Bytes &kind : kinds) {
        channel::Bytes reply(1);
        EXPECT_TRUE(exchange(kind, &reply));
        EXPECT_EQ(channel::Bytes(), reply);
        expectServing();
    }
    EXPECT_TRUE(daemon.running());
}

/** A request with a few bytes changed, or none of its bytes meant. */
channel::Bytes randomBody(std::mt19937 &random)
{
    const auto below = [&random](uint32_t end) { return static_cast<uint32_t>(random() % end); };
    channel::Bytes body;
    if (below(4) == 0) {
        body.resize(below(CPUDEFEND_CMD_MAXLEN + 1));
        for (uint8_t &byte : body)
            byte = static_cast<uint8_t>(random());
        return body;
    }
    const uint32_t code = 1 + below(26);
    const Value values[] = {number(static_cast<uint32_t>(random())), octets("default"),
                            counter(1, 2), octets(std::string(below(1200), 'r'))};
    body = request(code, below(22), anyIndex(code), values[below(4)], below(100));
    for (uint32_t changes = below(4); changes > 0; --changes)
        body[below(static_cast<uint32_t>(body.size()))] = static_cast<uint8_t>(random());
    return body;
}

TEST(DaemonService, FiveHundredRandomRequestsAreSurvived)
{
    DaemonProcess daemon({"4", "2"});
    std::mt19937 random(20);
    for (int i = 0; i < 500; ++i) {
        SCOPED_TRACE(i);
        const channel::Bytes body = randomBody(random);
        channel::Bytes reply;
        ASSERT_TRUE(exchange(body, &reply));
        ASSERT_TRUE(reply.empty() || reply.size() == body.size());
        ASSERT_TRUE(daemon.running()) << daemon.errors();
    }
    EXPECT_EQ(4u, globalCount(CPUDEFEND_GLOBAL_MAXPOLICYNUM));
}

TEST(DaemonService, RandomFramesAreSurvived)
{
    DaemonProcess daemon;
    std::mt19937 random(21);
    for (int i = 0; i < 200; ++i) {
        channel::Bytes sent(random() % 1600);
        for (uint8_t &byte : sent)
            byte = static_cast<uint8_t>(random());
        if (sent.size() >= 4 && i % 2)
            sent = over(sent, 0, be32(static_cast<uint32_t>(random() % 1600)));
        converse(sent);
        ASSERT_TRUE(daemon.running()) << daemon.errors();
    }
    expectServing();
}

TEST(DaemonService, ManyClientsAtOnceAreAllServed)
{
    DaemonProcess daemon;
    std::atomic<int> served{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 16; ++i)
        clients.emplace_back([&served] {
            const channel::Bytes body = globalGet(CPUDEFEND_GLOBAL_POLICYMODE);
            const channel::Bytes expected = answered(body, global, numberItem(0));
            channel::Bytes reply;
            for (int n = 0; n < 20; ++n)
                served += exchange(body, &reply) && reply == expected;
        });
    for (std::thread &client : clients)
        client.join();
    EXPECT_EQ(320, served);
}

TEST(DaemonService, AStallingClientHoldsUpTheNextForASecondAtMost)
{
    DaemonProcess daemon;
    const int stalled = connectToDaemon();
    ASSERT_GE(stalled, 0);
    const auto start = Clock::now();
    expectServing();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2500));
    close(stalled);
}

TEST(DaemonService, ClientsThatHangUpAreSurvived)
{
    DaemonProcess daemon;
    const channel::Bytes body = globalGet(CPUDEFEND_GLOBAL_POLICYMODE);
    const channel::Bytes sent = be32(static_cast<uint32_t>(body.size())) + body;
    for (size_t i = 0; i <= sent.size(); ++i) {
        const int client = connectToDaemon();
        ASSERT_GE(client, 0);
        send(client, sent.data(), i, MSG_NOSIGNAL);
        close(client);
    }
    expectServing();
    EXPECT_TRUE(daemon.running());
}

TEST(DaemonService, AReaderOfItsMessagesThatGoesAwayDoesNotEndIt)
{
    int pipeEnds[2];
    ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
    DaemonProcess daemon({}, {}, "", pipeEnds[1]);
    close(pipeEnds[0]);
    const int fd = connectToDaemon();
    ASSERT_GE(fd, 0);
    const uint8_t tooLong[] = {0, 0, 0x10, 0}; // what is reported on standard error
    ASSERT_EQ(static_cast<ssize_t>(sizeof tooLong),
              send(fd, tooLong, sizeof tooLong, MSG_NOSIGNAL));
    uint8_t none;
    EXPECT_EQ(0, recv(fd, &none, sizeof none, 0));
    close(fd);
    EXPECT_EQ(1u, globalCount(CPUDEFEND_GLOBAL_USEPOLICYNUM));
    EXPECT_TRUE(daemon.running());
}

TEST(DaemonService, MessagesOfAFloodAreLeftOutAndCounted)
{
    DaemonProcess daemon;
    channel::Bytes reply;
    ASSERT_TRUE(exchange(
        request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_DEBUG, global, number(1)), &reply));
    const auto begin = Clock::now();
    for (int i = 0; i < 3000; ++i) // of two messages each
        ASSERT_TRUE(exchange(channel::Bytes(25), &reply));
    EXPECT_TRUE(within(std::chrono::seconds(10), [&daemon] {
        return daemon.errors().find(" messages were left out") != std::string::npos;
    }));
    const auto seconds =
        static_cast<size_t>(std::chrono::duration<double>(Clock::now() - begin).count()) + 1;
    size_t messages = 0;
    const std::string errors = daemon.errors();
    for (size_t at = 0; (at = errors.find(" in line ", at)) != std::string::npos; ++at)
        messages++;
    EXPECT_GE(messages, 1000u);
    EXPECT_LE(messages, 1000u + 20 * seconds);
}

TEST(DaemonService, BindingIsWrittenToTheJournal)
{
    const std::string file = "/tmp/cpudefend-channel-test.journal";
    unlink(file.c_str());
    {
        DaemonProcess daemon({}, {{"CPUDEFEND_JOURNAL", file}});
        channel::Bytes reply;
        const channel::Bytes body =
            request(CPUDEFEND_GLOBAL_SETAPI, CPUDEFEND_GLOBAL_POLICY, global, octets("default"));
        ASSERT_TRUE(exchange(body, &reply));
        EXPECT_EQ(withCode(body, 0), reply);
    }
    std::ifstream journal(file);
    int entries = 0;
    for (std::string line; std::getline(journal, line);)
        entries += line.find("zynScalarSetApi") != std::string::npos;
    EXPECT_EQ(10, entries) << "one CAR entry for each of the ten types";
    unlink(file.c_str());
}

// ---- The same bytes on every machine
// -------------------------------------------------------------

TEST(Transcript, RepliesAreThoseOnRecordByteForByte)
{
    DaemonProcess daemon({"4", "2"});
    std::string text;
    for (const Exchange &exchange : conversation())
        text += written(exchange, converse(exchange.sent)) + '\n';
    EXPECT_TRUE(daemon.running()) << daemon.errors();
    if (getenv("CPUDEFEND_UPDATE_TRANSCRIPT")) {
        std::ofstream(CPUDEFEND_TRANSCRIPT) << text;
        GTEST_SKIP() << "wrote " << CPUDEFEND_TRANSCRIPT;
    }
    std::ifstream record(CPUDEFEND_TRANSCRIPT);
    std::istringstream said(text);
    std::string expected, actual;
    while (std::getline(said, actual)) {
        EXPECT_TRUE(std::getline(record, expected)) << actual;
        EXPECT_EQ(expected, actual);
    }
    EXPECT_FALSE(std::getline(record, expected)) << expected;
}

} // namespace
