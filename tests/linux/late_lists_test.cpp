/**
 * Access lists that take their time to be read and compiled: what is done meanwhile.
 */
#include <atomic>
#include <optional>
#include <thread>

#include <pthread.h>

#include "acls_on_wire.h"

using namespace std::chrono_literals;

namespace
{

/** Threads that work beside the loop, in the order in which they began. */
struct {
    std::atomic<int> begun{0};
    std::atomic<int> held{INT_MAX}; /**< this one and those behind it do not go on */
    std::atomic<int> free{INT_MAX}; /**< but for this one and those behind it */
} beside;

} // namespace

// The linker puts the second in the place of the first: with it a thread begins its work.
extern "C" int __real_pthread_setname_np(pthread_t, const char *);
extern "C" int __wrap_pthread_setname_np(pthread_t thread, const char *name)
{
    for (const int number = beside.begun++; number >= beside.held && number < beside.free;)
        std::this_thread::sleep_for(1ms);
    return __real_pthread_setname_np(thread, name);
}

namespace
{

constexpr char compiling[] =
    "[platform] access lists are being compiled; what was programmed comes "
    "in force when that is done\n";
constexpr char compiled[] = "[platform] access lists that took a while are compiled\n";
constexpr tSlotIndex slot{0, 4, 0};

class LateLists : public AclsOnWire
{
protected:
    void SetUp() override
    {
        goOn();
        beside.begun = 0;
        AclsOnWire::SetUp();
        if (IsSkipped())
            return;
        rewrite(acls);
        ASSERT_EQ(init().result, 0);
        beQuiet();
    }
    void TearDown() override
    {
        goOn();
        AclsOnWire::TearDown();
    }

    void rewrite(const std::string &lists)
    {
        file.reset();
        file.emplace("pin = \"" + pinFolder + "\"\nports = [\"port0\"]\n" + lists +
                     "[[slot]]\nslot = 4\nports = [\"peer0\"]\n");
    }

    /** From now on, the threads that begin do not go on. */
    static void hold() { beside.held = beside.begun.load(); }
    /** The same of the next one alone. */
    static void holdOne()
    {
        beside.free = beside.begun + 1;
        hold();
    }
    static void goOn() { beside.held = beside.free = INT_MAX; }

    /** The time that something takes. */
    static Clock::duration taken(const std::function<void()> &work)
    {
        const auto begin = Clock::now();
        work();
        return Clock::now() - begin;
    }

    static int32_t change(const std::function<void()> &calls)
    {
        zynHwChangeBegin();
        calls();
        return zynHwChangeEnd();
    }

    static constexpr auto longest = 400ms;
    std::optional<PlatformFile> file;
    Heard heard;
};

TEST_F(LateLists, AreRefusedForTheMomentWhereTheyAreBoundByThemselves)
{
    hold();
    EXPECT_LT(taken([] { EXPECT_EQ(bind(100), EAGAIN); }), longest);
    EXPECT_EQ(heard.text(),
              "[platform] ACL 100 (deny) is not put in force on the system: compiling it takes a "
              "while; try again in a moment\n");
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    goOn();
    EXPECT_EQ(bindAtLast(100), 0);
    EXPECT_EQ(beside.begun, 1) << "what was begun is gone on with";
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
}

TEST_F(LateLists, OfAChangeComeInForceWithItWhenTheyAreCompiled)
{
    hold();
    EXPECT_LT(taken([] {
                  EXPECT_EQ(change([] {
                                bind(100);
                                set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY));
                            }),
                            0);
              }),
              longest);
    EXPECT_EQ(heard.text(), compiling);
    EXPECT_TRUE(arpArrives()); // all of it, or nothing
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    EXPECT_LT(taken([] { change([] {}); }), 200ms) << "what is late is waited for once";
    goOn();
    EXPECT_TRUE(runUntil([&] { return heard.has(compiled); }));
    EXPECT_EQ(heard.text(), std::string(compiling) + compiled);
    EXPECT_FALSE(arpArrives());
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_EQ(acl_cpudefend_del(nullptr, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
}

TEST_F(LateLists, ComeInForceAsSoonAsTheyAreCompiled)
{
    for (int i = 0; i < 5; i++) {
        hold();
        EXPECT_EQ(change([] { bind(100); }), 0);
        goOn();
        EXPECT_LT(
            taken([] { EXPECT_TRUE(runUntil([] { return !udpArrives("192.0.2.7", 5000); })); }),
            600ms); // and not with the next second; each try takes up to 200 ms
        EXPECT_EQ(change([] { acl_cpudefend_del(nullptr, 100, ZYN_HW_OP_DENY, 0, 0, 0); }), 0);
    }
}

TEST_F(LateLists, HoldUpNoOtherPlace)
{
    hold();
    EXPECT_EQ(change([] { bind(100); }), 0);
    EXPECT_LT(
        taken([] { EXPECT_EQ(change([] { set(&slot, true, arpEntry(0, ZYN_HW_OP_DENY)); }), 0); }),
        200ms);
    EXPECT_FALSE(arpArrives(protectedPort, peerPort));
}

TEST_F(LateLists, ThatAreAskedForLaterComeFirst)
{
    const std::string slow = R"(number = 200
family = "ipv4"
rules = [)";
    std::string rules;
    for (int i = 0; i < 4000; i++) // of a second's work or so
        rules += "\"permit udp any port " + std::to_string(i) + "-" + std::to_string(60000 - i) +
                 " any port " + std::to_string(7 * i % 30000) + "-" + std::to_string(30000 + i) +
                 "\",\n";
    rewrite(std::string(acls) + "[[acl]]\n" + slow + rules + "]\n");
    ASSERT_EQ(init().result, 0);
    hold();
    EXPECT_EQ(change([] { bind(200); }), 0);
    goOn();
    EXPECT_EQ(change([] { bind(101, ZYN_HW_OP_DENY, 0, 0, &slot); }), 0);
    EXPECT_TRUE(runUntil([&] {
        return heard.has("ACL 200 (deny) is not put in force on the system: with "
                         "those before it, its tables do not fit\n");
    }));
}

TEST_F(LateLists, ReadAnewHoldNothingUp)
{
    ASSERT_EQ(bind(100), 0);
    rewrite("[[acl]]\nnumber = 100\nfamily = \"ipv4\"\nrules = [\"permit ip 192.0.2.9 any\"]\n");
    hold();
    raise(SIGHUP);
    EXPECT_LT(taken([] { runPlatform(); }), 200ms);
    EXPECT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    EXPECT_FALSE(arpArrives());
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(udpArrives("192.0.2.9", 1));
    EXPECT_EQ(heard.text(), "");
    goOn();
    EXPECT_TRUE(runUntil([&] { return heard.has("ACLs are those of"); }));
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    EXPECT_FALSE(udpArrives("192.0.2.9", 1));
}

TEST_F(LateLists, ThatAreCompiledWhileOthersAreReadAnewDoNotWaitForThem)
{
    const int before = beside.begun;
    holdOne();
    raise(SIGHUP);
    runPlatform();
    ASSERT_TRUE(within(5s, [&] { return beside.begun == before + 1; }));
    EXPECT_EQ(change([] { bind(100); }), 0); // its thread calls the loop, too
    beQuiet();
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_EQ(heard.text(), "");
    goOn();
    EXPECT_TRUE(runUntil([&] { return heard.has("ACLs are those of"); }));
}

TEST_F(LateLists, ReadAnewCountForWhatIsBoundMeanwhileToo)
{
    rewrite("[[acl]]\nnumber = 100\nfamily = \"ipv4\"\nrules = [\"permit ip 192.0.2.9 any\"]\n");
    hold();
    raise(SIGHUP);
    runPlatform();
    goOn();
    EXPECT_EQ(bindAtLast(100), 0); // before it is heard that they have been read
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(runUntil([&] { return heard.has("ACLs are those of"); }));
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    EXPECT_FALSE(udpArrives("192.0.2.9", 1));
}

TEST_F(LateLists, OfAFileThatChangesWhileItIsReadAreReadAgain)
{
    ASSERT_EQ(bind(100), 0);
    const int before = beside.begun;
    hold();
    raise(SIGHUP);
    runPlatform();
    ASSERT_TRUE(within(5s, [&] { return beside.begun == before + 1; }));
    raise(SIGHUP);
    runPlatform();
    goOn();
    EXPECT_TRUE(runUntil([&] { return heard.has("ACLs are those of"); }));
    EXPECT_EQ(beside.begun, before + 2);
    beQuiet();
    EXPECT_EQ(heard.text(), "[platform] ACLs are those of " + file->path() + " now\n");
}

TEST_F(LateLists, OfAFileThatIsWrongAreThoseOfBefore)
{
    ASSERT_EQ(bind(100), 0);
    rewrite("[[acl]]\nnumber = 0\n");
    EXPECT_NE(reload().find("the ACLs stay as they were\n"), std::string::npos);
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    rewrite(acls);
    EXPECT_EQ(reload(), "[platform] ACLs are those of " + file->path() + " now\n");
}

} // namespace
