/**
 * The packet path under a flood, this daemon's beside what else there is: packets per second on one
 * wire, CPU time per packet, nanoseconds in the packet program, and the time it takes to put a
 * policy in force. Everything that is compared is measured in turn, round by round, so that a
 * machine whose speed drifts slows all alike; medians are printed.
 *
 * Usage: bench_packets [PLOT.svg], as root, with a /tmp of its own.
 */
#include "compare.h"
#include "host.h"
#include "inside.h"
#include "wire.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <unistd.h>

namespace
{

/** What must be there before anything is measured. */
void checkMachine()
{
    if (geteuid() != 0)
        throw Failure("needs root, for name spaces and packet programs");
    if (sysconf(_SC_NPROCESSORS_ONLN) < 2)
        throw Failure("needs two CPUs, one to send and one to receive");
    for (const char *tool : {"ip:iproute2", "nft:nftables", "iptables-restore:iptables"}) {
        const std::string both = tool;
        const std::string name = both.substr(0, both.find(':'));
        if (std::system(fmt::format("command -v {} >/dev/null", name).c_str()) != 0)
            throw Failure(fmt::format("{} is missing: install the package {} (scripts/setup bench "
                                      "does)",
                                      name, both.substr(name.size() + 1)));
    }
}

/** How busy the machine is with other work, which makes the figures worse. */
void printMachine()
{
    double load[1];
    if (getloadavg(load, 1) == 1)
        fmt::print("{} CPUs, load average {:.2f}\n", sysconf(_SC_NPROCESSORS_ONLN), load[0]);
}

} // namespace

int main(int argc, char **argv)
try {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    checkMachine();
    Wire wire;
    printMachine();
    compareRates(wire, argc > 1 ? argv[1] : "");
    compareCosts(wire);
    measurePaths();
    measureLoading();
    fmt::print("\n");
    printMachine();
    return 0;
} catch (const std::exception &error) {
    fmt::print(stderr, "bench_packets: {}\n", error.what());
    return 1;
}
