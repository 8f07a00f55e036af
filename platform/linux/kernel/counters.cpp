#include "kernel/counters.h"

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
           info.max_entries == CPD_STATS && info.value_size == sizeof(cpd_stats);
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

namespace
{

/** Sum one element over the CPUs. @return false when it cannot be read */
bool readSum(int map, uint32_t key, cpd_counters *sum)
{
    int cpus = libbpf_num_possible_cpus(); // it asks the system only once
    std::vector<cpd_stats> perCpu(static_cast<size_t>(std::max(0, cpus)));
    *sum = {};
    if (cpus < 1 || bpf_map_lookup_elem(map, &key, perCpu.data()) != 0)
        return false;
    for (const cpd_stats &cpu : perCpu)
        *sum += cpu.counters;
    return true;
}

} // namespace

std::optional<cpd_counters> readCounters(int map, uint32_t target, uint32_t type)
{
    cpd_counters sum;
    bool read = readSum(map, cpd_stats_index(target, type), &sum);
    return read ? std::optional(sum) : std::nullopt;
}

std::vector<cpd_counters> readCounters(int map, uint32_t target)
{
    std::vector<cpd_counters> sums(CPD_TYPES);
    for (uint32_t type = 0; type < CPD_TYPES; type++)
        if (!readSum(map, cpd_stats_index(target, type), &sums[type]))
            return {};
    return sums;
}

} // namespace zynlinux
