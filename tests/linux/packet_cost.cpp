/**
 * Prints what a packet costs in the packet program, in nanoseconds, by the kernel's test runs.
 */
#include <algorithm>
#include <chrono>
#include <cstdio>

#include "acl_compiler.h"
#include "bpf_probe.h"
#include "frame.h"
#include "policer_settings.h"
#include "program.h"

using namespace zynlinux;

namespace
{

constexpr int runs = 2'000'000;
constexpr int rounds = 7;

template <typename Measure> uint32_t median(Measure measure)
{
    std::array<uint32_t, rounds> each;
    for (uint32_t &round : each)
        round = measure();
    std::nth_element(each.begin(), each.begin() + rounds / 2, each.end());
    return each[rounds / 2];
}

uint32_t bareDrop(const Frame &frame)
{
    Descriptor program = constantProgram(XDP_DROP);
    LIBBPF_OPTS(bpf_test_run_opts, options);
    options.data_in = frame.bytes().data();
    options.data_size_in = static_cast<uint32_t>(frame.bytes().size());
    options.repeat = runs;
    Program::check(bpf_prog_test_run_opts(program.get(), &options), "run a program");
    return options.duration;
}

void print(const char *what, uint32_t cost)
{
    std::printf("%-60s %4u ns\n", what, cost);
}

void measure(const Program &program, const char *what, const Frame &frame)
{
    print(what, median([&] { return program.run(frame.bytes(), runs).nanoseconds; }));
}

Frame arp()
{
    return Frame(broadcast).u16(0x0806).zeros(46);
}

Frame udp(unsigned from, unsigned to, const Mac &mac = host)
{
    return Frame(mac).ipv4({.protocol = 17}).udp(from, to).zeros(40);
}

void measureTypes(const Program &program)
{
    measure(program, "ethertype of no type: passed", Frame(host).u16(0x88b5).zeros(46));
    measure(program, "GRE, no type: passed", Frame(host).ipv4({.protocol = 47}).zeros(40));
    measure(program, "UDP, no type: passed", udp(40000, 50000));
    measure(program, "TCP, no entry: passed", Frame(host).ipv4({.protocol = 6}).zeros(40));
    measure(program, "IPv6, two extension headers, no entry: passed",
            Frame(host).ipv6({.next = 0}).extension(60, 0).extension(17, 0).udp(40000, 123));
    measure(program, "ARP, no entry: passed", arp());
    measure(program, "DHCP, no entry: passed", udp(68, 67, broadcast));
}

void measureRules(Program &program)
{
    auto arpRule = [&](const char *what, uint8_t flags, const cpd_settings &packets) {
        program.meter(0, packets, byteSettings(UINT32_MAX, UINT32_MAX));
        program.enforce(only(CPD_ARP, flags));
        measure(program, what, arp());
    };
    arpRule("ARP, denied: dropped", CPD_RULE_DENY, {});
    arpRule("ARP, 0 pps: dropped", CPD_RULE_PACKETS, packetSettings(0));
    for (uint32_t pps : {1u, 200u, 5'000u, 50'000u, 500'000u, 5'000'000u})
        arpRule(("ARP, " + std::to_string(pps) + " pps: most dropped").c_str(), CPD_RULE_PACKETS,
                packetSettings(pps));
    arpRule("ARP, 4294967295 pps: passed", CPD_RULE_PACKETS, packetSettings(UINT32_MAX));
    arpRule("ARP, both policers: passed", CPD_RULE_PACKETS | CPD_RULE_BYTES,
            packetSettings(UINT32_MAX));
}

/** Rules of mixed shapes, none of which selects the frames below. */
AclList mixedList(unsigned rules)
{
    AclList list{1, AclFamily::Ipv4, {}};
    for (unsigned i = 0; i < rules; i++) {
        const std::string net = "10." + std::to_string(i / 256) + "." + std::to_string(i % 256);
        const std::string port = std::to_string(1024 + i);
        const std::string shapes[] = {
            "permit tcp " + net + ".0/24 any port " + port,
            "permit udp any port " + port + "-" + std::to_string(2000 + i) + " " + net + ".7",
            "permit ip " + net + ".0/25 " + net + ".128/25",
            "permit icmp " + net + ".9 any type 8",
        };
        list.rules.push_back(parseAclRule(shapes[i % std::size(shapes)], list.family));
    }
    return list;
}

void measureAcls(Program &program)
{
    auto tables = std::make_unique<cpd_tables>();
    program.meter(0, packetSettings(200));
    cpd_policy policy = only(CPD_SNMP, CPD_RULE_PACKETS);
    policy.acl_count = 1;
    policy.acls[0].flags = CPD_RULE_DENY;
    for (unsigned rules : {1u, 256u, 1024u}) {
        const AclList list = mixedList(rules);
        const AclList *const lists[] = {&list};
        if (compileAcls(lists, *tables) == 0)
            throw std::runtime_error("the rules do not fit");
        program.tables(*tables, 0);
        program.enforce(policy);
        const std::string behind = " behind " + std::to_string(rules) + " ACL rules: ";
        measure(program, ("ARP, no entry," + behind + "passed").c_str(), arp());
        measure(program, ("UDP, no type," + behind + "passed").c_str(), udp(40000, 50000));
        measure(program, ("SNMP, 200 pps," + behind + "dropped").c_str(), udp(40000, 161));
    }
}

void measureLoad()
{
    auto begin = std::chrono::steady_clock::now();
    Program program;
    std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
    std::printf("%-60s %4.0f ms\n", "load", took.count());
}

} // namespace

int main()
try {
    measureLoad();
    print("bare drop", median([] { return bareDrop(arp()); }));
    Program program;
    program.placeNear(1, 0); // as every port that the daemon protects
    measureTypes(program);
    measureRules(program);
    measureAcls(program);
    return 0;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
