#include "inside.h"

#include "frames.h"
#include "host.h"
#include "protection.h"
#include "statistics.h"
#include "wire.h"

#include <bpf/bpf.h>
#include <chrono>
#include <fmt/format.h>
#include <linux/bpf.h>
#include <net/if.h>
#include <thread>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr uint32_t RUNS = 400'000;
constexpr int ROUNDS = 7;
constexpr unsigned LOADED_RULES = 256;
constexpr double LOADING_GOAL = 50; // ms

struct Path {
    const char *what;
    FrameBytes frame;
    uint32_t verdict;
};

/** Print the median cost of a path, for frames that come by the box's port. One that ends otherwise
 * than it should is not measured. */
void print(int program, const Path &path)
{
    xdp_md from{};
    from.data_end = static_cast<uint32_t>(path.frame.size());
    from.ingress_ifindex = if_nametoindex(PORT);
    std::vector<double> each;
    for (int round = 0; round < ROUNDS; round++) {
        LIBBPF_OPTS(bpf_test_run_opts, options);
        options.data_in = path.frame.data();
        options.data_size_in = static_cast<uint32_t>(path.frame.size());
        options.ctx_in = &from;
        options.ctx_size_in = sizeof from;
        options.repeat = RUNS;
        if (bpf_prog_test_run_opts(program, &options) != 0)
            fail("run the packet program");
        if (options.retval != path.verdict) {
            fmt::print("{:<60} verdict {} instead of {}\n", path.what, options.retval,
                       path.verdict);
            return;
        }
        each.push_back(options.duration);
    }
    fmt::print("{:<60}{:>6.0f} ns\n", path.what, median(each));
}

void printAll(const Daemon &daemon, const std::vector<Path> &paths)
{
    const int program = daemon.program();
    for (const Path &path : paths)
        print(program, path);
    close(program);
}

void measureBareDrop()
{
    const BareDrop bare;
    print(bare.program(), {"bare drop", floodFrame(), XDP_DROP});
}

FrameBytes udpOfNoType()
{
    return toBox(PEER_ADDRESS, UDP, 40000, 50000);
}

void measureEntries()
{
    Daemon daemon(0);
    printAll(daemon, {{"nothing bound: passed", floodFrame(), XDP_PASS}});
    daemon.configure(1);
    daemon.set("arp", "pps=4294967295 mode=pps");
    daemon.set("igmp", "action=deny");
    daemon.bind();
    FrameBytes igmp = toBox(PEER_ADDRESS, UDP, 0, 0);
    igmp[23] = 2;    // protocol
    igmp[34] = 0x11; // membership query
    FrameBytes foreign = floodFrame();
    foreign[12] = 0x88; // an ethertype for local experiments (IEEE 802, 9.2.4)
    foreign[13] = 0xb5;
    printAll(daemon,
             {{"of no type, UDP: passed", udpOfNoType(), XDP_PASS},
              {"of no type, GRE: passed", toBox(PEER_ADDRESS, GRE, 0, 0), XDP_PASS},
              {"of no type, an ethertype of none: passed", foreign, XDP_PASS},
              {"no entry for its type, TCP: passed", toBox(PEER_ADDRESS, TCP, 40000, 80), XDP_PASS},
              {"no entry for its type, IPv6, two extension headers: passed",
               behindExtensions(NTP_PORT), XDP_PASS},
              {"entry, within the rate: passed", arpRequest(), XDP_PASS},
              {"entry, beyond the rate: dropped", floodFrame(), XDP_DROP},
              {"entry that denies: dropped", igmp, XDP_DROP}});
}

/** A mode adds its policer to those in force. */
void measureBothPolicers()
{
    Daemon daemon(0);
    daemon.configure(1);
    daemon.set("arp", "pps=4294967295 cir=4294967295 cbs=4294967295 mode=pps");
    daemon.set("arp", "mode=cir");
    daemon.bind();
    printAll(daemon, {{"entry, within both its rates: passed", arpRequest(), XDP_PASS}});
}

void measureRules(unsigned rules)
{
    Daemon daemon(rules);
    daemon.configure(10);
    daemon.bind();
    const std::string behind =
        fmt::format("{:>4} access rule{}, none selects: ", rules, rules == 1 ? "" : "s");
    const std::string dropped = behind + "dropped by its entry",
                      passed = behind + "no type, passed";
    printAll(daemon, {{dropped.c_str(), floodFrame(), XDP_DROP},
                      {passed.c_str(), udpOfNoType(), XDP_PASS}});
}

/** The second rule of a list selects by the address of a host; the lists permit and deny in turn.
 */
void measureSelected()
{
    Daemon daemon(LOADED_RULES);
    daemon.configure(10);
    daemon.bind();
    const auto host = [](unsigned n) {
        return toBox(address(172, 16, 0, 0) + 37 * n, UDP, 40000, 161);
    };
    printAll(daemon,
             {{" 256 access rules, selected and within the rate: passed", host(0), XDP_PASS},
              {" 256 access rules, selected and denied: dropped", host(2), XDP_DROP}});
}

/** Measure, or say why that was not possible. */
template <typename Measure> void attempt(const char *what, Measure measure)
{
    try {
        measure();
    } catch (const Failure &failure) {
        fmt::print("left out: {}: {}\n", what, failure.what());
    }
}

/** What was measured in each round, in ms. */
struct Step {
    std::vector<double> taken;
    std::vector<double> daemon; /**< CPU time of its own in it */
};

struct Loading {
    Step reload, bind, both, bindAgain, bindByCommand;
    std::vector<double> start;
};

double since(Clock::time_point begin)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

template <typename Do> void measureStep(Step &step, const Daemon &daemon, Do what)
{
    const double before = daemon.ownTime();
    const auto begin = Clock::now();
    what();
    step.taken.push_back(since(begin));
    step.daemon.push_back((daemon.ownTime() - before) * 1e3);
}

void awaitOther(const Daemon &daemon, uint32_t policy)
{
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (daemon.policy() == policy) {
        if (Clock::now() > deadline)
            throw Failure("the daemon does not take its access rules anew");
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

/** Bind, which must have the policy in force when the reply is here. */
template <typename Bind> void measureBind(Step &step, const Daemon &daemon, Bind bind)
{
    const uint32_t before = daemon.policy();
    measureStep(step, daemon, bind);
    if (daemon.policy() == before)
        throw Failure("the policy is bound, but not in force");
}

void measureLoadingOnce(Loading &times)
{
    const auto begin = Clock::now();
    Daemon daemon(LOADED_RULES);
    times.start.push_back(since(begin));
    daemon.configure(10);
    measureBind(times.bind, daemon, [&] { daemon.bind(); });
    daemon.unbind();
    measureBind(times.bindAgain, daemon, [&] { daemon.bind(); });
    daemon.unbind();
    measureBind(times.bindByCommand, daemon, [&] { daemon.bindByCommand(); });
    daemon.changeRule();
    measureStep(times.reload, daemon, [&, bound = daemon.policy()] {
        daemon.reload();
        awaitOther(daemon, bound);
    });
    times.both.taken.push_back(times.reload.taken.back() + times.bind.taken.back());
    times.both.daemon.push_back(times.reload.daemon.back() + times.bind.daemon.back());
}

void print(const char *what, const Step &step, const std::string &verdict = {})
{
    fmt::print("{:<52}{:>8.1f}{:>14.1f}{}\n", what, median(step.taken), median(step.daemon),
               verdict);
}

void print(const Loading &times)
{
    const double both = median(times.both.taken);
    fmt::print(
        "\nLOADING AND BINDING a policy with 10 entries and {} access rules, ms (medians of {} "
        "rounds)\n\n{:<52}{:>8}{:>14}\n",
        LOADED_RULES, ROUNDS, "", "taken", "daemon's CPU");
    print("load: SIGHUP until the rules are in force", times.reload);
    print("bind: request to reply, the first of a daemon", times.bind);
    print("load and bind", times.both,
          fmt::format("   goal: below {:g}: {}", LOADING_GOAL,
                      both < LOADING_GOAL ? "met" : "MISSED"));
    print("bind again: request to reply", times.bindAgain);
    print("bind again by cpudefendctl, its own start included", times.bindByCommand);
    fmt::print("{:<52}{:>8.1f}\n", "start of the daemon until it serves", median(times.start));
}

} // namespace

void measurePaths()
{
    fmt::print("\nNANOSECONDS PER PACKET in the packet program alone (medians of {} rounds)\n\n",
               ROUNDS);
    attempt("bare drop", measureBareDrop);
    attempt("entries", measureEntries);
    attempt("both policers", measureBothPolicers);
    for (unsigned rules : {1, 16, 64, 256, 1024})
        attempt(fmt::format("{} access rules", rules).c_str(), [=] { measureRules(rules); });
    attempt("access rules that select", measureSelected);
}

void measureLoading()
{
    attempt("loading", [] {
        Loading times;
        for (int round = 0; round < ROUNDS; round++)
            measureLoadingOnce(times);
        print(times);
    });
}
