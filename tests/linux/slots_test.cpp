/**
 * Slots and ACLs on the wire; ports that come and go.
 */
#include <csignal>
#include <optional>

#include "acls_on_wire.h"
#include "kernel/counters.h"

using namespace zynlinux;
using namespace std::chrono_literals;

namespace
{

constexpr tSlotIndex first{0, 1, 0}, second{1, 2, 0};

class Slots : public LayerOnWire
{
protected:
    void SetUp() override
    {
        LayerOnWire::SetUp();
        if (IsSkipped())
            return;
        wire("a");
        wire("b");
    }

    /** A port and its peer: a0 and a1. */
    static void wire(const std::string &name)
    {
        command("ip link add " + name + "0 type veth peer name " + name + "1");
        command("ip link set " + name + "0 arp off up");
        command("ip link set " + name + "1 arp off up");
    }

    Outcome startSlots(const std::string &more = "")
    {
        return start("ports = [\"port0\"]\n" + more +
                     "[[slot]]\nslot = 1\nports = [\"a0\"]\n"
                     "[[slot]]\nsys = 1\nslot = 2\nports = [\"b0\"]\n");
    }

    bool arpPasses(const std::string &wire) const
    {
        return arpArrives((wire + "1").c_str(), (wire + "0").c_str());
    }
};

TEST_F(Slots, EachHasEntriesOfItsOwn)
{
    ASSERT_EQ(startSlots().result, 0);
    EXPECT_EQ(set(&first, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    EXPECT_FALSE(arpPasses("a"));
    EXPECT_TRUE(arpPasses("b"));
    EXPECT_TRUE(arpArrives());
    EXPECT_EQ(set(&second, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    EXPECT_EQ(set(&first, false, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    EXPECT_TRUE(arpPasses("a"));
    EXPECT_FALSE(arpPasses("b"));
    EXPECT_EQ(set(&first, false, arpEntry(0, ZYN_HW_OP_DENY)), ENOENT);
}

TEST_F(Slots, SystemEntriesDoNotReachThem)
{
    ASSERT_EQ(startSlots().result, 0);
    EXPECT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    EXPECT_FALSE(arpArrives());
    EXPECT_TRUE(arpPasses("a"));
    EXPECT_TRUE(arpPasses("b"));
}

TEST_F(Slots, EachHasPolicersAndCountersOfItsOwn)
{
    ASSERT_EQ(startSlots().result, 0);
    auto entry = arpEntry(1); // two at once
    EXPECT_EQ(set(&first, true, entry), 0);
    EXPECT_EQ(set(&second, true, entry), 0);
    PacketSocket("a1", 0x0806).send(arp, 5);
    PacketSocket("b1", 0x0806).send(arp, 9);
    tHwCpuDefendPktCarEntry a{}, b{};
    EXPECT_TRUE(within(2s, [&] {
        auto count = [&](const tSlotIndex &slot, tHwCpuDefendPktCarEntry &sum) {
            auto more = entry;
            EXPECT_EQ(zynHwCarCount(&slot, &more), 0);
            sum.PassPkt.low += more.PassPkt.low;
            sum.DropPkt.low += more.DropPkt.low;
            return sum.PassPkt.low + sum.DropPkt.low;
        };
        uint32_t atFirst = count(first, a), atSecond = count(second, b);
        return atFirst == 5 && atSecond == 9;
    }));
    EXPECT_LE(a.PassPkt.low, 4u); // two, and what came in a second or two
    EXPECT_GE(a.PassPkt.low, 2u);
    EXPECT_LE(b.PassPkt.low, 4u);
    EXPECT_GE(b.PassPkt.low, 2u);
}

TEST_F(Slots, PortsOfOneSlotShareItsPolicers)
{
    ASSERT_EQ(start("[[slot]]\nslot = 1\nports = [\"a0\", \"b0\"]\n").result, 0);
    EXPECT_EQ(set(&first, true, arpEntry(1)), 0);
    PacketSocket atA("a0", 0x0806), atB("b0", 0x0806);
    PacketSocket("a1", 0x0806).send(arp, 10);
    PacketSocket("b1", 0x0806).send(arp, 10);
    auto entry = arpEntry(1);
    uint32_t dropped = 0;
    EXPECT_TRUE(within(2s, [&] {
        EXPECT_EQ(zynHwCarCount(&first, &entry), 0);
        dropped += entry.DropPkt.low;
        return dropped >= 16;
    }));
    EXPECT_LE(atA.received() + atB.received(), 4u);
}

TEST_F(Slots, PortInNoSlotIsWarnedOfByName)
{
    Outcome outcome = startSlots();
    EXPECT_NE(outcome.text.find("[platform] warning: port port0 is in no slot; while a slot has "
                                "ports, nothing is programmed for it\n"),
              std::string::npos)
        << outcome.text;
    EXPECT_EQ(outcome.text.find("warning: port a0"), std::string::npos);
    EXPECT_EQ(startOnPort().text.find("warning"), std::string::npos);
}

TEST_F(Slots, PortThatComesLaterIsProtectedWithWhatIsInForceThere)
{
    command("ip link del a0");
    Outcome outcome = startSlots();
    ASSERT_EQ(outcome.result, 0);
    EXPECT_NE(outcome.text.find("[platform] port a0 is not there yet\n"), std::string::npos);
    EXPECT_EQ(set(&first, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    wire("a");
    EXPECT_TRUE(runUntil([] { return programOn("a0") != 0; }));
    EXPECT_FALSE(arpPasses("a"));
}

TEST_F(Slots, PortThatGoesAndComesBackIsProtectedAgain)
{
    ASSERT_EQ(startSlots().result, 0);
    EXPECT_EQ(set(&first, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    for (int i = 0; i < 3; i++) {
        command("ip link del a0");
        wire("a");
        EXPECT_TRUE(runUntil([] { return programOn("a0") != 0; }));
        EXPECT_FALSE(arpPasses("a"));
    }
}

TEST_F(Slots, PortThatHasGoneIsStillTranslated)
{
    ASSERT_EQ(startSlots().result, 0);
    uint32_t unit = if_nametoindex("b0");
    command("ip link del b0");
    tPhyIfInfo info{};
    EXPECT_EQ(sysIndexTrans(unit, SYS_INDEX_TRANS_PHY, &info), 0);
    EXPECT_EQ(info.unit, 1u);
    EXPECT_EQ(info.slot, 2u);
}

TEST_F(Slots, RenamedPortIsTheOneWhoseNameItBears)
{
    ASSERT_EQ(startSlots().result, 0);
    uint32_t unit = if_nametoindex("b0");
    command("ip link set b0 down && ip link set b0 name other && ip link set other up");
    EXPECT_TRUE(runUntil([] { return programOn("other") == 0; }));
    tPhyIfInfo info{};
    EXPECT_EQ(sysIndexTrans(unit, SYS_INDEX_TRANS_PHY, &info), ENODEV);
}

/* ---- ACLs ----------------------------------------------------------------------------- */

class Acls : public AclsOnWire
{
protected:
    Outcome startWith(const std::string &lists) { return startOnPort(lists); }

    static std::string doesNotFit(uint16_t number)
    {
        return "[platform] ACL " + std::to_string(number) +
               " (deny) is not put in force on the system: with those before it, its tables do "
               "not fit\n";
    }
};

TEST_F(Acls, DenyDropsWhatTheListSelects)
{
    ASSERT_EQ(startWith(acls).result, 0);
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    EXPECT_EQ(bind(100), 0);
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(udpArrives("192.0.2.7", 5001));
    EXPECT_TRUE(udpArrives("192.0.3.7", 5000));
    EXPECT_EQ(acl_cpudefend_del(nullptr, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    EXPECT_EQ(acl_cpudefend_del(nullptr, 100, ZYN_HW_OP_DENY, 0, 0, 0), ENOENT);
}

TEST_F(Acls, FirstEntryThatSelectsDecides)
{
    ASSERT_EQ(startWith(acls).result, 0);
    EXPECT_EQ(bind(101, ZYN_HW_OP_PERMIT, 1000, 6400), 0);
    EXPECT_EQ(bind(100), 0);
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));    // 101 comes first
    EXPECT_FALSE(udpArrives("192.0.2.1", 5000));   // which does not select this one
    EXPECT_FALSE(udpArrives("192.0.2.200", 5000)); // nor this
}

TEST_F(Acls, WhatAnAclPermitsIsNotHeldByItsTypesEntry)
{
    ASSERT_EQ(startWith("[[acl]]\nnumber = 1\nfamily = \"ipv4\"\n"
                        "rules = [\"permit udp 192.0.2.1 any port 161\"]\n")
                  .result,
              0);
    auto entry = arpEntry(0, ZYN_HW_OP_DENY);
    entry.pktType = 16; // SNMP
    EXPECT_EQ(set(nullptr, true, entry), 0);
    EXPECT_FALSE(udpArrives("192.0.2.1", 161));
    EXPECT_EQ(bind(1, ZYN_HW_OP_PERMIT, 1000, 6400), 0);
    EXPECT_TRUE(udpArrives("192.0.2.1", 161));
    EXPECT_FALSE(udpArrives("192.0.2.2", 161));
}

TEST_F(Acls, RateHoldsForTheBoxAloneAndNotForWhatItForwards)
{
    command("ip addr add 198.51.100.1/24 dev port0");
    ASSERT_EQ(startWith(acls).result, 0);
    EXPECT_EQ(bind(100, ZYN_HW_OP_PERMIT, 0, 0), 0); // a rate of 0: nothing passes
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000, "198.51.100.1"));
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000, "198.51.100.255"));
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000, "224.0.0.5"));
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000, "198.51.100.2"));
    command("ip addr add 198.51.100.2/24 dev port0");
    EXPECT_TRUE(runUntil([] { return !udpArrives("192.0.2.7", 5000, "198.51.100.2"); }));
}

TEST_F(Acls, UnknownNumberIsNoEntry)
{
    ASSERT_EQ(startWith(acls).result, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(bind(102), ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[platform] ACL 102 (deny) is not put in force on the system: the platform file has "
              "no such list\n");
    EXPECT_EQ(acl_cpudefend_del(nullptr, 102, ZYN_HW_OP_DENY, 0, 0, 0), ENOENT);
}

TEST_F(Acls, MoreThanAPlaceHoldsAreRefused)
{
    ASSERT_EQ(startWith(acls).result, 0);
    zynHwChangeBegin();
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(bind(static_cast<uint16_t>(100 + i % 2)), 0);
    EXPECT_EQ(bind(100), ENOSPC);
    zynHwChangeEnd();
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
}

TEST_F(Acls, ListThatDoesNotFitIsRefused)
{
    ASSERT_EQ(startWith(acls + hugeList(102)).result, 0);
    EXPECT_EQ(bind(100), 0);
    {
        Heard heard;
        EXPECT_EQ(bindAtLast(102), ENOSPC);
        EXPECT_TRUE(heard.has(doesNotFit(102))) << heard.text();
    }
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(udpArrives("10.0.0.5", 5000));
    EXPECT_EQ(acl_cpudefend_del(nullptr, 102, ZYN_HW_OP_DENY, 0, 0, 0), ENOENT);
}

TEST_F(Acls, ListThatDoesNotFitTakesNotThePlaceOfWhatWasLeft)
{
    leaveBehind(std::string("ports = [\"port0\"]\n") + acls, [] { bind(100); });
    ASSERT_EQ(startWith(acls + hugeList(102)).result, 0);
    EXPECT_EQ(bindAtLast(102), ENOSPC);
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
}

TEST_F(Acls, OfAChangeThoseBeforeOneThatDoesNotFitComeInForce)
{
    ASSERT_EQ(startWith(acls + hugeList(102)).result, 0);
    zynHwChangeBegin();
    for (uint16_t number : {100, 102, 101})
        EXPECT_EQ(bind(number), 0);
    Heard heard;
    EXPECT_EQ(zynHwChangeEnd(), 0);
    EXPECT_TRUE(runUntil([&] { return heard.has(doesNotFit(101) + doesNotFit(102)); }))
        << heard.text();
    tHwDropped dropped{};
    for (uint32_t i : {0, 1}) {
        EXPECT_EQ(zynHwDropped(i, &dropped), 0);
        EXPECT_EQ(dropped.acl, 101 + i) << "the newest first";
        EXPECT_EQ(dropped.action, uint32_t{ZYN_HW_OP_DENY});
        EXPECT_EQ(dropped.result, ENOSPC);
        EXPECT_TRUE(dropped.isAcl && !dropped.isSlot);
    }
    EXPECT_EQ(zynHwDropped(2, &dropped), ENOENT);
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(udpArrives("192.0.2.7", 5001)); // 101 would have dropped it
    EXPECT_TRUE(udpArrives("10.0.0.5", 5000));
    for (uint16_t number : {102, 101})
        EXPECT_EQ(acl_cpudefend_del(nullptr, number, ZYN_HW_OP_DENY, 0, 0, 0), ENOENT);
    EXPECT_EQ(bind(101), 0);
    EXPECT_FALSE(udpArrives("192.0.2.7", 5001));
}

TEST_F(Slots, WhatIsDroppedAtOneIsToldOfIt)
{
    ASSERT_EQ(startSlots(acls + hugeList(102)).result, 0);
    zynHwChangeBegin();
    EXPECT_EQ(acl_cpudefend_add(nullptr, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
    EXPECT_EQ(acl_cpudefend_add(&second, 100, ZYN_HW_OP_DENY, 0, 0, 0), 0);
    EXPECT_EQ(acl_cpudefend_add(&second, 102, ZYN_HW_OP_PERMIT, 16, 6400, 6401), 0);
    Heard heard;
    EXPECT_EQ(zynHwChangeEnd(), 0);
    EXPECT_TRUE(runUntil([&] {
        return heard.has("[platform] ACL 102 (permit) is not put in force on slot 1/2: with those "
                         "before it, its tables do not fit\n");
    })) << heard.text();
    tHwDropped dropped{};
    EXPECT_EQ(zynHwDropped(0, &dropped), 0);
    EXPECT_EQ(zynHwDropped(1, &dropped), ENOENT);
    EXPECT_TRUE(dropped.isSlot && dropped.isAcl);
    EXPECT_EQ(dropped.slot.sys, second.sys);
    EXPECT_EQ(dropped.slot.slot, second.slot);
    EXPECT_EQ(dropped.slot.type, 0);
    EXPECT_EQ(dropped.acl, 102);
    EXPECT_EQ(dropped.action, uint32_t{ZYN_HW_OP_PERMIT});
    EXPECT_EQ(dropped.cir, 16u);
    EXPECT_EQ(dropped.cbs, 6400u);
    EXPECT_EQ(dropped.ebs, 6401u);
    zynHwChangeBegin();
    EXPECT_EQ(zynHwDropped(0, &dropped), ENOENT) << "that was the change before";
    zynHwChangeEnd();
}

TEST_F(Slots, EntriesThatAreRefusedAreSaidWithTheReason)
{
    ASSERT_EQ(startSlots().result, 0);
    const tSlotIndex nowhere{1, 77, 0};
    auto entry = arpEntry(5);
    testing::internal::CaptureStderr();
    EXPECT_EQ(set(&nowhere, true, entry), ENODEV);
    entry.pktType = 58;
    EXPECT_EQ(set(&first, true, entry), ENOTSUP);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[platform] CAR entry for packet type 1 (permit) is not put in force on slot 1/77: "
              "the platform file has no such slot\n"
              "[platform] CAR entry for packet type 58 (permit) is not put in force on slot 0/1: "
              "no frame is of this type\n");
}

class Reload : public Acls
{
protected:
    /** Start from a file that can be changed. */
    void SetUp() override
    {
        Acls::SetUp();
        if (IsSkipped())
            return;
        rewrite(acls);
        ASSERT_EQ(init().result, 0);
        ASSERT_EQ(bind(100), 0);
    }

    void rewrite(const std::string &lists)
    {
        file.reset();
        file.emplace("pin = \"" + pinFolder + "\"\nports = [\"port0\"]\n" + lists);
    }

    std::optional<PlatformFile> file;
};

TEST_F(Reload, BoundAclsJudgeByTheNewRules)
{
    rewrite("[[acl]]\nnumber = 100\nfamily = \"ipv4\"\nrules = [\"permit ip 192.0.2.9 any\"]\n");
    EXPECT_EQ(reload(), "[platform] ACLs are those of " + file->path() + " now\n");
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    EXPECT_FALSE(udpArrives("192.0.2.9", 1));
}

TEST_F(Reload, WrongFileChangesNothingAndTheLineIsSaid)
{
    rewrite("[[acl]]\nnumber = 100\nfamily = \"ipv4\"\nrules = [\n\"permit ip 192.0.2.9 any\",\n"
            "\"permit tcp any port 70000 any\"]\n");
    std::string told = reload();
    EXPECT_NE(told.find("line 8: "), std::string::npos) << told;
    EXPECT_NE(told.find("the ACLs stay as they were\n"), std::string::npos) << told;
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_TRUE(udpArrives("192.0.2.9", 1));
}

TEST_F(Reload, BoundAclThatIsMissingChangesNothing)
{
    rewrite("[[acl]]\nnumber = 200\nfamily = \"ipv4\"\nrules = [\"permit ip any any\"]\n");
    std::string told = reload();
    EXPECT_NE(told.find("the ACLs stay as they were\n"), std::string::npos) << told;
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_EQ(bind(200), ENOENT);
}

TEST_F(Reload, ListsThatDoNotFitChangeNothing)
{
    ASSERT_EQ(bind(101), 0);
    rewrite(hugeList(100) + "[[acl]]\nnumber = 101\nfamily = \"ipv4\"\n"
                            "rules = [\"permit ip 192.0.3.0/24 any\"]\n");
    EXPECT_EQ(reload(), "couldn't take the new ACLs: those that are bound together do not fit; "
                        "the ACLs stay as they were\n");
    EXPECT_FALSE(udpArrives("192.0.2.7", 5000));
    EXPECT_FALSE(udpArrives("192.0.2.7", 5001));
    EXPECT_TRUE(udpArrives("192.0.3.7", 5000));
    EXPECT_TRUE(udpArrives("10.0.0.5", 5000));
    rewrite(acls);
    EXPECT_EQ(reload(), "[platform] ACLs are those of " + file->path() + " now\n");
    for (uint16_t number : {100, 101})
        EXPECT_EQ(acl_cpudefend_del(nullptr, number, ZYN_HW_OP_DENY, 0, 0, 0), 0);
}

} // namespace
