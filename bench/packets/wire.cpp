#include "wire.h"

#include "host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <cmath>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <span>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char PEER_PORT[] = "peer0";
constexpr double FEW_FRAMES = 5000; // enough to guess what one takes
constexpr double LONGEST_CALL = 1;  // seconds
constexpr double MANY_FRAMES = 2e6;

int currentNetwork()
{
    const int fd = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        fail("open a network name space");
    return fd;
}

void enter(int network)
{
    if (setns(network, CLONE_NEWNET) != 0)
        fail("change to a network name space");
}

/** A new name space for the network, which the thread is in afterwards. */
int newNetwork()
{
    if (unshare(CLONE_NEWNET) != 0)
        fail("make a network name space");
    return currentNetwork();
}

/** /sys as this network sees it, with a place of its own where a daemon may pin its maps. */
void mountOwnSys()
{
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        fail("make a mount name space");
    if (mount("none", "/sys", "sysfs", 0, nullptr) != 0 ||
        mount("none", "/sys/fs/bpf", "bpf", 0, nullptr) != 0)
        fail("mount /sys");
}

/** Let the port poll for what comes, as a driver of hardware does. */
void switchGroOn()
{
    ethtool_value value{ETHTOOL_SGRO, 1};
    ifreq request{};
    std::copy_n(PORT, sizeof PORT, request.ifr_name);
    request.ifr_data = reinterpret_cast<char *>(&value);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int result = ioctl(fd, SIOCETHTOOL, &request);
    close(fd);
    if (result != 0)
        fail("switch GRO on");
}

int openDhcpServer()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(DHCP_SERVER_PORT);
    if (bind(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0)
        fail("open the port of DHCP servers");
    return fd;
}

int load(std::span<const bpf_insn> instructions)
{
    const int fd = bpf_prog_load(BPF_PROG_TYPE_XDP, "bench_sender", "MIT", instructions.data(),
                                 instructions.size(), nullptr);
    if (fd < 0)
        fail("load the sender's program");
    return fd;
}

/** A program that sends every frame out of the peer's port. The caller is in its name space. */
int loadFlooder()
{
    const int port = static_cast<int>(if_nametoindex(PEER_PORT));
    const bpf_insn instructions[] = {
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_1, 0, 0, port},
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_2, 0, 0, 0},
        {BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_redirect},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    return load(instructions);
}

/** A program that drops every frame that is made for it. */
int loadMaker()
{
    const bpf_insn instructions[] = {
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, XDP_DROP},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    return load(instructions);
}

/** While this object lives the caller is at the sender's end, and has the first CPU for itself. */
class Sending
{
public:
    Sending(int there, int back) : back_(back) { enter(there); }
    ~Sending() { setns(back_, CLONE_NEWNET); }
    Sending(const Sending &) = delete;
    Sending &operator=(const Sending &) = delete;

private:
    const int back_;
    const FirstCpu mine_;
};

} // namespace

Wire::Wire()
{
    sender_ = newNetwork();
    box_ = newNetwork();
    mountOwnSys();
    makePort();
    makeSender();
    dhcp_ = openDhcpServer();
    server_ = std::thread([this] { serveDhcp(); });
}

Wire::~Wire()
{
    shutdown(dhcp_, SHUT_RDWR); // wakes the server, though the socket has no peer
    server_.join();
    for (int fd : {dhcp_, flooder_, maker_, sender_, box_})
        close(fd);
}

void Wire::makePort()
{
    for (const char *which : {"all", "default"})
        std::ofstream(fmt::format("/proc/sys/net/ipv6/conf/{}/disable_ipv6", which)) << 1;
    command(fmt::format("ip link add {} address {} type veth peer name {} netns /proc/{}/fd/{}",
                        PORT, BOX_MAC, PEER_PORT, getpid(), sender_));
    switchGroOn();
    command(fmt::format("ip address add 198.18.0.2/24 dev {}", PORT));
    command(fmt::format("ip link set {} up", PORT));
    command("ip link set lo up");
}

void Wire::makeSender()
{
    enter(sender_);
    command(fmt::format("ip link set {} up", PEER_PORT));
    flooder_ = loadFlooder();
    maker_ = loadMaker();
    enter(box_);
}

void Wire::serveDhcp()
{
    keepOnLastCpu(0);
    char request[2048];
    while (recv(dhcp_, request, sizeof request, 0) > 0)
        ;
}

/**
 * A test run with live frames sends what its program redirects. The kernel's own clock of the run
 * stands still while the buffers for the frames are made and torn down.
 */
Taken Wire::send(int program, double frames) const
{
    LIBBPF_OPTS(bpf_test_run_opts, options);
    options.data_in = frame_.data();
    options.data_size_in = static_cast<uint32_t>(frame_.size());
    options.flags = BPF_F_TEST_XDP_LIVE_FRAMES;
    options.repeat = static_cast<int>(frames);
    const Sending here(sender_, box_);
    const auto begin = Clock::now();
    if (bpf_prog_test_run_opts(program, &options) != 0)
        fail("send live frames");
    const std::chrono::duration<double> whole = Clock::now() - begin;
    const double each = options.duration + 0.5; // ns, which were rounded down
    return {frames * each / 1e9, whole.count()};
}

uint64_t Wire::workedOff() const
{
    uint64_t packets = 0;
    if (!(std::ifstream(fmt::format("/sys/class/net/{}/statistics/rx_packets", PORT)) >> packets))
        fail("read the counter of the port");
    return packets;
}

double Wire::serverTime()
{
    clockid_t clock;
    timespec time{};
    if (pthread_getcpuclockid(server_.native_handle(), &clock) != 0 ||
        clock_gettime(clock, &time) != 0)
        fail("read the CPU time of the DHCP server");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

Flooded Wire::flood(milliseconds time)
{
    const double about = send(flooder_, FEW_FRAMES).sending / FEW_FRAMES;
    const double frames = std::floor(std::min<double>(FRAMES_A_CALL, LONGEST_CALL / about));
    const uint64_t packets = workedOff();
    const double server = serverTime();
    Flooded flooded{};
    const auto end = Clock::now() + time;
    do {
        const Taken taken = send(flooder_, frames);
        flooded.taken.sending += taken.sending;
        flooded.taken.whole += taken.whole;
    } while (Clock::now() < end);
    flooded.packets = static_cast<double>(workedOff() - packets);
    flooded.serverSeconds = serverTime() - server;
    return flooded;
}

double Wire::making() const
{
    return send(maker_, MANY_FRAMES).sending / MANY_FRAMES;
}
