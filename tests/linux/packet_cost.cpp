/**
 * Prints what a packet costs in the packet program, in nanoseconds, by the kernel's test runs.
 */
#include <algorithm>
#include <cstdio>
#include <vector>

#include <bpf/bpf.h>

#include "bpf_probe.h"
#include "dataplane.h"
#include "failure.h"
#include "frame.h"

using namespace zynlinux;

namespace
{

constexpr int runs = 2'000'000;
constexpr int rounds = 7;

/** The median over several rounds. */
uint32_t nanoseconds(int program, const Frame &frame)
{
    std::vector<uint32_t> each;
    for (int round = 0; round < rounds; round++) {
        LIBBPF_OPTS(bpf_test_run_opts, options);
        options.data_in = frame.bytes().data();
        options.data_size_in = static_cast<uint32_t>(frame.bytes().size());
        options.repeat = runs;
        if (bpf_prog_test_run_opts(program, &options) != 0)
            throw Failure("run the packet program", errno);
        each.push_back(options.duration);
    }
    std::nth_element(each.begin(), each.begin() + rounds / 2, each.end());
    return each[rounds / 2];
}

void print(const char *what, uint32_t cost)
{
    std::printf("%-48s %4u ns\n", what, cost);
}

tHwCpuDefendPktCarEntry entry(uint32_t pps, uint8_t bit)
{
    tHwCpuDefendPktCarEntry e{};
    e.pktType = CPD_ARP;
    e.pps = pps;
    e.cir = UINT32_MAX;
    e.cbs = UINT32_MAX;
    e.res = bit;
    e.op = ZYN_HW_OP_PERMIT;
    return e;
}

void measure()
{
    Descriptor bare = constantProgram(XDP_DROP);
    if (bare.get() < 0)
        throw Failure("load a packet program", errno);
    const Frame arp = Frame(broadcast).u16(0x0806).zeros(46);
    Frame tcp(host);
    tcp.ipv4({.protocol = 6}).zeros(40);
    Frame dhcp(broadcast);
    dhcp.ipv4({.protocol = 17}).udp(68, 67).zeros(300);

    DataPlane plane;
    print("bare drop", nanoseconds(bare.get(), arp));
    Frame udp(host);
    udp.ipv4({.protocol = 17}).udp(40000, 50000).zeros(40);
    Frame gre(host);
    gre.ipv4({.protocol = 47}).zeros(40);
    Frame options(host);
    options.ipv6({.next = 0}).extension(60, 0).extension(17, 0).udp(40000, 123).zeros(40);

    print("ethertype of no type: passed",
          nanoseconds(plane.program(), Frame(host).u16(0x88b5).zeros(46)));
    print("GRE, no type: passed", nanoseconds(plane.program(), gre));
    print("UDP, no type: passed", nanoseconds(plane.program(), udp));
    print("TCP, no entry: passed", nanoseconds(plane.program(), tcp));
    print("IPv6, two extension headers, no entry: passed", nanoseconds(plane.program(), options));
    print("ARP, no entry: passed", nanoseconds(plane.program(), arp));
    print("DHCP, no entry: passed", nanoseconds(plane.program(), dhcp));
    auto e = entry(200, ZYN_HW_CAR_PPS);
    plane.enforce(CPD_ARP, &e);
    print("ARP, 200 pps: dropped", nanoseconds(plane.program(), arp));
    e = entry(UINT32_MAX, ZYN_HW_CAR_PPS);
    plane.enforce(CPD_ARP, &e);
    print("ARP, 4,294,967,295 pps: passed", nanoseconds(plane.program(), arp));
    e = entry(UINT32_MAX, ZYN_HW_CAR_PPS | ZYN_HW_CAR_CIR);
    plane.enforce(CPD_ARP, &e);
    print("ARP, both policers: passed", nanoseconds(plane.program(), arp));
    e.op = ZYN_HW_OP_DENY;
    plane.enforce(CPD_ARP, &e);
    print("ARP, denied: dropped", nanoseconds(plane.program(), arp));
}

} // namespace

int main()
try {
    measure();
    return 0;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
