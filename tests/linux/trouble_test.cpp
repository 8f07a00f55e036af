/**
 * What the data plane owes its host when something goes wrong around it.
 */
#include <arpa/inet.h>
#include <csignal>
#include <optional>
#include <sys/wait.h>

#include "acls_on_wire.h"
#include "scarce.h"

using namespace zynlinux;
using namespace std::chrono_literals;

namespace
{

class Trouble : public AclsOnWire
{
protected:
    static std::string slots(int from, int count)
    {
        std::string text;
        for (int i = from; i < from + count; i++)
            text += "[[slot]]\nslot = " + std::to_string(i) + "\nports = [\"gone" +
                    std::to_string(i) + "\"]\n";
        return text;
    }

    int tableSets()
    {
        Descriptor map(bpf_obj_get((pinFolder + "/cpudefend_acls").c_str()));
        int count = 0;
        for (uint32_t i = 0; i < CPD_TABLE_SETS; i++) {
            uint32_t id = 0;
            count += bpf_map_lookup_elem(map.get(), &i, &id) == 0 && id != 0;
        }
        return count;
    }
};

TEST_F(Trouble, PortThatIsMadeAnewWithItsOldIndexIsProtectedAgain)
{
    ASSERT_EQ(startOnPort().result, 0);
    ASSERT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    std::string index = std::to_string(if_nametoindex(protectedPort));
    command("ip link del port0");
    command("ip link add port0 index " + index + " type veth peer name peer0");
    command("ip link set port0 arp off up && ip link set peer0 arp off up");
    EXPECT_TRUE(runUntil([] { return programOn(protectedPort) != 0; }));
    EXPECT_FALSE(arpArrives());
}

TEST_F(Trouble, OtherSlotsThanTheFormerDaemonsFitWhateverTheirNumber)
{
    leaveBehind("ports = [\"port0\"]\n" + slots(1, 20), [] {});
    Outcome outcome = start("ports = [\"port0\"]\n" + slots(101, 20));
    EXPECT_EQ(outcome.result, 0) << outcome.text;
}

TEST_F(Trouble, FailedStartLeavesAPortWhereItWas)
{
    leaveBehind("ports = [\"port0\"]\n", [] { set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    ASSERT_FALSE(arpArrives());
    Descriptor other = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex(peerPort)), other.get(), 0, nullptr),
              0);
    ASSERT_EQ(start("[[slot]]\nslot = 1\nports = [\"port0\"]\n[[slot]]\nslot = 2\n"
                    "ports = [\"peer0\"]\n")
                  .result,
              -1);
    EXPECT_FALSE(arpArrives());
}

TEST_F(Trouble, EntryThatWasRefusedIsNotThere)
{
    ASSERT_EQ(startOnPort().result, 0);
    {
        NoDescriptors none;
        EXPECT_NE(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    }
    EXPECT_EQ(set(nullptr, false, arpEntry(0, ZYN_HW_OP_DENY)), ENOENT);
}

TEST_F(Trouble, EntryThatWasRefusedDoesNotComeInForceLater)
{
    ASSERT_EQ(startOnPort().result, 0);
    {
        NoDescriptors none;
        EXPECT_NE(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    }
    auto other = arpEntry(5);
    other.pktType = 0;
    EXPECT_EQ(set(nullptr, true, other), 0);
    EXPECT_TRUE(arpArrives());
}

TEST_F(Trouble, ChangeThatCouldNotBePutInForceComesInForceByItself)
{
    ASSERT_EQ(startOnPort().result, 0);
    beQuiet();
    zynHwChangeBegin();
    EXPECT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    {
        NoDescriptors none;
        EXPECT_NE(zynHwChangeEnd(), 0);
    }
    EXPECT_TRUE(arpArrives());
    EXPECT_TRUE(runUntil([&] { return !arpArrives(); }));
}

TEST_F(Trouble, ChangeComesInForceByItselfAlsoWhenItFailsAgainAtFirst)
{
    ASSERT_EQ(startOnPort().result, 0);
    beQuiet();
    zynHwChangeBegin();
    EXPECT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    {
        NoDescriptors none;
        EXPECT_NE(zynHwChangeEnd(), 0);
    }
    pollfd ready{zynPlatformFd(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 5000), 1);
    {
        NoDescriptors none;
        runPlatform();
    }
    EXPECT_TRUE(arpArrives());
    EXPECT_TRUE(runUntil([&] { return !arpArrives(); }));
}

TEST_F(Trouble, MoreAddressesThanFitDoNotKeepTheDaemonFromStarting)
{
    {
        std::ofstream batch("/tmp/addresses");
        for (int i = 0; i < 4200; i++)
            batch << "addr add 10.1." << i / 200 << "." << i % 200 + 1 << "/32 dev port0\n";
    }
    command("ip -batch /tmp/addresses");
    Outcome outcome = startOnPort();
    EXPECT_EQ(outcome.result, 0) << outcome.text;
}

TEST_F(Trouble, GraceTimeEndsAlsoWhenAddressesDoNotFit)
{
    leaveBehind("ports = [\"port0\"]\n", [] { set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    ASSERT_EQ(startOnPort("grace = 1\n").result, 0);
    {
        std::ofstream batch("/tmp/addresses");
        for (int i = 0; i < 4200; i++)
            batch << "addr add 10.1." << i / 200 << "." << i % 200 + 1 << "/32 dev port0\n";
    }
    command("ip -batch /tmp/addresses");
    std::this_thread::sleep_for(1200ms); // both are due in one run
    runPlatform();
    EXPECT_TRUE(arpArrives());
}

constexpr char acl[] = "[[acl]]\nnumber = 100\nfamily = \"ipv4\"\n"
                       "rules = [\"permit udp 192.0.2.0/24 any port 5000\"]\n";

TEST_F(Trouble, TablesOfFormerSlotsAreGivenBack)
{
    leaveBehind(std::string("ports = [\"port0\"]\n") + acl +
                    "[[acl]]\nnumber = 101\nfamily = \"ipv4\"\nrules = [\"permit ip any any\"]\n" +
                    slots(1, 2),
                [] {
                    tSlotIndex one{0, 1, 0}, two{0, 2, 0};
                    acl_cpudefend_add(&one, 100, ZYN_HW_OP_DENY, 0, 0, 0);
                    acl_cpudefend_add(&two, 101, ZYN_HW_OP_DENY, 0, 0, 0);
                });
    EXPECT_GE(tableSets(), 2);
    ASSERT_EQ(startOnPort().result, 0);
    EXPECT_EQ(tableSets(), 0);
}

TEST_F(Trouble, ListsAreTakenAnewWhileNoneIsBound)
{
    PlatformFile file("pin = \"" + pinFolder + "\"\nports = [\"port0\"]\n" + acl);
    ASSERT_EQ(init().result, 0);
    EXPECT_EQ(reload(), "[platform] ACLs are those of " + file.path() + " now\n");
}

TEST_F(Trouble, ListsAreTakenAnewWhileOneOfTwoPlacesHasSome)
{
    PlatformFile file("pin = \"" + pinFolder + "\"\nports = [\"port0\"]\n" + acl + slots(1, 1));
    ASSERT_EQ(init().result, 0);
    tSlotIndex slot{0, 1, 0};
    ASSERT_EQ(acl_cpudefend_add(&slot, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
    EXPECT_EQ(reload(), "[platform] ACLs are those of " + file.path() + " now\n");
}

TEST_F(Trouble, MessageOfAReloadIsTrueWhenThePolicyCouldNotBeMade)
{
    PlatformFile file("pin = \"" + pinFolder + "\"\nports = [\"port0\"]\n" + acl);
    ASSERT_EQ(init().result, 0);
    ASSERT_EQ(acl_cpudefend_add(nullptr, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
    beQuiet();
    EXPECT_EQ(reload().find("couldn't"), std::string::npos);
    for (int i = 0; i < 70; i++) {
        Heard heard;
        {
            OneDescriptor one; // the file, then the tables, not the policy
            reload(heard);
        }
        const std::string &told = heard.text();
        EXPECT_TRUE(told.find("couldn't") == std::string::npos ||
                    told.find("are those of") == std::string::npos)
            << told;
    }
    EXPECT_LE(tableSets(), 3);
    EXPECT_EQ(acl_cpudefend_add(nullptr, 100, ZYN_HW_OP_PERMIT, 8, 6400, 0), 0);
    EXPECT_EQ(reload().find("couldn't"), std::string::npos);
}

TEST_F(Trouble, TablesOfPoliciesThatCouldNotBeMadeAreGivenBack)
{
    PlatformFile file("pin = \"" + pinFolder + "\"\nports = [\"port0\"]\n" + acl + slots(1, 1));
    ASSERT_EQ(init().result, 0);
    const tSlotIndex slot{0, 1, 0};
    ASSERT_EQ(acl_cpudefend_add(nullptr, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
    ASSERT_EQ(acl_cpudefend_add(&slot, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
    beQuiet();
    EXPECT_EQ(reload().find("couldn't"), std::string::npos);
    for (int i = 0; i < 8; i++) {
        Heard heard;
        {
            OneDescriptor one; // enough for the tables and a policy, not for the other's
            reload(heard);
        }
        const std::string &told = heard.text();
        EXPECT_NE(told.find("couldn't put what was programmed in force"), std::string::npos)
            << told;
    }
    EXPECT_LE(tableSets(), 3);
}

TEST_F(Trouble, FailedStartOfAnotherLayoutsSuccessorLeavesTheProtectionAsItWas)
{
    leaveBehind("ports = [\"port0\"]\n", [] { set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    Descriptor info(bpf_obj_get((pinFolder + "/cpudefend_info").c_str()));
    auto other = std::make_unique<cpd_info>();
    uint32_t key = 0;
    ASSERT_EQ(bpf_map_lookup_elem(info.get(), &key, other.get()), 0);
    other->layout++;
    ASSERT_EQ(bpf_map_update_elem(info.get(), &key, other.get(), BPF_ANY), 0);
    Descriptor foreign = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex(peerPort)), foreign.get(), 0, nullptr),
              0);
    ASSERT_EQ(start("ports = [\"peer0\", \"port0\"]\n").result, -1);
    EXPECT_NE(programOn(protectedPort), 0u);
    EXPECT_FALSE(arpArrives());
}

TEST_F(Trouble, RefusedChangesUseUpNeitherPolicersNorTokens)
{
    ASSERT_EQ(startOnPort().result, 0);
    ASSERT_EQ(set(nullptr, true, arpEntry(1)), 0); // two at once
    testing::internal::CaptureStderr();
    {
        NoDescriptors none;
        for (int i = 0; i < CPD_POLICERS; i++)
            ASSERT_NE(set(nullptr, true, arpEntry(2)), 0);
    }
    EXPECT_TRUE(arpArrives());
    EXPECT_TRUE(arpArrives());
    EXPECT_FALSE(arpArrives());
    EXPECT_EQ(set(nullptr, true, arpEntry(3)), 0);
    testing::internal::GetCapturedStderr();
}

TEST_F(Trouble, PortThatCannotBeProtectedIsSaidOnceAndNotWithEveryEvent)
{
    ASSERT_EQ(start("ports = [\"port0\", \"late0\"]\n").result, 0);
    command("ip link add late0 type veth peer name late1");
    Descriptor foreign = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex("late0")), foreign.get(), 0, nullptr),
              0);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 5; i++) {
        command("ip link set peer0 mtu " + std::to_string(1400 + i));
        beQuiet();
    }
    std::string told = testing::internal::GetCapturedStderr();
    size_t said = 0;
    for (size_t at = 0; (at = told.find("couldn't", at)) != std::string::npos; at++)
        said++;
    EXPECT_EQ(said, 1u) << told;
}

TEST_F(Trouble, ModeOfThePlatformFileHoldsAfterATakeOver)
{
    leaveBehind("ports = [\"port0\"]\nmode = \"generic\"\n", [] {});
    Outcome outcome = startOnPort("mode = \"native\"\n");
    ASSERT_EQ(outcome.result, 0) << outcome.text;
    EXPECT_NE(outcome.text.find("native"), std::string::npos) << outcome.text;
}

TEST_F(Trouble, ListThatOnlyDeniesCanBeBound)
{
    ASSERT_EQ(startOnPort("[[acl]]\nnumber = 7\nfamily = \"ipv4\"\nrules = [\"deny ip any any\"]\n")
                  .result,
              0);
    EXPECT_EQ(acl_cpudefend_add(nullptr, 7, ZYN_HW_OP_DENY, 0, 0, 0), 0);
}

TEST_F(Trouble, PortThatWasMovedAwayDoesNotStandForItsNamesake)
{
    leaveBehind("ports = [\"port0\"]\n", [] { set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    std::string index = std::to_string(if_nametoindex(protectedPort));
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    pid_t elsewhere = fork();
    if (elsewhere == 0) {
        (void)!(unshare(CLONE_NEWNET) == 0 && write(ready[1], "", 1));
        for (;;)
            pause();
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    command("ip link set port0 netns " + std::to_string(elsewhere));
    command("ip link add port0 index " + index + " type veth peer name peer1");
    command("ip link set port0 arp off up && ip link set peer1 arp off up");
    EXPECT_EQ(startOnPort().result, 0);
    EXPECT_NE(programOn(protectedPort), 0u);
    kill(elsewhere, SIGKILL);
    waitpid(elsewhere, nullptr, 0);
}

TEST_F(Trouble, NeighbourOfA31BitNetworkIsNoAddressOfTheHost)
{
    command("ip addr add 198.51.100.2/31 dev port0");
    ASSERT_EQ(startOnPort(acl).result, 0);
    Descriptor map(bpf_obj_get((pinFolder + "/cpudefend_local").c_str()));
    uint8_t key[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 198, 51, 100, 3}, there = 0;
    EXPECT_NE(bpf_map_lookup_elem(map.get(), key, &there), 0);
}

TEST_F(Trouble, PortByAnAlternativeNameHasItsPlace)
{
    command("ip link property add dev port0 altname longer0");
    ASSERT_EQ(start("[[slot]]\nslot = 4\nports = [\"longer0\"]\n").result, 0);
    ASSERT_NE(programOn(protectedPort), 0u);
    tPhyIfInfo info{};
    EXPECT_EQ(sysIndexTrans(if_nametoindex(protectedPort), SYS_INDEX_TRANS_PHY, &info), 0);
}

TEST_F(Trouble, UnbindingManySlotsIsQuick)
{
    ASSERT_EQ(start("ports = [\"port0\"]\n" + slots(1, 31)).result, 0);
    zynHwChangeBegin();
    for (uint32_t i = 1; i <= 31; i++) {
        tSlotIndex slot{0, i, 0};
        EXPECT_EQ(set(&slot, true, arpEntry(7)), 0);
    }
    auto begin = Clock::now();
    zynHwChangeEnd();
    auto bound = Clock::now();
    zynHwChangeBegin();
    for (uint32_t i = 1; i <= 31; i++) {
        tSlotIndex slot{0, i, 0};
        EXPECT_EQ(set(&slot, false, arpEntry(7)), 0);
    }
    auto unbind = Clock::now();
    zynHwChangeEnd();
    auto end = Clock::now();
    std::printf("bind %.1f ms, unbind %.1f ms\n",
                std::chrono::duration<double, std::milli>(bound - begin).count(),
                std::chrono::duration<double, std::milli>(end - unbind).count());
    EXPECT_LT(end - unbind, 200ms);
}

} // namespace
