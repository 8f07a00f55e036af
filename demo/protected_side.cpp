#include "protected_side.h"

#include "offload.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

constexpr uint16_t ETHERTYPES[] = {0x0806, 0x0800, 0x888e};
constexpr uint16_t DHCP_SERVER_PORT = 67;

void command(const std::string &text)
{
    if (std::system(text.c_str()) != 0)
        throw std::runtime_error("couldn't run " + text);
}

void write(const std::string &path, const std::string &text)
{
    std::ofstream file(path);
    if (!(file << text << std::flush))
        throw std::runtime_error(fmt::format("couldn't write to {}: {}", path, strerror(errno)));
}

/** The kernel thread that polls @a port. */
pid_t findPoller(const std::string &port)
{
    const std::string wanted = "napi/" + port.substr(0, 9) + "-";
    pid_t newest = -1;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        std::string name;
        std::ifstream(entry.path() / "comm") >> name;
        if (name.rfind(wanted, 0) == 0)
            newest = std::max(newest, static_cast<pid_t>(std::stoi(entry.path().filename())));
    }
    if (newest < 0)
        throw std::runtime_error("no kernel thread polls " + port);
    return newest;
}

/** Let the poller run at once when there is something, on the last CPU. */
void giveWay(pid_t poller)
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN) - 1), &cpus);
    sched_setaffinity(poller, sizeof cpus, &cpus);
    const sched_param priority{.sched_priority = 10};
    sched_setscheduler(poller, SCHED_FIFO, &priority);
}

void makeWire(const std::string &port, const std::string &peerPort, pid_t peer)
{
    for (const char *which : {"all", "default"})
        std::ofstream(fmt::format("/proc/sys/net/ipv6/conf/{}/disable_ipv6", which)) << 1;
    command(fmt::format("ip link add {} type veth peer name {} netns {}", port, peerPort, peer));
    setOffload(port, ETHTOOL_SGRO, true); // so that it polls, as a driver of hardware does
    command(fmt::format("ip address add 10.77.0.1/24 dev {}", port));
    command(fmt::format("ip link set {} up", port));
    command(fmt::format("ip link set lo up"));
    command(fmt::format("nsenter --net=/proc/{0}/ns/net ip link set {1} up", peer, peerPort));
    // A queue before the wire holds what the ring behind it has no room for at the moment.
    command(
        fmt::format("nsenter --net=/proc/{0}/ns/net tc qdisc add dev {1} root pfifo limit 20000",
                    peer, peerPort));
}

/** A socket that only counts what comes with an ethertype: it has no room to keep anything. */
int counterFor(const std::string &port, uint16_t ethertype)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    const int least = 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
    const int yes = 1;
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &yes, sizeof yes);
    packet_mreq all{};
    all.mr_ifindex = static_cast<int>(if_nametoindex(port.c_str()));
    all.mr_type = PACKET_MR_ALLMULTI;
    setsockopt(fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &all, sizeof all);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ethertype);
    address.sll_ifindex = all.mr_ifindex;
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw std::runtime_error("couldn't watch port " + port);
    return fd;
}

int openDhcpServer()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(DHCP_SERVER_PORT);
    const timeval tenth{0, 100000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tenth, sizeof tenth);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw std::runtime_error("couldn't open the DHCP server's port");
    return fd;
}

double secondsOf(const timespec &time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

} // namespace

ProtectedSide::ProtectedSide(const std::string &port, const std::string &peerPort, pid_t peer)
{
    makeWire(port, peerPort, peer);
    // This name space's own view of its ports, for the switch to a polling thread.
    if (mount("none", "/sys", "sysfs", 0, nullptr) != 0)
        throw std::runtime_error("couldn't mount /sys");
    write("/sys/class/net/" + port + "/threaded", "1");
    poller_ = findPoller(port);
    giveWay(poller_);
    for (int i = 0; i < 3; i++)
        counters_[i] = counterFor(port, ETHERTYPES[i]);
    dhcp_ = openDhcpServer();
    server_ = std::thread([this] { serveDhcp(); });
}

ProtectedSide::~ProtectedSide()
{
    stop_ = true;
    server_.join();
    close(dhcp_);
    for (int counter : counters_)
        close(counter);
}

void ProtectedSide::serveDhcp()
{
    char request[2048];
    while (!stop_)
        (void)!recv(dhcp_, request, sizeof request, 0);
}

Arrived ProtectedSide::arrived()
{
    for (int i = 0; i < 3; i++) {
        tpacket_stats since{}; // reading resets them
        socklen_t length = sizeof since;
        if (getsockopt(counters_[i], SOL_PACKET, PACKET_STATISTICS, &since, &length) != 0)
            throw std::runtime_error("couldn't read the packet counters");
        counted_[i] += since.tp_packets;
    }
    return {counted_[0], counted_[1], counted_[2]};
}

double ProtectedSide::cpuTime()
{
    uint64_t poller = 0; // ns on a CPU
    std::ifstream(fmt::format("/proc/{}/schedstat", poller_)) >> poller;
    clockid_t clock;
    timespec server{};
    if (pthread_getcpuclockid(server_.native_handle(), &clock) == 0)
        clock_gettime(clock, &server);
    return static_cast<double>(poller) / 1e9 + secondsOf(server);
}
