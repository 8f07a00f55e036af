/**
 * The contract with the daemon, on ports of the test's own.
 */
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>

#include <bpf/libbpf.h>
#include <linux/if_link.h>

#include "bpf_probe.h"
#include "frame.h"
#include "journal.h"
#include "kernel/counters.h"
#include "layer_on_wire.h"
#include "memory/scratch.h"
#include "platform_file.h"
#include "test_net.h"
#include "zynacl.h"
#include "zynhwal.h"
#include "zynif.h"

using namespace zynlinux;
using namespace std::chrono_literals;

namespace
{

TEST(PlatformInit, MissingFileIsAnError)
{
    setenv("CPUDEFEND_PLATFORM", "/nonexistent.toml", 1);
    Outcome outcome = init();
    unsetenv("CPUDEFEND_PLATFORM");
    EXPECT_EQ(outcome.result, ZYN_EXIT_CONFIG);
    EXPECT_EQ(outcome.text,
              "couldn't read platform file /nonexistent.toml: No such file or directory\n");
}

TEST(PlatformInit, WrongFileIsAnErrorWithItsLine)
{
    PlatformFile file("ports = [\"eth0\"]\nspeed = 1\n");
    Outcome outcome = init();
    EXPECT_EQ(outcome.result, ZYN_EXIT_CONFIG);
    EXPECT_EQ(outcome.text,
              "couldn't read platform file " + file.path() + ": line 2: unknown key \"speed\"\n");
}

TEST(PlatformInit, PortThatIsNotThereIsAwaitedAndSaid)
{
    SKIP_WITHOUT_BPF();
    PlatformFile file(unpinned + "ports = [\"nosuchport\"]\n");
    Outcome outcome = init();
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.text, "[platform] port nosuchport is not there yet\n");
}

TEST(PlatformInit, MissingPermissionIsAnErrorThatSaysWhatIsNeeded)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root, to give it up";
    SKIP_WITHOUT_BPF();
    PlatformFile file(unpinned + "ports = [\"lo\"]\n");
    pid_t child = fork();
    if (child == 0) {
        constexpr uid_t nobody = 65534;
        if (setuid(nobody) != 0)
            _exit(2);
        testing::internal::CaptureStderr();
        zynPlatformInit(nullptr);
        int32_t result = zynPlatformStart();
        std::string text = testing::internal::GetCapturedStderr();
        bool told = text.find("couldn't load the packet program into the kernel: ") == 0 &&
                    text.find("(this takes root, or the capabilities") != std::string::npos;
        if (!told)
            std::fprintf(stderr, "%s", text.c_str());
        _exit(result == -1 && told ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

class PlatformOnWire : public OnWire
{
protected:
    /** Start the layer on the protected port. @param more lines of the platform file */
    Outcome start(const std::string &more = "")
    {
        PlatformFile file(unpinned + "ports = [\"" + protectedPort + "\"]\n" + more);
        return init();
    }

    static tHwCpuDefendPktCarEntry arpEntry(uint32_t pps)
    {
        tHwCpuDefendPktCarEntry entry{};
        entry.pktType = CPD_ARP;
        entry.pps = pps;
        entry.cir = 16;
        entry.cbs = 6400;
        entry.op = ZYN_HW_OP_PERMIT;
        return entry;
    }

    static int32_t car(uint32_t command, tHwCpuDefendPktCarEntry entry)
    {
        tHwApiFunc func{};
        func.hwCmd = command;
        func.arg = &entry;
        return zynScalarSetApi(0, 0, &func);
    }

    static int32_t add(const tHwCpuDefendPktCarEntry &e)
    {
        return car(HW_SYS_CPUDEFENDPKTCARADD, e);
    }
    static int32_t remove(const tHwCpuDefendPktCarEntry &e)
    {
        return car(HW_SYS_CPUDEFENDPKTCARDEL, e);
    }

    const std::vector<uint8_t> eapol = Frame(bridgeGroup(3)).u16(0x888e).zeros(46).bytes();
};

TEST_F(PlatformOnWire, NativeModeWhereTheDriverHasIt)
{
    Outcome outcome = start();
    ASSERT_EQ(outcome.result, 0) << outcome.text;
    EXPECT_EQ(outcome.text, "[platform] port port0 is protected in native mode\n");
    EXPECT_NE(programOn(protectedPort, XDP_FLAGS_DRV_MODE), 0u);
    EXPECT_EQ(programOn(peerPort), 0u);
}

TEST_F(PlatformOnWire, GenericModeWhenAskedFor)
{
    Outcome outcome = start("mode = \"generic\"\n");
    ASSERT_EQ(outcome.result, 0) << outcome.text;
    EXPECT_EQ(outcome.text, "[platform] port port0 is protected in generic mode\n");
    EXPECT_NE(programOn(protectedPort, XDP_FLAGS_SKB_MODE), 0u);
}

TEST_F(PlatformOnWire, DriverWithoutNativeModeGetsTheGenericOneAndTheReasonIsSaid)
{
    PlatformFile file(unpinned + "ports = [\"lo\"]\n");
    Outcome outcome = init();
    ASSERT_EQ(outcome.result, 0) << outcome.text;
    EXPECT_EQ(outcome.text, "[platform] port lo is protected in generic mode "
                            "(native: its driver does not have it)\n");
    EXPECT_NE(programOn("lo", XDP_FLAGS_SKB_MODE), 0u);
}

TEST_F(PlatformOnWire, NativeModeThatTheDriverDoesNotHaveIsAnError)
{
    PlatformFile file(unpinned + "ports = [\"lo\"]\nmode = \"native\"\n");
    Outcome outcome = init();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_EQ(outcome.text,
              "couldn't protect port lo in native mode: its driver does not have it\n");
}

TEST_F(PlatformOnWire, PortHeldByAnotherProgramIsAnErrorAndFreesTheOthers)
{
    Descriptor other = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex(peerPort)), other.get(), 0, nullptr),
              0);
    PlatformFile file(unpinned + "ports = [\"port0\", \"peer0\"]\n");
    Outcome outcome = init();
    EXPECT_EQ(outcome.result, -1);
    EXPECT_NE(outcome.text.find(
                  "couldn't protect port peer0 in native mode: another XDP program is on it\n"),
              std::string::npos)
        << outcome.text;
    EXPECT_EQ(programOn(protectedPort), 0u);
}

TEST_F(PlatformOnWire, RoleIsTheConfiguredOne)
{
    ASSERT_EQ(start().result, 0);
    EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr), 0);
    EXPECT_NE(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr), 0);
    EXPECT_NE(zynHwScalarGet(0, 1, nullptr), 0);
    ASSERT_EQ(start("role = \"slave\"\n").result, 0);
    EXPECT_NE(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISMASTER, nullptr), 0);
    EXPECT_EQ(zynHwScalarGet(0, HW_SYS_SWRUNNINGROLEISSLAVE, nullptr), 0);
}

TEST_F(PlatformOnWire, ConfiguredPortsAreTranslatedAndNoOthers)
{
    ASSERT_EQ(start().result, 0);
    uint32_t unit = if_nametoindex(protectedPort);
    tPhyIfInfo info;
    std::memset(&info, 0xff, sizeof info);
    EXPECT_EQ(sysIndexTrans(unit, SYS_INDEX_TRANS_PHY, &info), 0);
    EXPECT_EQ(info.unit, 0u);
    EXPECT_EQ(info.slot, 0u);
    EXPECT_EQ(info.port, unit);
    std::memset(&info, 0xff, sizeof info);
    EXPECT_NE(sysIndexTrans(if_nametoindex(peerPort), SYS_INDEX_TRANS_PHY, &info), 0);
    EXPECT_NE(sysIndexTrans(0, SYS_INDEX_TRANS_PHY, &info), 0);
    EXPECT_NE(sysIndexTrans(unit, 5, &info), 0);
    EXPECT_EQ(info.port, UINT32_MAX);
}

TEST_F(PlatformOnWire, PortOfASlotIsTranslatedToIt)
{
    PlatformFile file(unpinned +
                      "ports = [\"port0\"]\n[[slot]]\nsys = 2\nslot = 7\nports = [\"peer0\"]\n");
    ASSERT_EQ(init().result, 0);
    EXPECT_NE(programOn(peerPort), 0u);
    uint32_t unit = if_nametoindex(peerPort);
    tPhyIfInfo info;
    std::memset(&info, 0xff, sizeof info);
    ASSERT_EQ(sysIndexTrans(unit, SYS_INDEX_TRANS_PHY, &info), 0);
    EXPECT_EQ(info.unit, 2u);
    EXPECT_EQ(info.slot, 7u);
    EXPECT_EQ(info.port, unit);
    EXPECT_EQ(info.channel, 0u);
    EXPECT_EQ(info.virtualnum, 0u);
    EXPECT_EQ(info.endType, 0u);
    EXPECT_EQ(info.card, 0u);
    ASSERT_EQ(sysIndexTrans(if_nametoindex(protectedPort), SYS_INDEX_TRANS_PHY, &info), 0);
    EXPECT_EQ(info.unit, 0u);
    EXPECT_EQ(info.slot, 0u);
}

TEST_F(PlatformOnWire, JournalTellsWhatCameOfEachCall)
{
    Scratch scratch;
    const std::string path = scratch.path("journal");
    setenv("CPUDEFEND_JOURNAL", path.c_str(), 1);
    Outcome outcome = start("[[slot]]\nslot = 7\nports = [\"peer0\"]\n");
    unsetenv("CPUDEFEND_JOURNAL");
    ASSERT_EQ(outcome.result, 0) << outcome.text;
    tSlotIndex slot{0, 7, 0};
    auto entry = arpEntry(50);
    tPhyIfInfo info;
    EXPECT_EQ(add(entry), 0);
    EXPECT_EQ(remove(entry), 0);
    EXPECT_EQ(remove(entry), ENOENT);
    EXPECT_EQ(zynHwSlotSet(&slot, HW_SLOT_CPUDEFENDPKTCARADD, &entry, 3), 0);
    EXPECT_EQ(acl_cpudefend_add(nullptr, 2000, ZYN_HW_OP_DENY, 0, 0, 0), ENOENT);
    EXPECT_EQ(sysIndexTrans(if_nametoindex(peerPort), SYS_INDEX_TRANS_PHY, &info), 0);
    journalClose();

    const std::vector<std::pair<const char *, const char *>> expected = {
        {"zynScalarSetApi", "\"result\":0}"},   {"zynScalarSetApi", "\"result\":0}"},
        {"zynScalarSetApi", "\"result\":2}"},   {"zynHwSlotSet", "\"result\":0}"},
        {"acl_cpudefend_add", "\"result\":2}"}, {"sysIndexTrans", "{\"unit\":0,\"slot\":7,"}};
    std::istringstream text(scratch.read("journal"));
    for (const auto &[call, part] : expected) {
        std::string line;
        ASSERT_TRUE(std::getline(text, line)) << call;
        EXPECT_NE(line.find(std::string("\"call\":\"") + call + '"'), std::string::npos) << line;
        EXPECT_NE(line.find(part), std::string::npos) << line;
    }
    std::string more;
    EXPECT_FALSE(std::getline(text, more)) << more;
}

TEST_F(PlatformOnWire, JournalThatCannotBeOpenedIsAnError)
{
    setenv("CPUDEFEND_JOURNAL", "/nonexistent/journal", 1);
    Outcome outcome = start();
    unsetenv("CPUDEFEND_JOURNAL");
    EXPECT_EQ(outcome.result, ZYN_EXIT_CONFIG);
    EXPECT_NE(outcome.text.find("cpuDefend: couldn't open the journal /nonexistent/journal: "
                                "No such file or directory\n"),
              std::string::npos)
        << outcome.text;
}

TEST_F(PlatformOnWire, CpuUsageIsReadBySelector)
{
    uint32_t percent = 1000, hundredths = 100000;
    EXPECT_EQ(zynHwCpuGet(0, HW_CPU_USED, &percent), 0);
    EXPECT_EQ(zynHwCpuGet(1, HW_CPU_USED, &hundredths), 0);
    EXPECT_LE(percent, 100u);
    EXPECT_LE(hundredths, 10000u);
    EXPECT_EQ(hundredths / 100, percent); // both since boot
    EXPECT_NE(zynHwCpuGet(2, HW_CPU_USED, &percent), 0);
    EXPECT_NE(zynHwCpuGet(0, 1, &percent), 0);
}

TEST_F(PlatformOnWire, WrongCallsAreRefused)
{
    ASSERT_EQ(start().result, 0);
    tHwApiFunc func{};
    EXPECT_EQ(zynScalarSetApi(0, 0, nullptr), EINVAL);
    func.hwCmd = HW_SYS_CPUDEFENDPKTCARADD;
    EXPECT_EQ(zynScalarSetApi(0, 0, &func), EINVAL);
    EXPECT_EQ(car(387, arpEntry(1)), EINVAL);
    auto entry = arpEntry(1);
    entry.op = 4;
    EXPECT_EQ(add(entry), EINVAL);
    entry = arpEntry(1);
    entry.pktType = 59;
    EXPECT_EQ(add(entry), EINVAL);
}

constexpr std::array<uint32_t, 11> noFrames = {33, 40, 42, 48, 49, 51, 53, 54, 55, 57, 58};

TEST_F(PlatformOnWire, EntriesOfEveryTypeThatFramesAreOfAreProgrammed)
{
    ASSERT_EQ(start().result, 0);
    for (uint32_t type = 0; type < 59; type++) {
        if (std::find(noFrames.begin(), noFrames.end(), type) != noFrames.end())
            continue;
        auto entry = arpEntry(1);
        entry.pktType = type;
        EXPECT_EQ(add(entry), 0) << type;
        EXPECT_EQ(remove(entry), 0) << type;
        EXPECT_EQ(remove(entry), ENOENT) << type;
    }
}

TEST_F(PlatformOnWire, WhatThisLayerCannotDoIsNotSupported)
{
    ASSERT_EQ(start().result, 0);
    auto entry = arpEntry(1);
    // No frame is of these types; 58 is no type of packets but all of them.
    for (uint32_t type : noFrames) {
        entry.pktType = type;
        EXPECT_EQ(add(entry), ENOTSUP);
        EXPECT_EQ(remove(entry), ENOTSUP);
    }
}

TEST_F(PlatformOnWire, SlotThatIsNotConfiguredIsNoDevice)
{
    ASSERT_EQ(start("[[slot]]\nslot = 7\nports = [\"peer0\"]\n").result, 0);
    tSlotIndex slot{0, 1, 0};
    auto entry = arpEntry(1);
    EXPECT_EQ(zynHwSlotSet(&slot, HW_SLOT_CPUDEFENDPKTCARADD, &entry, 3), ENODEV);
    EXPECT_EQ(zynHwSlotSet(&slot, HW_SLOT_CPUDEFENDPKTCARDEL, &entry, 3), ENODEV);
    EXPECT_EQ(acl_cpudefend_add(&slot, 2000, ZYN_HW_OP_DENY, 0, 0, 0), ENODEV);
    EXPECT_EQ(zynHwCarCount(&slot, &entry), ENODEV);
    EXPECT_EQ(zynHwSlotSet(nullptr, HW_SLOT_CPUDEFENDPKTCARADD, &entry, 3), EINVAL);
}

TEST_F(PlatformOnWire, SynchronisationWithoutASecondCardSucceeds)
{
    EXPECT_EQ(zynHwScalarSync(0, 8000, nullptr, 3), 0);
    tSlotIndex slot{0, 1, 0};
    EXPECT_EQ(zynHwSlotSync(&slot, 8001, nullptr, 3), 0);
}

TEST_F(PlatformOnWire, EntriesCoverAndUncoverEachOtherOnTheWire)
{
    ASSERT_EQ(start().result, 0);
    PacketSocket sender(peerPort, 0x0806), receiver(protectedPort, 0x0806);
    auto arrives = [&] {
        sender.send(arp, 1);
        return within(200ms, [&] { return receiver.received() > 0; });
    };
    auto deny = arpEntry(0);
    deny.op = ZYN_HW_OP_DENY;
    EXPECT_TRUE(arrives());
    EXPECT_EQ(add(deny), 0);
    EXPECT_FALSE(arrives());
    EXPECT_EQ(add(arpEntry(50'000)), 0);
    EXPECT_TRUE(arrives());
    EXPECT_EQ(remove(arpEntry(49'999)), ENOENT);
    EXPECT_TRUE(arrives());
    EXPECT_EQ(remove(arpEntry(50'000)), 0);
    EXPECT_FALSE(arrives());
    EXPECT_EQ(remove(deny), 0);
    EXPECT_TRUE(arrives());
    EXPECT_EQ(remove(deny), ENOENT);
}

TEST_F(PlatformOnWire, CountersAreFoundThroughTheProtectedPortAlone)
{
    EXPECT_LT(findCounters(protectedPort).get(), 0);
    ASSERT_EQ(start().result, 0);
    PacketSocket(peerPort, 0x888e).send(eapol, 7);
    EXPECT_TRUE(within(1s, [] {
        auto counters = readCounters(findCounters(protectedPort).get());
        return counters.size() == CPD_TYPES && counters[CPD_DOT1X].passed_packets == 7;
    }));
    Descriptor other = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex(peerPort)), other.get(), 0, nullptr),
              0);
    EXPECT_LT(findCounters(peerPort).get(), 0);
    EXPECT_LT(findCounters("nosuchport").get(), 0);
    EXPECT_TRUE(readCounters(-1).empty());
}

TEST_F(PlatformOnWire, EveryPortIsFreeOnceTheProcessIsKilled)
{
    pid_t child = fork();
    if (child == 0) {
        Outcome outcome = start();
        while (outcome.result == 0)
            pause();
        _exit(1);
    }
    EXPECT_TRUE(within(5s, [] { return programOn(protectedPort) != 0; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(within(5s, [] { return programOn(protectedPort) == 0; }));
}

/** A flood on the wire, with something else in between, at a pace that the wire takes. */
struct Limit {
    uint32_t pps;
    const char *mode;
};

void PrintTo(const Limit &limit, std::ostream *out)
{
    *out << limit.pps << " pps, " << limit.mode;
}

class Flood : public PlatformOnWire, public testing::WithParamInterface<Limit>
{
protected:
    struct Seen {
        unsigned offered, arrived;
        double seconds;
    };

    /** @param offeredPerMs flood frames per millisecond */
    Seen flood(std::chrono::milliseconds duration, unsigned offeredPerMs)
    {
        Seen seen{};
        const auto begin = Clock::now();
        auto next = begin;
        while (next < begin + duration) {
            seen.offered += sender.send(arp, offeredPerMs);
            seen.arrived += receiver.received();
            next += 1ms;
            std::this_thread::sleep_until(next);
        }
        seen.arrived += receiver.received();
        seen.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        return seen;
    }

    void SetUp() override
    {
        PlatformOnWire::SetUp();
        if (IsSkipped())
            return;
        sender = PacketSocket(peerPort, 0x0806);
        receiver = PacketSocket(protectedPort, 0x0806);
        ASSERT_EQ(start(std::string("mode = \"") + GetParam().mode + "\"\n").result, 0);
        ASSERT_EQ(add(arpEntry(GetParam().pps)), 0);
    }

    PacketSocket sender, receiver;
};

TEST_P(Flood, IsHeldAtTheRate)
{
    const uint32_t pps = GetParam().pps;
    flood(300ms, 30); // the bucket is empty from here on
    auto before = readCounters(findCounters(protectedPort).get())[CPD_ARP];
    Seen seen = flood(2500ms, 30);
    auto after = readCounters(findCounters(protectedPort).get())[CPD_ARP];

    double rate = seen.arrived / seen.seconds;
    EXPECT_GT(seen.offered / seen.seconds, 2.0 * pps) << "no flood";
    EXPECT_NEAR(rate, pps, 0.1 * pps);
    EXPECT_EQ(after.passed_packets - before.passed_packets, seen.arrived);
    EXPECT_EQ(after.dropped_packets - before.dropped_packets, seen.offered - seen.arrived);
    std::printf("%u pps set: %.1f pps passed of %.0f offered\n", pps, rate,
                seen.offered / seen.seconds);
}

TEST_P(Flood, LeavesOtherTypesAlone)
{
    PacketSocket trickle(peerPort, 0x888e), arrivals(protectedPort, 0x888e);
    unsigned sent = 0, arrived = 0;
    for (int i = 0; i < 300; i++) {
        flood(1ms, 30);
        sent += trickle.send(eapol, 1);
        arrived += arrivals.received();
    }
    EXPECT_EQ(sent, 300u);
    EXPECT_TRUE(within(1s, [&] { return (arrived += arrivals.received()) >= sent; }));
    EXPECT_EQ(arrived, sent);
    auto counters = readCounters(findCounters(protectedPort).get());
    EXPECT_EQ(counters[CPD_DOT1X].passed_packets, sent);
    EXPECT_EQ(counters[CPD_DOT1X].dropped_packets, 0u);
    EXPECT_GT(counters[CPD_ARP].dropped_packets, 0u);
}

INSTANTIATE_TEST_SUITE_P(Pps, Flood,
                         testing::Values(Limit{50, "native"}, Limit{200, "native"},
                                         Limit{5000, "native"}, Limit{200, "generic"}),
                         [](const auto &each) {
                             return each.param.mode + std::to_string(each.param.pps);
                         });

} // namespace
