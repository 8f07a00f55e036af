#include "counted.h"

#include <cstring>
#include <memory>
#include <net/if.h>
#include <optional>
#include <stdexcept>

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <bpf/libbpf.h>

namespace
{

using zynlinux::Descriptor;

constexpr char mapName[] = "cpudefend_stats";

std::vector<uint32_t> mapsOf(const std::string &port)
{
    uint32_t program = 0;
    bpf_xdp_query_id(static_cast<int>(if_nametoindex(port.c_str())), 0, &program);
    const Descriptor fd(bpf_prog_get_fd_by_id(program));
    std::vector<uint32_t> ids(64);
    bpf_prog_info info{};
    uint32_t size = sizeof info;
    info.nr_map_ids = static_cast<uint32_t>(ids.size());
    info.map_ids = reinterpret_cast<uintptr_t>(ids.data());
    const bool known = bpf_obj_get_info_by_fd(fd.get(), &info, &size) == 0;
    ids.resize(known ? std::min<size_t>(info.nr_map_ids, ids.size()) : 0);
    return ids;
}

bpf_map_info infoOf(int map)
{
    bpf_map_info info{};
    uint32_t size = sizeof info;
    bpf_obj_get_info_by_fd(map, &info, &size);
    return info;
}

Descriptor findMap(const std::string &port)
{
    for (uint32_t id : mapsOf(port)) {
        Descriptor map(bpf_map_get_fd_by_id(id));
        if (std::strcmp(infoOf(map.get()).name, mapName) == 0)
            return map;
    }
    throw std::runtime_error("no counters on port " + port);
}

/** Octets from the start of a type to its member of that name, inner ones included. */
std::optional<size_t> offsetOf(const btf *types, uint32_t type, const std::string &name)
{
    const btf_type *outer =
        btf__type_by_id(types, static_cast<uint32_t>(btf__resolve_type(types, type)));
    if (!outer || !btf_is_composite(outer))
        return std::nullopt;
    const btf_member *member = btf_members(outer);
    for (uint32_t i = 0; i < btf_vlen(outer); i++) {
        const size_t at = btf_member_bit_offset(outer, i) / 8;
        if (name == btf__name_by_offset(types, member[i].name_off))
            return at;
        if (const auto inner = offsetOf(types, member[i].type, name))
            return at + *inner;
    }
    return std::nullopt;
}

size_t offsetIn(const bpf_map_info &info, const std::string &name)
{
    const std::unique_ptr<btf, void (*)(btf *)> types(btf__load_from_kernel_by_id(info.btf_id),
                                                      btf__free);
    const auto offset = types ? offsetOf(types.get(), info.btf_value_type_id, name) : std::nullopt;
    if (!offset)
        throw std::runtime_error("the counters have no " + name);
    return *offset;
}

} // namespace

Counted::Counted(const std::string &port) : map_(findMap(port))
{
    const bpf_map_info info = infoOf(map_.get());
    elements_ = info.max_entries;
    size_ = (info.value_size + 7) / 8 * 8;
    passed_ = offsetIn(info, "passed_packets");
    dropped_ = offsetIn(info, "dropped_packets");
    keys_.resize(elements_);
    values_.resize(elements_ * size_ * static_cast<size_t>(libbpf_num_possible_cpus()));
}

Counted::Totals Counted::read()
{
    uint32_t next = 0, count = elements_;
    LIBBPF_OPTS(bpf_map_batch_opts, options);
    if (bpf_map_lookup_batch(map_.get(), nullptr, &next, keys_.data(), values_.data(), &count,
                             &options) != 0 &&
        count != elements_)
        throw std::runtime_error("couldn't read the counters");
    Totals totals{};
    for (size_t at = 0; at < values_.size(); at += size_) {
        uint64_t passed, dropped;
        std::memcpy(&passed, &values_[at + passed_], sizeof passed);
        std::memcpy(&dropped, &values_[at + dropped_], sizeof dropped);
        totals.passed += passed;
        totals.dropped += dropped;
    }
    return totals;
}
