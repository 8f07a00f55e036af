/**
 * What happens on the network, and what it costs the layer to keep up with it.
 */
#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <thread>

#include <arpa/inet.h>
#include <dirent.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/ioctl.h>
#include <sys/select.h>

#include "layer_on_wire.h"

using namespace std::chrono_literals;

namespace
{

/** What is asked of the kernel, counted; and what it says to that. */
struct {
    unsigned links;     /**< lists of all links */
    unsigned addresses; /**< lists of all addresses */
    unsigned rules;     /**< lists of routing rules, and of all tables with them */
    unsigned programs;  /**< questions for one port's program */
    unsigned attached;  /**< programs put on a port */

    bool isDeaf;     /**< no list can be asked for */
    bool interrupts; /**< lists are empty, for something came or went meanwhile */
    bool takesLong;  /**< to put a program on a port */
} kernel;

} // namespace

// The linker puts the second of each in the place of the first.
extern "C" ssize_t __real_sendto(int, const void *, size_t, int, const sockaddr *, socklen_t);
extern "C" ssize_t __wrap_sendto(int fd, const void *message, size_t length, int flags,
                                 const sockaddr *to, socklen_t toLength)
{
    const auto *header = static_cast<const nlmsghdr *>(message);
    if (!to || to->sa_family != AF_NETLINK)
        return __real_sendto(fd, message, length, flags, to, toLength);
    if (kernel.isDeaf) {
        errno = ENOMEM;
        return -1;
    }
    kernel.links += header->nlmsg_type == RTM_GETLINK;
    kernel.addresses += header->nlmsg_type == RTM_GETADDR;
    kernel.rules += header->nlmsg_type == RTM_GETRULE;
    return __real_sendto(fd, message, length, flags, to, toLength);
}

extern "C" ssize_t __real_recvfrom(int, void *, size_t, int, sockaddr *, socklen_t *);
extern "C" ssize_t __wrap_recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *from,
                                   socklen_t *fromLength)
{
    const ssize_t got = __real_recvfrom(fd, buffer, size, flags, from, fromLength);
    if (!kernel.interrupts || !from || from->sa_family != AF_NETLINK)
        return got;
    auto left = static_cast<int>(got);
    for (auto *each = static_cast<nlmsghdr *>(buffer); NLMSG_OK(each, left);
         each = NLMSG_NEXT(each, left)) {
        each->nlmsg_flags |= NLM_F_DUMP_INTR;
        if (each->nlmsg_type != NLMSG_DONE)
            each->nlmsg_type = NLMSG_NOOP;
    }
    return got;
}

extern "C" int __real_bpf_xdp_query_id(int, int, __u32 *);
extern "C" int __wrap_bpf_xdp_query_id(int ifindex, int flags, __u32 *id)
{
    kernel.programs++;
    return __real_bpf_xdp_query_id(ifindex, flags, id);
}

extern "C" int __real_bpf_link_create(int, int, bpf_attach_type, const bpf_link_create_opts *);
extern "C" int __wrap_bpf_link_create(int program, int target, bpf_attach_type type,
                                      const bpf_link_create_opts *options)
{
    kernel.attached++;
    if (kernel.takesLong)
        std::this_thread::sleep_for(15ms);
    return __real_bpf_link_create(program, target, type, options);
}

namespace
{

/** Changes the address of the peer's port, a thousand times a second. */
class AddressEvents
{
public:
    AddressEvents()
        : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), thread_([this] { run(); })
    {
    }
    ~AddressEvents()
    {
        stop_ = true;
        thread_.join();
    }

    unsigned count() const { return count_; }

private:
    void run()
    {
        for (; !stop_; count_++) {
            ifreq request{};
            std::strcpy(request.ifr_name, peerPort);
            auto *address = reinterpret_cast<sockaddr_in *>(&request.ifr_addr);
            address->sin_family = AF_INET;
            address->sin_addr.s_addr = htonl(0x0a000001 + count_ % 200);
            if (ioctl(socket_.get(), SIOCSIFADDR, &request) != 0)
                return;
            std::this_thread::sleep_for(1ms);
        }
    }

    zynlinux::Descriptor socket_;
    std::atomic<bool> stop_{false};
    std::atomic<unsigned> count_{0};
    std::thread thread_;
};

class Network : public LayerOnWire
{
protected:
    void SetUp() override
    {
        kernel = {};
        LayerOnWire::SetUp();
    }
    void TearDown() override
    {
        kernel = {};
        LayerOnWire::TearDown();
    }

    /** Count from now on. */
    void begin()
    {
        beQuiet();
        kernel = {};
        begin_ = Clock::now();
    }

    /** How often something can have been done since begin() that is done once in a time. */
    unsigned onceIn(std::chrono::milliseconds time) const
    {
        return static_cast<unsigned>((Clock::now() - begin_) / time) + 2;
    }

    static void wire(const std::string &port)
    {
        command("ip link add " + port + " type veth peer name p" + port);
    }

    bool isKnown(const std::string &text) const
    {
        zynlinux::Descriptor map(bpf_obj_get((pinFolder + "/cpudefend_local").c_str()));
        in6_addr address;
        uint8_t value;
        EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), &address), 1) << text;
        return bpf_map_lookup_elem(map.get(), &address, &value) == 0;
    }

private:
    Clock::time_point begin_;
};

TEST_F(Network, AddressEventsCostAListOfAddressesInFiftyMilliseconds)
{
    ASSERT_EQ(startOnPort().result, 0);
    begin();
    {
        AddressEvents events;
        EXPECT_TRUE(runUntil([&] { return events.count() >= 500; }));
    }
    EXPECT_GE(kernel.addresses, 2u);
    EXPECT_LE(kernel.addresses, onceIn(50ms));
    EXPECT_LE(kernel.links, onceIn(1s)); // as without events
    EXPECT_EQ(kernel.programs, 0u);
    EXPECT_EQ(kernel.rules, 0u) << "other tables may be long";
    command("ip addr add 192.0.2.5/24 dev port0");
    EXPECT_TRUE(runUntil([&] { return isKnown("::ffff:192.0.2.5"); }));
}

/** Has ip do something with many routes of a table. */
void batch(const std::string &what, const std::string &more)
{
    {
        std::ofstream file("/tmp/routes");
        for (int i = 0; i < 2000; i++)
            file << "route " << what << " 10." << 64 + i / 256 << "." << i % 256
                 << ".0/24 dev port0 " << more << "\n";
    }
    command("ip -batch /tmp/routes");
}

TEST_F(Network, RoutesThatDeliverNothingHereCostNothing)
{
    command("ip rule add lookup 100 && ip -6 rule add lookup 100");
    ASSERT_EQ(startOnPort().result, 0);
    begin();
    for (const char *table : {"", "table 100"})
        for (const char *what : {"add", "replace", "del"})
            batch(what, table);
    command("ip route add local 192.0.2.5/32 dev lo"); // what is known last
    EXPECT_TRUE(runUntil([&] { return isKnown("::ffff:192.0.2.5"); }));
    EXPECT_EQ(kernel.rules, 0u);
    EXPECT_EQ(kernel.addresses, 1u);
}

TEST_F(Network, RulesAndWhatTablesDeliverCostAListInFiftyMilliseconds)
{
    ASSERT_EQ(startOnPort().result, 0);
    begin();
    for (int i = 0; i < 20; i++) {
        command("ip rule add lookup 100 pref " + std::to_string(1000 + i));
        runUntil([] { return true; });
        command("ip route add local 192.0.2." + std::to_string(i) + "/32 dev port0 table 100");
        runUntil([] { return true; });
    }
    EXPECT_GE(kernel.rules, 2 * 2u);
    EXPECT_LE(kernel.rules, 2 * onceIn(50ms)); // a list of each family
    EXPECT_LE(kernel.addresses, onceIn(50ms));
}

TEST_F(Network, WhatTablesDeliverIsAskedForUntilItIsTold)
{
    command("ip rule add lookup 100");
    ASSERT_EQ(startOnPort().result, 0);
    beQuiet();
    kernel.isDeaf = true;
    command("ip route add local 192.0.2.5/32 dev port0 table 100");
    testing::internal::CaptureStderr();
    beQuiet();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("couldn't ask for the host's addresses"),
              std::string::npos);
    kernel.isDeaf = false;
    EXPECT_TRUE(runUntil([&] { return isKnown("::ffff:192.0.2.5"); })); // nothing else happens
}

TEST_F(Network, LinkEventsCostAListOfLinksInFiftyMilliseconds)
{
    ASSERT_EQ(start("ports = [\"port0\", \"late0\"]\n").result, 0);
    begin();
    for (int mtu = 1300; mtu < 1340; mtu++) {
        command("ip link set peer0 mtu " + std::to_string(mtu));
        runUntil([] { return true; });
    }
    EXPECT_GE(kernel.links, 2u);
    EXPECT_LE(kernel.links, onceIn(50ms) + onceIn(1s));
    EXPECT_EQ(kernel.programs, 0u) << "no port is asked for its program";
    wire("late0");
    EXPECT_TRUE(runUntil([] { return programOn("late0") != 0; }));
}

TEST_F(Network, MoreMessagesThanFindRoomAreHeardOf)
{
    ASSERT_EQ(start("ports = [\"port0\", \"late0\"]\n").result, 0);
    beQuiet();
    {
        std::ofstream batch("/tmp/links");
        for (int i = 0; i < 2000; i++)
            batch << "link set peer0 mtu " << 1300 + i % 2 << "\n";
        batch << "link add late0 type veth peer name late1\naddr add 192.0.2.5/24 dev port0\n";
    }
    command("ip -batch /tmp/links");
    EXPECT_TRUE(runUntil([] { return programOn("late0") != 0; }));
    EXPECT_TRUE(runUntil([&] { return isKnown("::ffff:192.0.2.5"); }));
}

TEST_F(Network, PortThatComesAmongEventsIsProtectedWithinATenthOfASecond)
{
    ASSERT_EQ(start("ports = [\"port0\", \"late0\"]\n").result, 0);
    AddressEvents events;
    std::array<Clock::duration, 9> took{};
    for (Clock::duration &each : took) {
        wire("late0");
        const auto came = Clock::now();
        ASSERT_TRUE(runUntil([] { return programOn("late0") != 0; }));
        each = Clock::now() - came;
        const std::string pin = pinFolder + "/link-" + std::to_string(if_nametoindex("late0"));
        command("ip link del late0");
        ASSERT_TRUE(runUntil([&] { return access(pin.c_str(), F_OK) != 0; }));
    }
    std::sort(took.begin(), took.end()); // other work on the machine may delay some
    EXPECT_LE(took[took.size() / 2], 100ms);
}

TEST_F(Network, ManyPortsThatComeAreProtectedALittleAtATime)
{
    std::string ports;
    for (int i = 0; i < 12; i++)
        ports += ", \"late" + std::to_string(i) + "\"";
    ASSERT_EQ(start("ports = [\"port0\"" + ports + "]\n").result, 0);
    beQuiet();
    for (int i = 0; i < 12; i += 2)
        command("ip link add late" + std::to_string(i) + " type veth peer name late" +
                std::to_string(i + 1));
    kernel = {};
    kernel.takesLong = true;
    unsigned most = 0;
    EXPECT_TRUE(within(5s, [&] {
        const unsigned before = kernel.attached;
        runPlatform();
        most = std::max(most, kernel.attached - before);
        return kernel.attached == 12;
    }));
    EXPECT_LE(most, 3u); // of 15 ms
    for (int i = 0; i < 12; i++)
        EXPECT_NE(programOn(("late" + std::to_string(i)).c_str()), 0u) << i;
}

TEST_F(Network, OnlyPortsThatComeOrGoMayHaveMoved)
{
    ASSERT_EQ(start("ports = [\"port0\", \"late0\"]\n").result, 0);
    beQuiet();
    auto moved = [] {
        EXPECT_TRUE(within(2s, [] {
            pollfd ready{zynPlatformFd(), POLLIN, 0};
            return poll(&ready, 1, 0) > 0;
        }));
        return runPlatform() != 0;
    };
    EXPECT_FALSE(moved()); // a second has gone by
    beQuiet();
    command("ip link set peer0 mtu 1400");
    EXPECT_FALSE(moved());
    beQuiet();
    wire("late0");
    EXPECT_TRUE(moved());
    beQuiet();
    command("ip link del late0");
    EXPECT_TRUE(moved());
}

TEST_F(Network, PortIsNotSetFreeBecauseTheKernelCouldNotBeAsked)
{
    command("ip addr add 198.51.100.2/24 dev port0");
    ASSERT_EQ(startOnPort().result, 0);
    ASSERT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    beQuiet();
    kernel.isDeaf = true;
    command("ip link set peer0 mtu 1400 && ip addr add 198.51.100.3/24 dev peer0");
    testing::internal::CaptureStderr();
    runPlatform();
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_NE(told.find("couldn't ask for the links: Cannot allocate memory\n"), std::string::npos)
        << told;
    EXPECT_NE(told.find("couldn't ask for the host's addresses: Cannot allocate memory\n"),
              std::string::npos)
        << told;
    EXPECT_NE(programOn(protectedPort), 0u);
    EXPECT_FALSE(arpArrives());
    EXPECT_TRUE(isKnown("::ffff:198.51.100.2"));
    kernel.isDeaf = false;
    EXPECT_TRUE(runUntil([&] { return isKnown("::ffff:198.51.100.3"); }));
}

TEST_F(Network, WhatAnInterruptedListLeavesOutHasNotGone)
{
    command("ip addr add 198.51.100.2/24 dev port0");
    ASSERT_EQ(start("ports = [\"port0\", \"late0\"]\n").result, 0);
    beQuiet();
    kernel.interrupts = true;
    command("ip link set peer0 mtu 1400 && ip addr add 198.51.100.3/24 dev peer0");
    testing::internal::CaptureStderr();
    runPlatform();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_NE(programOn(protectedPort), 0u);
    EXPECT_TRUE(isKnown("::ffff:198.51.100.2"));
    kernel.interrupts = false;
    command("ip link del port0");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(runUntil([&] { return !isKnown("::ffff:198.51.100.2"); }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[platform] port port0 has gone\n");
}

TEST_F(Network, ProgramsArePutAsideFromWhatSelectWaitsFor)
{
    ASSERT_EQ(startOnPort().result, 0);
    unsigned low = 0, high = 0;
    std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir("/proc/self/fd"), closedir);
    while (const dirent *entry = readdir(folder.get())) {
        char target[64] = "";
        if (readlinkat(dirfd(folder.get()), entry->d_name, target, sizeof target - 1) < 0 ||
            !std::strstr(target, "bpf_link"))
            continue;
        (std::atoi(entry->d_name) < FD_SETSIZE ? low : high)++;
    }
    EXPECT_EQ(low, 0u);
    EXPECT_EQ(high, 1u);
}

/* ---- Interfaces of several names ------------------------------------------------------ */

class Namesakes : public Network
{
protected:
    static void property(const std::string &what, const char *port)
    {
        command("ip link property " + what + " dev " + port + " altname longer0");
    }

    /** What the layer says until a condition holds, and while it goes on to. */
    static std::string told(const std::function<bool()> &condition)
    {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(runUntil(condition));
        beQuiet();
        return testing::internal::GetCapturedStderr();
    }

    static bool isAt(const char *port, uint32_t slot)
    {
        tPhyIfInfo info{};
        return sysIndexTrans(if_nametoindex(port), SYS_INDEX_TRANS_PHY, &info) == 0 &&
               info.slot == slot;
    }

    static constexpr char both[] =
        "ports = [\"port0\"]\n[[slot]]\nslot = 4\nports = [\"longer0\"]\n";
    static constexpr tSlotIndex slot{0, 4, 0};
};

TEST_F(Namesakes, OfOneInterfaceKeepTheDaemonFromStarting)
{
    property("add", protectedPort);
    Outcome outcome = start("ports = [\"port0\", \"longer0\"]\n");
    EXPECT_EQ(outcome.result, -1);
    EXPECT_NE(
        outcome.text.find("couldn't protect port longer0: it is port port0 by another name\n"),
        std::string::npos)
        << outcome.text;
    EXPECT_EQ(programOn(protectedPort), 0u);
    outcome = start("[[slot]]\nslot = 4\nports = [\"longer0\"]\n[[slot]]\nslot = 5\n"
                    "ports = [\"port0\"]\n");
    EXPECT_EQ(outcome.result, -1);
    EXPECT_NE(
        outcome.text.find("couldn't protect port port0: it is port longer0 by another name\n"),
        std::string::npos)
        << outcome.text;
}

TEST_F(Namesakes, LeaveWhatAFormerDaemonLeft)
{
    leaveBehind("ports = [\"port0\"]\n", [] { set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)); });
    property("add", protectedPort);
    EXPECT_EQ(start(both).result, -1);
    EXPECT_FALSE(arpArrives());
}

TEST_F(Namesakes, ThatComeLaterAreSaidAndTakeNothingAway)
{
    ASSERT_EQ(start(both).result, 0);
    ASSERT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    begin();
    property("add", protectedPort);
    EXPECT_EQ(told([&] { return kernel.links >= 3; }),
              "couldn't protect port longer0: it is port port0 by another name\n");
    EXPECT_FALSE(arpArrives());
    EXPECT_TRUE(isAt(protectedPort, 0));
    EXPECT_NE(programOn(protectedPort), 0u);

    property("del", protectedPort);
    property("add", peerPort); // an interface of its own now
    EXPECT_EQ(told([] { return programOn(peerPort) != 0; }),
              "[platform] port longer0 is protected in native mode\n");
    EXPECT_TRUE(isAt(peerPort, 4));
    EXPECT_EQ(set(&slot, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    EXPECT_FALSE(arpArrives(protectedPort, peerPort));
    EXPECT_FALSE(arpArrives());
}

TEST_F(Namesakes, ThatComeLaterTakeNothingAwayThoughTheyAreConfiguredFirst)
{
    ASSERT_EQ(start("[[slot]]\nslot = 5\nports = [\"longer0\"]\n[[slot]]\nslot = 4\n"
                    "ports = [\"port0\"]\n")
                  .result,
              0);
    ASSERT_EQ(set(&slot, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    begin();
    property("add", protectedPort);
    EXPECT_EQ(told([&] { return kernel.links >= 3; }),
              "couldn't protect port longer0: it is port port0 by another name\n");
    EXPECT_TRUE(isAt(protectedPort, 4));
    EXPECT_FALSE(arpArrives());
}

TEST_F(Namesakes, ThatComeTogetherAreTheOneThatIsConfiguredFirst)
{
    command("ip link del port0");
    ASSERT_EQ(start(both).result, 0);
    ASSERT_EQ(set(nullptr, true, arpEntry(0, ZYN_HW_OP_DENY)), 0);
    command("ip link add port0 type veth peer name peer0 && ip link property add dev port0 "
            "altname longer0 && ip link set port0 arp off up && ip link set peer0 arp off up");
    EXPECT_TRUE(runUntil([] { return programOn(protectedPort) != 0; }));
    beQuiet();
    EXPECT_TRUE(isAt(protectedPort, 0));
    EXPECT_FALSE(arpArrives());
}

TEST_F(Namesakes, NameThatIsTakenAwayTakesThePortFromItsPlace)
{
    property("add", protectedPort);
    ASSERT_EQ(start("ports = [\"peer0\"]\n[[slot]]\nslot = 4\nports = [\"longer0\"]\n").result, 0);
    EXPECT_TRUE(isAt(protectedPort, 4));
    property("del", protectedPort);
    EXPECT_EQ(told([] { return programOn(protectedPort) == 0; }),
              "[platform] port longer0 has gone\n");
}

} // namespace
