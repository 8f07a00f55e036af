/**
 * What outlives the daemon, and how the next one goes on with it.
 */
#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <thread>

#include "acls_on_wire.h"
#include "kernel/counters.h"
#include "kernel/pin_folder.h"

using namespace zynlinux;
using namespace std::chrono_literals;

namespace
{

class TakeOver : public LayerOnWire
{
protected:
    void leaveArpDenied(const std::string &more = "")
    {
        leaveBehind("ports = [\"port0\"]\n" + more,
                    [] { set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    }
};

TEST_F(TakeOver, WhatWasProgrammedStaysInForceWhenTheDaemonIsKilled)
{
    EXPECT_TRUE(arpArrives());
    leaveArpDenied();
    EXPECT_NE(programOn(protectedPort), 0u);
    EXPECT_FALSE(arpArrives());
}

TEST_F(TakeOver, SuccessorGoesOnAndSaysSo)
{
    leaveArpDenied();
    uint32_t before = programOn(protectedPort);
    Outcome outcome = startOnPort("grace = 60\n");
    ASSERT_EQ(outcome.result, 0) << outcome.text;
    EXPECT_EQ(outcome.text, "[platform] port port0 is protected in native mode, as it was left\n"
                            "[platform] what a former daemon programmed stays in force for 60 "
                            "seconds, or until it is bound again\n");
    EXPECT_NE(programOn(protectedPort), before); // its own program, in place of the other
    EXPECT_FALSE(arpArrives());
}

TEST_F(TakeOver, NotOnePacketPassesWhileOneDaemonFollowsAnother)
{
    leaveArpDenied();
    PacketSocket sender(peerPort, 0x0806), receiver(protectedPort, 0x0806);
    std::atomic<bool> stop{false};
    std::atomic<unsigned> sent{0};
    std::thread flood([&] {
        while (!stop)
            sent += sender.send(arp, 64);
    });
    for (int i = 0; i < 5; i++)
        ASSERT_EQ(startOnPort().result, 0);
    stop = true;
    flood.join();
    EXPECT_GT(sent, 1000u);
    EXPECT_EQ(receiver.received(), 0u);
}

TEST_F(TakeOver, WhatIsNotBoundAgainIsDroppedAfterTheGraceTime)
{
    leaveArpDenied();
    ASSERT_EQ(startOnPort("grace = 1\n").result, 0);
    EXPECT_FALSE(arpArrives());
    EXPECT_TRUE(runUntil([&] { return arpArrives(); }));
}

TEST_F(TakeOver, WithoutGraceItIsDroppedAtOnce)
{
    leaveArpDenied();
    ASSERT_EQ(startOnPort("grace = 0\n").result, 0);
    EXPECT_TRUE(arpArrives());
}

TEST_F(TakeOver, WhatIsBoundAgainStaysAfterTheGraceTime)
{
    leaveArpDenied();
    ASSERT_EQ(startOnPort("grace = 1\n").result, 0);
    EXPECT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    auto begin = Clock::now();
    runUntil([&] { return Clock::now() > begin + 1500ms; });
    EXPECT_FALSE(arpArrives());
}

TEST_F(TakeOver, FirstThingProgrammedAtAPlaceTakesThePlaceOfAllThatWasLeftThere)
{
    leaveArpDenied();
    ASSERT_EQ(startOnPort().result, 0);
    auto other = arpEntry(1);
    other.pktType = 0;
    EXPECT_EQ(set(nullptr, true, other), 0);
    EXPECT_TRUE(arpArrives());
}

TEST_F(TakeOver, LeftEntriesAreNotTheSuccessorsOwn)
{
    leaveArpDenied();
    ASSERT_EQ(startOnPort().result, 0);
    EXPECT_EQ(set(nullptr, false, arpEntry(0, ZYN_HW_OP_DENY)), ENOENT);
    EXPECT_FALSE(arpArrives());
}

TEST_F(TakeOver, CountersGoOn)
{
    leaveArpDenied();
    PacketSocket(peerPort, 0x0806).send(arp, 10);
    ASSERT_EQ(startOnPort().result, 0);
    PacketSocket(peerPort, 0x0806).send(arp, 10);
    EXPECT_TRUE(within(1s, [] {
        return readCounters(findCounters(protectedPort).get())[1].dropped_packets == 20;
    }));
}

TEST_F(TakeOver, BurstThatWasSpentIsNotGivenAgain)
{
    leaveBehind("ports = [\"port0\"]\n", [] { set(nullptr, true, arpEntry(1)); });
    PacketSocket sender(peerPort, 0x0806), receiver(protectedPort, 0x0806);
    sender.send(arp, 10);
    ASSERT_TRUE(within(1s, [] {
        return readCounters(findCounters(protectedPort).get())[1].dropped_packets == 8;
    }));
    ASSERT_EQ(startOnPort().result, 0);
    EXPECT_EQ(set(nullptr, true, arpEntry(1)), 0);
    sender.send(arp, 10);
    EXPECT_TRUE(within(1s, [] {
        auto counters = readCounters(findCounters(protectedPort).get())[1];
        return counters.passed_packets + counters.dropped_packets == 20;
    }));
    EXPECT_LE(receiver.received(), 3u); // the bucket of two, and what a second brought
}

TEST_F(TakeOver, PortThatIsNotConfiguredAnyMoreIsSetFree)
{
    leaveBehind("ports = [\"port0\", \"peer0\"]\n", [] {});
    ASSERT_NE(programOn(peerPort), 0u);
    ASSERT_EQ(startOnPort().result, 0);
    EXPECT_NE(programOn(protectedPort), 0u);
    EXPECT_EQ(programOn(peerPort), 0u);
}

TEST_F(TakeOver, SlotThatIsNotConfiguredAnyMoreLeavesNothing)
{
    tSlotIndex slot{0, 3, 0};
    leaveBehind("[[slot]]\nslot = 3\nports = [\"port0\"]\n",
                [&] { set(&slot, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    EXPECT_FALSE(arpArrives());
    ASSERT_EQ(startOnPort().result, 0);
    EXPECT_TRUE(arpArrives());
}

TEST_F(TakeOver, SlotFindsItsOwnAgainWhateverTheOrder)
{
    tSlotIndex third{0, 3, 0};
    leaveBehind(
        "[[slot]]\nslot = 2\nports = [\"peer0\"]\n[[slot]]\nslot = 3\nports = [\"port0\"]\n",
        [&] { set(&third, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    ASSERT_EQ(
        start("[[slot]]\nslot = 3\nports = [\"port0\"]\n[[slot]]\nslot = 2\nports = [\"peer0\"]\n")
            .result,
        0);
    EXPECT_FALSE(arpArrives());
    EXPECT_TRUE(arpArrives(protectedPort, peerPort));
}

TEST_F(TakeOver, PinnedByAnotherLayoutIsReplaced)
{
    leaveArpDenied();
    Descriptor info(bpf_obj_get((pinFolder + "/cpudefend_info").c_str()));
    cpd_info other{};
    uint32_t key = 0;
    ASSERT_EQ(bpf_map_lookup_elem(info.get(), &key, &other), 0);
    other.layout++;
    ASSERT_EQ(bpf_map_update_elem(info.get(), &key, &other, BPF_ANY), 0);
    Outcome outcome = startOnPort();
    ASSERT_EQ(outcome.result, 0) << outcome.text;
    EXPECT_EQ(outcome.text,
              "[platform] what was left is of another layout: nothing stays in force\n"
              "[platform] port port0 is protected in native mode\n");
    EXPECT_TRUE(arpArrives());
    EXPECT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    EXPECT_FALSE(arpArrives());
}

/** What is left of a former daemon, with one of the pinned maps not being there, or not its own. */
class LeftInPart : public TakeOver, public testing::WithParamInterface<const char *>
{
protected:
    std::string pin() const { return pinFolder + "/" + GetParam(); }

    void expectNothingInForce(const std::string &reason)
    {
        Outcome outcome = startOnPort();
        ASSERT_EQ(outcome.result, 0) << outcome.text;
        EXPECT_EQ(outcome.text, "[platform] what was left " + reason +
                                    ": nothing stays in force\n"
                                    "[platform] port port0 is protected in native mode\n");
        EXPECT_TRUE(arpArrives());
        EXPECT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
        EXPECT_FALSE(arpArrives());
    }

    /** A map of the same shape in the place of the one that is pinned. */
    void replace()
    {
        Descriptor own(bpf_obj_get(pin().c_str()));
        bpf_map_info shape{};
        uint32_t size = sizeof shape;
        ASSERT_EQ(bpf_obj_get_info_by_fd(own.get(), &shape, &size), 0);
        LIBBPF_OPTS(bpf_map_create_opts, options, .map_flags = shape.map_flags);
        Descriptor like(
            bpf_map_create(BPF_MAP_TYPE_ARRAY, "inner", 4, sizeof(cpd_policy), 1, nullptr));
        if (shape.type == BPF_MAP_TYPE_ARRAY_OF_MAPS)
            options.inner_map_fd = static_cast<uint32_t>(like.get());
        Descriptor other(bpf_map_create(static_cast<bpf_map_type>(shape.type), shape.name,
                                        shape.key_size, shape.value_size, shape.max_entries,
                                        &options));
        ASSERT_GE(other.get(), 0) << strerror(errno);
        ASSERT_EQ(unlink(pin().c_str()), 0);
        ASSERT_EQ(bpf_obj_pin(other.get(), pin().c_str()), 0);
    }
};

TEST_P(LeftInPart, MapThatIsMissingIsSaid)
{
    leaveArpDenied();
    ASSERT_EQ(unlink(pin().c_str()), 0);
    const std::string name = GetParam();
    expectNothingInForce(name == "cpudefend_info" ? "is of another layout"
                                                  : "is not whole (" + name + " is missing)");
}

TEST_P(LeftInPart, MapThatIsNotItsOwnIsSaid)
{
    leaveArpDenied();
    replace();
    const std::string name = GetParam();
    expectNothingInForce(name == "cpudefend_info" ? "is of another layout"
                                                  : "is not whole (" + name + " is another one)");
}

INSTANTIATE_TEST_SUITE_P(Map, LeftInPart,
                         testing::Values("cpudefend_meter", "cpudefend_acls", "cpudefend_info"),
                         [](const auto &each) { return std::string(each.param); });

TEST_F(TakeOver, SecondDaemonIsRefusedWhileTheFirstLives)
{
    ASSERT_EQ(startOnPort().result, 0);
    pid_t child = fork();
    if (child == 0) {
        testing::internal::CaptureStderr();
        PinFolder *second = nullptr;
        std::string told;
        try {
            second = new PinFolder(pinFolder);
        } catch (const std::exception &failure) {
            told = failure.what();
        }
        std::string wanted =
            "couldn't keep the data plane in " + pinFolder + ": another daemon holds it";
        _exit(!second && told == wanted ? 0 : 1);
    }
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_NE(programOn(protectedPort), 0u);
}

TEST_F(TakeOver, FolderThatIsOnNoBpfFileSystemIsAnError)
{
    pinFolder = "/tmp/not-bpf";
    Outcome outcome = startOnPort();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.text, "couldn't keep the data plane in /tmp/not-bpf: /tmp is no BPF file "
                            "system (mount -t bpf -o mode=0700 bpf /tmp, or pin = \"none\")\n");
}

TEST_F(TakeOver, FailedStartLeavesNothingBehind)
{
    Descriptor other = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex(peerPort)), other.get(), 0, nullptr),
              0);
    EXPECT_EQ(start("ports = [\"port0\", \"peer0\"]\n").result, -1);
    EXPECT_EQ(programOn(protectedPort), 0u);
    struct stat info;
    EXPECT_NE(stat(pinFolder.c_str(), &info), 0);
}

TEST_F(TakeOver, FailedStartOfASuccessorLeavesTheProtectionAsItWas)
{
    leaveArpDenied();
    Descriptor other = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex(peerPort)), other.get(), 0, nullptr),
              0);
    EXPECT_EQ(start("ports = [\"port0\", \"peer0\"]\n").result, -1);
    EXPECT_FALSE(arpArrives());
}

TEST_F(TakeOver, SlotWithTheNumberOfAFormerSlotsCountersBeginsAtZero)
{
    leaveBehind("[[slot]]\nslot = 3\nports = [\"port0\"]\n", [] {
        tSlotIndex slot{0, 3, 0};
        set(&slot, true, arpEntry(0, ZYN_HW_OP_DENY));
    });
    auto counted = [] { // the only slot has the first number behind the system's
        return readCounters(findCounters(protectedPort).get(), 1, CPD_ARP)
            .value_or(cpd_counters{1, 1, 1, 1});
    };
    PacketSocket(peerPort, 0x0806).send(arp, 10);
    ASSERT_TRUE(within(1s, [&] { return counted().dropped_packets == 10; }));
    ASSERT_EQ(startOnPort().result, 0);
    ASSERT_EQ(counted().dropped_packets, 10u);
    ASSERT_EQ(start("[[slot]]\nslot = 4\nports = [\"port0\"]\n").result, 0);
    EXPECT_EQ(counted().dropped_packets, 0u);
    EXPECT_EQ(counted().dropped_octets, 0u);
    tSlotIndex slot{0, 4, 0};
    EXPECT_EQ(set(&slot, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    PacketSocket(peerPort, 0x0806).send(arp, 3);
    EXPECT_TRUE(within(1s, [&] { return counted().dropped_packets == 3; }));
}

/** Lists that a former daemon bound, and that nobody binds again. */
class LeftAcls : public AclsOnWire
{
protected:
    void expectInForce()
    {
        EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
        EXPECT_TRUE(udpArrives("192.0.2.7", 5001));
        EXPECT_TRUE(udpArrives("192.0.3.7", 5000));
    }
};

TEST_F(LeftAcls, StayInForceWithASuccessorAndWithTheNextOne)
{
    leaveBehind(std::string("ports = [\"port0\"]\n") + acls, [] { bind(100); });
    expectInForce();
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(startOnPort(acls).result, 0);
        expectInForce();
    }
}

TEST_F(LeftAcls, StayInForceAtASlotWhateverIsBoundElsewhere)
{
    const std::string text = std::string(acls) + "[[slot]]\nslot = 3\nports = [\"port0\"]\n"
                                                 "[[slot]]\nslot = 4\nports = [\"peer0\"]\n";
    const tSlotIndex slot{0, 3, 0}, other{0, 4, 0};
    leaveBehind(text, [&] { bind(100, ZYN_HW_OP_DENY, 0, 0, &slot); });
    expectInForce();
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(start(text).result, 0);
        expectInForce();
        EXPECT_EQ(bind(101, ZYN_HW_OP_DENY, 0, 0, &other), 0);
        expectInForce();
    }
}

TEST_F(LeftAcls, WithoutTheirTablesAreNotCalledInForce)
{
    const std::string text =
        std::string("ports = [\"peer0\"]\n") + acls + "[[slot]]\nslot = 3\nports = [\"port0\"]\n";
    const tSlotIndex slot{0, 3, 0};
    leaveBehind(text, [&] {
        bind(100, ZYN_HW_OP_DENY, 0, 0, &slot);
        set(&slot, true, arpEntry(0, ZYN_HW_OP_DENY));
        set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY));
    });
    Descriptor sets(bpf_obj_get((pinFolder + "/cpudefend_acls").c_str()));
    for (uint32_t set = 0; set < CPD_TABLE_SETS; set++)
        bpf_map_delete_elem(sets.get(), &set);
    Outcome outcome = start(text);
    ASSERT_EQ(outcome.result, 0);
    EXPECT_NE(outcome.text.find("[platform] what was left at slot 3 of system 0 is not whole (the "
                                "tables of its ACLs are missing): it does not stay in force\n"),
              std::string::npos)
        << outcome.text;
    EXPECT_NE(outcome.text.find("stays in force for 60 seconds"), std::string::npos);
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(arpArrives());
    EXPECT_FALSE(arpArrives(protectedPort, peerPort));                // the system's is whole
    EXPECT_EQ(start(text).text.find("not whole"), std::string::npos); // nothing is left of it
}

/** Stop a daemon with a signal, and see what is left. */
class Stop : public TakeOver
{
protected:
    int stopBy(int signal, const std::string &more)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_t child = fork();
        if (child == 0) {
            if (startOnPort(more).result != 0)
                _exit(1);
            set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY));
            (void)!write(ready[1], "", 1);
            runUntil([] { return false; });
            _exit(2);
        }
        close(ready[1]);
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        kill(child, signal);
        int status = 0;
        waitpid(child, &status, 0);
        return status;
    }
};

TEST_F(Stop, CleanStopRemovesTheProtectionUnlessConfiguredOtherwise)
{
    for (int signal : {SIGTERM, SIGINT}) {
        EXPECT_EQ(stopBy(signal, ""), 0);
        EXPECT_EQ(programOn(protectedPort), 0u);
        EXPECT_TRUE(arpArrives());
        struct stat info;
        EXPECT_NE(stat(pinFolder.c_str(), &info), 0);
    }
}

TEST_F(Stop, CleanStopLeavesTheProtectionWhenConfiguredSo)
{
    EXPECT_EQ(stopBy(SIGTERM, "on_stop = \"leave\"\n"), 0);
    EXPECT_NE(programOn(protectedPort), 0u);
    EXPECT_FALSE(arpArrives());
}

TEST_F(Stop, UnpinnedProtectionEndsWithTheProcessWhateverIsConfigured)
{
    pinFolder = "none";
    EXPECT_EQ(stopBy(SIGTERM, "on_stop = \"leave\"\n"), 0);
    EXPECT_TRUE(within(5s, [] { return programOn(protectedPort) == 0; }));
}

} // namespace
