/**
 * What network events cost the daemon: 500 protected ports in a name space of their own, a steady
 * stream of events, and meanwhile a request every few milliseconds. Printed are the daemon's CPU
 * time, how long the requests took, and how long a port that was made anew stayed unprotected.
 *
 * Usage: bench_events [SECONDS], as root, with a /tmp and a BPF file system of its own.
 */
#include "channel/request.h"
#include "daemon_process.h"
#include "packets/host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <bpf/libbpf.h>
#include <chrono>
#include <cpuDefend_nm.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <functional>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr unsigned PORTS = 500;
constexpr unsigned PORTS_IN_SLOT = 50;
constexpr milliseconds EVENT_EVERY{1};
constexpr milliseconds REQUEST_EVERY{20};
constexpr char RETURNING[] = "returning"; // one more port, which events are not about
constexpr char PLATFORM_FILE[] = "/tmp/platform.toml";
constexpr char BATCH[] = "/tmp/batch";

std::string portName(unsigned number)
{
    return fmt::format("p{}", number);
}

/** The ports, wired in pairs, each with an address; and the file that has them in slots. */
void makePorts()
{
    std::string batch, file = fmt::format("ports = [\"{}\"]\n", RETURNING);
    for (unsigned i = 0; i < PORTS; i++) {
        const std::string name = portName(i);
        if (i % 2 == 0)
            batch += fmt::format("link add {} type veth peer name {}\n", name, portName(i + 1));
        batch += fmt::format("link set {} up\n", name);
        batch += fmt::format("addr add 10.{}.{}.1/24 dev {}\n", i / 250, i % 250, name);
        if (i % PORTS_IN_SLOT == 0)
            file += fmt::format("{}[[slot]]\nslot = {}\nports = [", i ? "]\n" : "",
                                i / PORTS_IN_SLOT + 1);
        file += fmt::format("\"{}\", ", name);
    }
    write(BATCH, batch);
    command(fmt::format("ip -batch {}", BATCH));
    write(PLATFORM_FILE, file + "]\n");
}

/** One change of the network after the other, by netlink. */
class Changes
{
public:
    Changes() : socket_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE))
    {
        for (unsigned i = 0; i < PORTS; i++)
            ports_.push_back(static_cast<int>(if_nametoindex(portName(i).c_str())));
    }
    ~Changes() { close(socket_); }
    Changes(const Changes &) = delete;
    Changes &operator=(const Changes &) = delete;

    /** An address comes, and goes with the next one; at each port in turn. */
    void changeAddress()
    {
        const uint32_t address = htonl(0xc6336401 + number_ / 2 % PORTS); // 198.51.100.1 and behind
        const bool add = number_ % 2 == 0;
        struct {
            nlmsghdr header;
            ifaddrmsg body;
            rtattr attribute;
            uint32_t address;
        } message{};
        message.header.nlmsg_type = add ? RTM_NEWADDR : RTM_DELADDR;
        message.header.nlmsg_flags = static_cast<uint16_t>(add ? NLM_F_CREATE | NLM_F_EXCL : 0);
        message.body.ifa_family = AF_INET;
        message.body.ifa_prefixlen = 32;
        message.body.ifa_index = static_cast<uint32_t>(ports_[number_ / 2 % PORTS]);
        message.attribute = {sizeof message.attribute + sizeof message.address, IFA_LOCAL};
        message.address = address;
        send(message);
    }

    /** The MTU of each port in turn. */
    void changeLink()
    {
        struct {
            nlmsghdr header;
            ifinfomsg body;
            rtattr attribute;
            uint32_t mtu;
        } message{};
        message.header.nlmsg_type = RTM_NEWLINK;
        message.body.ifi_index = ports_[number_ % PORTS];
        message.attribute = {sizeof message.attribute + sizeof message.mtu, IFLA_MTU};
        message.mtu = 1400 + number_ / PORTS % 100;
        send(message);
    }

private:
    template <class Message> void send(Message &message)
    {
        message.header.nlmsg_len = sizeof message;
        message.header.nlmsg_flags |= NLM_F_REQUEST;
        if (::send(socket_, &message, sizeof message, 0) != sizeof message)
            fail("change the network");
        number_++;
    }

    int socket_;
    std::vector<int> ports_;
    unsigned number_ = 0;
};

/** Changes in a thread of their own, at their pace, as long as this object lives. */
class Stream
{
public:
    explicit Stream(const std::function<void()> &change)
        : thread_([this, change] {
              for (auto next = Clock::now(); !stop_; next += EVENT_EVERY, count_++) {
                  std::this_thread::sleep_until(next);
                  change();
              }
          })
    {
    }
    ~Stream()
    {
        stop_ = true;
        thread_.join();
    }

    unsigned count() const { return count_; }

private:
    std::atomic<bool> stop_{false};
    std::atomic<unsigned> count_{0};
    std::thread thread_;
};

double request()
{
    static const Bytes body =
        channel::request(CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_USEPOLICYNUM,
                         channel::globalIndex(), channel::number(0));
    Bytes reply;
    const auto begin = Clock::now();
    if (!exchange(body, &reply))
        throw Failure("couldn't ask the daemon");
    return Milliseconds(Clock::now() - begin).count();
}

double part(const std::vector<double> &sorted, double which)
{
    return sorted[static_cast<size_t>(which * static_cast<double>(sorted.size() - 1))];
}

void printTimes(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    fmt::print("median {:.2f} ms, 99 % {:.2f} ms, longest {:.2f} ms, of {}\n", part(times, 0.5),
               part(times, 0.99), times.back(), times.size());
}

/** Ask again and again for that long, and print what it cost. */
void measure(const char *what, const DaemonProcess &daemon, seconds time,
             const std::function<unsigned()> &events)
{
    const auto begin = Clock::now();
    const double cpu = cpuTime(daemon.pid());
    const unsigned eventsBefore = events();
    std::vector<double> took;
    for (auto next = begin; Clock::now() < begin + time; next += REQUEST_EVERY) {
        std::this_thread::sleep_until(next);
        took.push_back(request());
    }
    const double whole = std::chrono::duration<double>(Clock::now() - begin).count();
    fmt::print("{:<22} {:>5.0f} events/s   daemon {:.2f} % of a CPU   requests: ", what,
               (events() - eventsBefore) / whole, 100 * (cpuTime(daemon.pid()) - cpu) / whole);
    printTimes(std::move(took));
}

bool isProtected(const std::string &port)
{
    uint32_t program = 0;
    const unsigned ifindex = if_nametoindex(port.c_str());
    return ifindex != 0 && bpf_xdp_query_id(static_cast<int>(ifindex), 0, &program) == 0 &&
           program != 0;
}

/** How long a port that is made anew is without the program. */
void measureReturn(const char *what, seconds time)
{
    std::vector<double> took;
    for (auto end = Clock::now() + time; took.empty() || Clock::now() < end;) {
        command(fmt::format("ip link add {} type veth peer name other", RETURNING));
        const auto begin = Clock::now();
        while (!isProtected(RETURNING) && Clock::now() < begin + seconds(10))
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        took.push_back(Milliseconds(Clock::now() - begin).count());
        command(fmt::format("ip link del {}", RETURNING));
        std::this_thread::sleep_for(milliseconds(107)); // another moment of the daemon's each time
    }
    fmt::print("{:<22} port made anew, until protected: ", what);
    printTimes(std::move(took));
}

} // namespace

int main(int argc, char **argv)
try {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const seconds time{argc > 1 ? std::atoi(argv[1]) : 10};
    if (unshare(CLONE_NEWNET) != 0)
        fail("get a network name space of its own");
    makePorts();
    const auto begin = Clock::now();
    DaemonProcess daemon({}, {{"CPUDEFEND_PLATFORM", PLATFORM_FILE}});
    fmt::print("start with {} ports      {:.0f} ms\n", PORTS,
               Milliseconds(Clock::now() - begin).count());
    std::this_thread::sleep_for(seconds(3)); // what the ports themselves caused has passed by then
    measure("idle", daemon, time, [] { return 0u; });
    Changes changes;
    {
        Stream stream([&] { changes.changeAddress(); });
        measure("address events", daemon, time, [&] { return stream.count(); });
        measureReturn("address events", time);
    }
    {
        Stream stream([&] { changes.changeLink(); });
        measure("link events", daemon, time, [&] { return stream.count(); });
    }
    measureReturn("idle", time);
    return 0;
} catch (const std::exception &error) {
    fmt::print(stderr, "bench_events: {}\n", error.what());
    return 1;
}
