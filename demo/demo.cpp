/**
 * A real flood on a real interface, first unprotected, then held by a policy that is bound over the
 * management channel. Everything happens in network name spaces made for it, with a /tmp of its
 * own.
 */
#include "flood.h"
#include "protected_side.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <fstream>
#include <memory>
#include <sched.h>
#include <set>
#include <signal.h>
#include <stdexcept>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char PORT[] = "port0";
constexpr char PEER_PORT[] = "peer0";
constexpr Offer OFFER{.arp = 100'000, .dhcp = 50'000, .trickle = 100};
constexpr uint32_t ARP_LIMIT = 200;  // packets per second
constexpr uint32_t DHCP_LIMIT = 100; // packets per second
constexpr double BAND = 0.10;        // how far off a rate may be
constexpr milliseconds WARM_UP{1000};
constexpr milliseconds MEASURED{4000};

void step(const std::string &text)
{
    fmt::print("\n# {}\n", text);
    std::fflush(stdout);
}

/** Run a command of the operator's, and show it. */
void control(const std::string &arguments)
{
    fmt::print("$ cpudefendctl {}\n", arguments);
    std::fflush(stdout);
    if (std::system((CPUDEFEND_BIN_DIR "/cpudefendctl " + arguments).c_str()) != 0)
        throw std::runtime_error("cpudefendctl " + arguments + " failed");
}

/** The daemon on this name space's port, ended with the demo. */
class Daemon
{
public:
    Daemon()
    {
        std::ofstream("/tmp/platform.toml") << "ports = [\"" << PORT << "\"]\n";
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            setenv("CPUDEFEND_PLATFORM", "/tmp/platform.toml", 1);
            execl(CPUDEFEND_BIN_DIR "/cpuDefend", "cpuDefend", nullptr);
            _exit(127);
        }
        waitForAnswer();
    }

    ~Daemon()
    {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }

private:
    /** The socket's file proves nothing: another daemon may have left it behind. */
    void waitForAnswer() const
    {
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (Clock::now() < deadline) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_)
                break;
            if (std::system(CPUDEFEND_BIN_DIR "/cpudefendctl --timeout 1 show >/dev/null 2>&1") ==
                0)
                return;
            std::this_thread::sleep_for(milliseconds(20));
        }
        throw std::runtime_error("the daemon did not start");
    }

    pid_t pid_;
};

/** What one phase showed, over its measured time. */
struct Outcome {
    double seconds;
    Sent offered;
    Arrived passed;
    double cpu;           // seconds
    uint64_t trickleSent; // over all of the phase
    uint64_t trickleArrived;
};

/** Wait until all of the trickle has arrived, or no more comes. */
Arrived settle(ProtectedSide &side, const Arrived &before, uint64_t trickle)
{
    const auto deadline = Clock::now() + std::chrono::seconds(2);
    Arrived now = side.arrived();
    while (now.trickle - before.trickle < trickle && Clock::now() < deadline) {
        std::this_thread::sleep_for(milliseconds(10));
        now = side.arrived();
    }
    return now;
}

Outcome measure(Peer &peer, ProtectedSide &side)
{
    const Arrived begin = side.arrived();
    peer.start(PEER_PORT, OFFER);
    std::this_thread::sleep_for(WARM_UP);

    const Sent sent0 = peer.sent();
    const Arrived arrived0 = side.arrived();
    const double cpu0 = side.cpuTime();
    const auto time0 = Clock::now();
    std::this_thread::sleep_for(MEASURED);
    const Sent sent1 = peer.sent();
    const Arrived arrived1 = side.arrived();
    const double cpu1 = side.cpuTime();
    const std::chrono::duration<double> took = Clock::now() - time0;

    const Sent all = peer.stop();
    const Arrived end = settle(side, begin, all.trickle);
    return {took.count(),
            {sent1.arp - sent0.arp, sent1.dhcp - sent0.dhcp, sent1.trickle - sent0.trickle},
            {arrived1.arp - arrived0.arp, arrived1.dhcp - arrived0.dhcp,
             arrived1.trickle - arrived0.trickle},
            cpu1 - cpu0,
            all.trickle,
            end.trickle - begin.trickle};
}

void row(const char *type, uint64_t offered, uint64_t passed, double seconds)
{
    const double in = static_cast<double>(offered) / seconds;
    const double through = static_cast<double>(passed) / seconds;
    fmt::print("  {:<8}{:>14.0f}{:>14.0f}{:>14.0f}\n", type, in, through,
               std::max(0.0, in - through));
}

void show(const Outcome &outcome)
{
    fmt::print("  {:<8}{:>14}{:>14}{:>14}\n", "type", "offered/s", "passed/s", "dropped/s");
    row("ARP", outcome.offered.arp, outcome.passed.arp, outcome.seconds);
    row("DHCP", outcome.offered.dhcp, outcome.passed.dhcp, outcome.seconds);
    row("802.1X", outcome.offered.trickle, outcome.passed.trickle, outcome.seconds);
    const double packets = static_cast<double>(outcome.offered.arp + outcome.offered.dhcp);
    fmt::print("  CPU time of the protected side: {:.1f} % of a CPU, {:.2f} s per million packets "
               "offered\n",
               100 * outcome.cpu / outcome.seconds, outcome.cpu / packets * 1e6);
    fmt::print("  802.1X trickle: {} sent, {} arrived\n", outcome.trickleSent,
               outcome.trickleArrived);
}

/** Say whether a rate was held. @return 0 or 1 failures */
int checkRate(const char *type, uint64_t passed, double seconds, uint32_t limit)
{
    const double rate = static_cast<double>(passed) / seconds;
    const bool held = std::abs(rate - limit) <= BAND * limit;
    fmt::print("{}: {} passed at {:.1f} packets/s, limit {}\n", held ? "ok" : "FAILED", type, rate,
               limit);
    return held ? 0 : 1;
}

int checkTrickle(const Outcome &outcome)
{
    const bool whole = outcome.trickleArrived == outcome.trickleSent;
    fmt::print("{}: {} of {} trickle packets arrived\n", whole ? "ok" : "FAILED",
               outcome.trickleArrived, outcome.trickleSent);
    return whole ? 0 : 1;
}

int checkFlood(const Outcome &outcome)
{
    const double rate =
        static_cast<double>(outcome.offered.arp + outcome.offered.dhcp) / outcome.seconds;
    const bool enough = rate >= 100'000;
    fmt::print("{}: flooded with {:.0f} packets/s\n", enough ? "ok" : "FAILED", rate);
    return enough ? 0 : 1;
}

/** Every sender of the ARP flood must be named, and nobody else. */
int checkSources()
{
    std::set<std::string> named;
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> list(
        popen(CPUDEFEND_BIN_DIR "/cpudefendctl source list --type arp", "r"), pclose);
    char line[256];
    while (list && std::fgets(line, sizeof line, list.get()))
        if (const char *mac = std::strstr(line, "02:00:00:00:00:"))
            named.emplace(mac, std::strlen("02:00:00:00:00:00"));
    const bool all = named.size() == FLOOD_SENDERS;
    fmt::print("{}: {} of {} senders of the ARP flood are named\n", all ? "ok" : "FAILED",
               named.size(), FLOOD_SENDERS);
    return all ? 0 : 1;
}

int demonstrate()
{
    Peer peer;
    if (unshare(CLONE_NEWNET) != 0)
        throw std::runtime_error("couldn't make a network name space");
    ProtectedSide side(PORT, PEER_PORT, peer.pid());

    step("A peer floods the host with ARP and DHCP. Nothing protects it.");
    const Outcome before = measure(peer, side);
    show(before);

    step("The daemon protects the port. A policy limits both, and is bound to the system.");
    Daemon daemon;
    control("policy add edge");
    control("policy set edge source-trace=on");
    control(fmt::format("car set edge arp pps={} mode=pps", ARP_LIMIT));
    control(fmt::format("car set edge dhcpsnoopip pps={} mode=pps", DHCP_LIMIT));
    control("bind edge");

    step("The same flood again.");
    const Outcome after = measure(peer, side);
    show(after);

    step("Who sent the ARP flood?");
    control("source list --type arp");

    fmt::print("\n");
    int failures = checkFlood(before) + checkFlood(after);
    failures += checkRate("ARP", after.passed.arp, after.seconds, ARP_LIMIT);
    failures += checkRate("DHCP", after.passed.dhcp, after.seconds, DHCP_LIMIT);
    failures += checkTrickle(after);
    failures += checkSources();
    return failures;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc > 1) {
        const bool help = argc == 2 && std::string(argv[1]) == "--help";
        fmt::print(help ? stdout : stderr,
                   "Usage: cpudefend-demo\nFloods an interface in a network "
                   "of its own, and needs root for that.\n");
        return help ? 0 : 2;
    }
    try {
        return demonstrate() == 0 ? 0 : 1;
    } catch (const std::exception &error) {
        fmt::print(stderr, "demo: {}\n", error.what());
        return 1;
    }
}
