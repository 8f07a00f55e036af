/**
 * What it takes to list all policies and all CAR entries: with one request after the other, and as
 * the library does it, with several under way. Both are done in turn, round by round, so that a
 * machine whose speed drifts slows them alike. Then the same as the command line does it, with its
 * printing, for as many policies as there may well be.
 */
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "client/client.h"
#include "daemon_process.h"

namespace
{

using namespace cpudefend;

constexpr uint32_t POLICY_IDS[] = {CPUDEFEND_POLICY_REFCOUNT, CPUDEFEND_POLICY_WHITELISTENABLE,
                                   CPUDEFEND_POLICY_BLACKLISTENABLE,
                                   CPUDEFEND_POLICY_SRCTRACEENABLE, CPUDEFEND_POLICY_DESCRIPTION};
constexpr uint32_t CAR_IDS[] = {
    CPUDEFEND_CARPKT_MODE, CPUDEFEND_CARPKT_PPS,   CPUDEFEND_CARPKT_CIR,     CPUDEFEND_CARPKT_CBS,
    CPUDEFEND_CARPKT_DENY, CPUDEFEND_CARPKT_QUEUE, CPUDEFEND_CARPKT_PRIORITY};

double secondsOf(const std::function<void()> &work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void makePolicies(Client &client, std::size_t count)
{
    for (std::size_t i = client.policyNames().size(); i < count; ++i)
        client.createPolicy("policy-" + std::to_string(100000 + i));
}

void policiesOneByOne(Client &client)
{
    for (const std::string &name : client.policyNames())
        client.read(PolicyIndex{name}, POLICY_IDS);
}

void entriesOneByOne(Client &client)
{
    for (const std::string &name : client.policyNames())
        for (uint32_t type = 0; type < CPUDEFEND_CARPKT_PER_POLICY; ++type)
            client.read(CarPktIndex{name, type}, CAR_IDS);
}

void compare(const char *what, std::size_t policies, std::size_t requests, int rounds,
             const std::function<void()> &oneByOne, const std::function<void()> &underWay)
{
    std::vector<double> plain, several;
    underWay();
    for (int i = 0; i < rounds; ++i) {
        plain.push_back(secondsOf(oneByOne));
        several.push_back(secondsOf(underWay));
    }
    printf("%5zu policies, %s   %6zu requests   one by one %8.1f ms   under way %8.1f ms   "
           "(%.1f us each)\n",
           policies, what, requests, median(plain) * 1e3, median(several) * 1e3,
           median(several) / static_cast<double>(requests) * 1e6);
}

void compareLists(Client &client, std::size_t policies, int rounds)
{
    makePolicies(client, policies);
    compare(
        "policies   ", policies, 1 + policies * (1 + std::size(POLICY_IDS)), rounds,
        [&] { policiesOneByOne(client); }, [&] { client.policies(POLICY_IDS); });
    compare(
        "CAR entries", policies,
        1 + policies * (1 + CPUDEFEND_CARPKT_PER_POLICY * std::size(CAR_IDS)), rounds,
        [&] { entriesOneByOne(client); }, [&] { client.carEntries(CAR_IDS); });
}

void timeCommand(const char *command)
{
    const std::string line = std::string(CPUDEFEND_BENCH_CTL) + " " + command + " > /dev/null";
    int status = 0;
    const double seconds = secondsOf([&] { status = std::system(line.c_str()); });
    printf("cpudefendctl %-12s %.2f s%s\n", command, seconds, status == 0 ? "" : "   FAILED");
}

} // namespace

int main()
{
    DaemonProcess daemon({"4096"});
    Client client;
    compareLists(client, 32, 7);
    compareLists(client, 512, 1);
    compareLists(client, 4096, 1);
    timeCommand("policy list");
    timeCommand("car list");
}
