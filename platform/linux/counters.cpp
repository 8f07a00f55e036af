#include "counters.h"

#include <algorithm>
#include <cstring>
#include <net/if.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

namespace zynlinux
{

namespace
{

bool isCounters(int map)
{
    bpf_map_info info{};
    uint32_t size = sizeof info;
    return bpf_obj_get_info_by_fd(map, &info, &size) == 0 &&
           std::strcmp(info.name, countersMapName) == 0 && info.type == BPF_MAP_TYPE_PERCPU_ARRAY &&
           info.max_entries == CPD_TYPES && info.value_size == sizeof(cpd_counters);
}

/** Ids of the maps that a program uses. */
std::vector<uint32_t> mapsOf(uint32_t programId)
{
    Descriptor program(bpf_prog_get_fd_by_id(programId));
    std::vector<uint32_t> ids(16);
    bpf_prog_info info{};
    uint32_t size = sizeof info;
    info.nr_map_ids = static_cast<uint32_t>(ids.size());
    info.map_ids = reinterpret_cast<uintptr_t>(ids.data());
    bool known = program.get() >= 0 && bpf_obj_get_info_by_fd(program.get(), &info, &size) == 0;
    ids.resize(known ? std::min<size_t>(info.nr_map_ids, ids.size()) : 0);
    return ids;
}

cpd_counters &operator+=(cpd_counters &sum, const cpd_counters &more)
{
    sum.passed_packets += more.passed_packets;
    sum.passed_octets += more.passed_octets;
    sum.dropped_packets += more.dropped_packets;
    sum.dropped_octets += more.dropped_octets;
    return sum;
}

} // namespace

Descriptor findCounters(const char *port)
{
    uint32_t id = 0;
    auto ifindex = static_cast<int>(if_nametoindex(port)); // the query takes 0 for any port
    if (ifindex == 0 || bpf_xdp_query_id(ifindex, 0, &id) != 0 || id == 0)
        return Descriptor();
    for (uint32_t each : mapsOf(id)) {
        Descriptor map(bpf_map_get_fd_by_id(each));
        if (map.get() >= 0 && isCounters(map.get()))
            return map;
    }
    return Descriptor();
}

std::vector<cpd_counters> readCounters(int map)
{
    int cpus = libbpf_num_possible_cpus();
    if (cpus < 1)
        return {};
    std::vector<cpd_counters> perCpu(static_cast<size_t>(cpus));
    std::vector<cpd_counters> sums(CPD_TYPES);
    for (uint32_t type = 0; type < CPD_TYPES; type++) {
        if (bpf_map_lookup_elem(map, &type, perCpu.data()) != 0)
            return {};
        for (const cpd_counters &cpu : perCpu)
            sums[type] += cpu;
    }
    return sums;
}

} // namespace zynlinux
