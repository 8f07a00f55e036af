/**
 * The packet program itself, loaded for a test, with its maps filled by hand.
 */
#ifndef PROGRAM_H
#define PROGRAM_H

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>

#include "base/descriptor.h"
#include "bpf/acl_lookup.h"
#include "bpf/cpudefend_shared.h"

#include "cpudefend.skel.h"

/** What a test run of the program gave. */
struct Outcome {
    uint32_t verdict = 0;
    std::vector<uint8_t> frame;
    std::optional<cpd_mark> mark;
    uint32_t nanoseconds = 0; /**< for each packet */
};

class Program
{
public:
    using Address = std::array<uint8_t, 16>;

    /** @param samples for each tick; see samples_per_tick */
    explicit Program(uint32_t samples = 0) : skeleton_(cpudefend_bpf__open())
    {
        check(skeleton_ ? 0 : -1, "open the program");
        skeleton_->rodata->samples_per_tick = samples;
        int error = cpudefend_bpf__load(skeleton_.get());
        errno = -error;
        check(error, "load the program");
        void *meter = mmap(nullptr, sizeof(cpd_policer) * CPD_POLICERS, PROT_READ | PROT_WRITE,
                           MAP_SHARED, bpf_map__fd(skeleton_->maps.cpudefend_meter), 0);
        check(meter == MAP_FAILED ? -1 : 0, "reach the policers");
        policers_ = static_cast<cpd_policer *>(meter);
    }

    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    ~Program()
    {
        if (policers_)
            munmap(policers_, sizeof(cpd_policer) * CPD_POLICERS);
    }

    int xdp() const { return bpf_program__fd(skeleton_->progs.cpudefend_xdp); }
    int tc() const { return bpf_program__fd(skeleton_->progs.cpudefend_tc); }
    int ring() const { return bpf_map__fd(skeleton_->maps.cpudefend_ring); }

    cpd_policer &policer(uint32_t index) { return policers_[index]; }

    /** Put a policer pair to use, with full buckets. */
    void meter(uint32_t index, const cpd_settings &packets,
               const cpd_settings &bytes = {1, 0, 0, 0})
    {
        policers_[index] = {{packets, bytes}, {0, 0}};
    }

    void enforce(const cpd_policy &policy, uint32_t target = 0)
    {
        putInner(skeleton_->maps.cpudefend_rules, target, &policy, sizeof(policy));
    }

    void enforceNothing(uint32_t target = 0)
    {
        bpf_map_delete_elem(bpf_map__fd(skeleton_->maps.cpudefend_rules), &target);
    }

    void tables(const cpd_tables &tables, uint32_t set)
    {
        putInner(skeleton_->maps.cpudefend_acls, set, &tables, sizeof(tables), BPF_F_MMAPABLE);
    }

    /** Say in which target a port is, by the long way alone. */
    void place(uint32_t ifindex, uint32_t target, bool segments = false)
    {
        const uint32_t port = cpd_port(target, segments);
        check(bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_ports), &ifindex, &port,
                                  BPF_ANY),
              "place a port");
    }

    /** The same by the short way. */
    void placeNear(uint32_t ifindex, uint32_t target)
    {
        const uint32_t port = cpd_port(target, 0);
        check(bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_near), &ifindex, &port,
                                  BPF_ANY),
              "place a port");
    }

    void own(const Address &address)
    {
        const uint8_t present = 1;
        check(bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_local), address.data(),
                                  &present, BPF_ANY),
              "tell an own address");
    }

    void ownNetwork(const Address &address, uint32_t bits)
    {
        cpd_prefix network{bits, {}};
        std::memcpy(&network.address, address.data(), sizeof network.address);
        const uint8_t present = 1;
        check(bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_nets), &network, &present,
                                  BPF_ANY),
              "tell a network of its own");
    }

    /**
     * @param ifindex of the port by which the frames come; 0: the loopback device
     * @param first   bytes in the first of the frame's buffers; by default all
     */
    Outcome run(const std::vector<uint8_t> &frame, int repeat = 1, uint32_t ifindex = 0,
                size_t first = SIZE_MAX) const
    {
        Outcome result;
        result.frame.resize(frame.size() + 256);
        xdp_md in{}, out{};
        in.data_end = static_cast<uint32_t>(std::min(first, frame.size()));
        in.ingress_ifindex = ifindex;
        LIBBPF_OPTS(bpf_test_run_opts, options);
        options.data_in = frame.data();
        options.data_size_in = static_cast<uint32_t>(frame.size());
        options.data_out = result.frame.data();
        options.data_size_out = static_cast<uint32_t>(result.frame.size());
        options.ctx_in = &in;
        options.ctx_size_in = sizeof(in);
        options.ctx_out = &out;
        options.ctx_size_out = sizeof(out);
        options.repeat = repeat;
        check(bpf_prog_test_run_opts(xdp(), &options), "run the program");
        result.frame.resize(options.data_size_out);
        takeMeta(result, out.data);
        result.verdict = options.retval;
        result.nanoseconds = options.duration;
        return result;
    }

    /** Counters of a target by packet type, CPD_UNREAD and CPD_NO_TYPE too. */
    std::vector<cpd_counters> counters(uint32_t target = 0) const
    {
        return read(cpd_stats_index(target, 0), CPD_STATS_EACH);
    }

    /** Counters of all targets, by cpd_stats_index(). */
    std::vector<cpd_counters> everywhere() const { return read(0, CPD_STATS); }

    static void check(int result, const char *what)
    {
        if (result != 0)
            throw std::runtime_error(std::string("couldn't ") + what + ": " + std::strerror(errno));
    }

private:
    struct Destroy {
        void operator()(cpudefend_bpf *skeleton) const { cpudefend_bpf__destroy(skeleton); }
    };

    /** An element of a map of maps: another map takes the place of the one before. */
    static void putInner(bpf_map *outer, uint32_t index, const void *value, size_t size,
                         uint32_t flags = 0)
    {
        LIBBPF_OPTS(bpf_map_create_opts, options);
        options.map_flags = flags;
        zynlinux::Descriptor inner(bpf_map_create(BPF_MAP_TYPE_ARRAY, "inner", sizeof(uint32_t),
                                                  static_cast<uint32_t>(size), 1, &options));
        check(inner.get() < 0 ? -1 : 0, "make a map");
        const uint32_t first = 0;
        check(bpf_map_update_elem(inner.get(), &first, value, BPF_ANY), "fill a map");
        const int fd = inner.get();
        check(bpf_map_update_elem(bpf_map__fd(outer), &index, &fd, BPF_ANY), "put a map in place");
    }

    /** What the program put before the frame comes out as the first bytes of the data. */
    static void takeMeta(Outcome &run, uint32_t bytes)
    {
        if (bytes == 0)
            return;
        cpd_meta meta;
        if (bytes != sizeof(meta) || run.frame.size() < bytes)
            throw std::runtime_error("metadata of another size");
        std::memcpy(&meta, run.frame.data(), sizeof(meta));
        run.mark = meta.mark;
        run.frame.erase(run.frame.begin(), run.frame.begin() + bytes);
    }

    static void add(cpd_counters &sum, const cpd_counters &each)
    {
        sum.passed_packets += each.passed_packets;
        sum.passed_octets += each.passed_octets;
        sum.dropped_packets += each.dropped_packets;
        sum.dropped_octets += each.dropped_octets;
    }

    /** Elements from one on, each summed over the CPUs. */
    std::vector<cpd_counters> read(uint32_t first, uint32_t count) const
    {
        const uint32_t cpus = static_cast<uint32_t>(libbpf_num_possible_cpus());
        std::vector<cpd_stats> each(size_t{count} * cpus);
        std::vector<uint32_t> keys(count);
        uint32_t before = first - 1, next = 0; // the batch begins behind the former
        LIBBPF_OPTS(bpf_map_batch_opts, options);
        int result = bpf_map_lookup_batch(bpf_map__fd(skeleton_->maps.cpudefend_stats),
                                          first == 0 ? nullptr : &before, &next, keys.data(),
                                          each.data(), &count, &options);
        check(result != 0 && errno != ENOENT ? -1 : 0, "read the counters");
        std::vector<cpd_counters> sums(keys.size());
        for (size_t i = 0; i < each.size(); i++)
            add(sums[i / cpus], each[i].counters);
        return sums;
    }

    std::unique_ptr<cpudefend_bpf, Destroy> skeleton_;
    cpd_policer *policers_ = nullptr;
};

/** A policy in which nothing is in force. */
inline cpd_policy emptyPolicy()
{
    return {};
}

/** A policy that drops every type, and what cannot be judged. */
inline cpd_policy denyAll()
{
    cpd_policy policy{};
    for (cpd_rule &rule : policy.types)
        rule.flags = CPD_RULE_DENY;
    return policy;
}

/** A policy with a rule for one type. */
inline cpd_policy only(int type, uint8_t flags, uint32_t policer = 0)
{
    cpd_policy policy{};
    policy.types[type] = {flags, 0, 0, 0, policer};
    return policy;
}

#endif
