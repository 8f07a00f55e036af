#include "dataplane.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <net/if.h>
#include <sys/mman.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/if_link.h>

#include "cpudefend.skel.h"
#include "failure.h"
#include "policer_settings.h"

namespace zynlinux
{

namespace
{

/** The end of what the BPF library had to say: kept back, and shown only with a failure. */
std::string libraryLog;
constexpr size_t libraryLogMax = 4096; // the verifier alone can fill megabytes

__attribute__((format(printf, 2, 0))) int keepLog(libbpf_print_level level, const char *format,
                                                  va_list arguments)
{
    char *text = nullptr;
    if (level == LIBBPF_WARN && vasprintf(&text, format, arguments) >= 0)
        libraryLog += text;
    std::free(text);
    if (libraryLog.size() > libraryLogMax)
        libraryLog.erase(0, libraryLog.size() - libraryLogMax);
    return 0;
}

Failure loadFailure(int error)
{
    std::string reason = std::strerror(error);
    if (error == EPERM || error == EACCES)
        reason += " (this takes root, or the capabilities CAP_BPF, CAP_NET_ADMIN and CAP_PERFMON)";
    return Failure("load the packet program into the kernel", reason + "\n" + libraryLog);
}

/** Elements of a map that user space shares with the program. */
template <class Element> Element *share(bpf_map *map)
{
    size_t size = sizeof(Element) * bpf_map__max_entries(map);
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, bpf_map__fd(map), 0);
    if (memory == MAP_FAILED)
        throw Failure(std::string("share the map ") + bpf_map__name(map), errno);
    return static_cast<Element *>(memory);
}

template <class Element> void unshare(Element *elements)
{
    if (elements)
        munmap(elements, sizeof(Element) * CPD_TYPES);
}

/** Attach the program in the port's mode. @return 0 or an errno value */
int link(Port &port, int program)
{
    LIBBPF_OPTS(bpf_link_create_opts, options);
    options.flags = port.mode == Mode::Native ? XDP_FLAGS_DRV_MODE : XDP_FLAGS_SKB_MODE;
    int fd = bpf_link_create(program, static_cast<int>(port.ifindex), BPF_XDP, &options);
    if (fd < 0)
        return errno;
    port.link = Descriptor(fd);
    return 0;
}

std::string attachReason(int error)
{
    if (error == EBUSY || error == EEXIST)
        return "another XDP program is on it";
    if (error == EOPNOTSUPP)
        return "its driver does not have it";
    return std::strerror(error);
}

/** The clock of bpf_ktime_get_ns. */
uint64_t monotonicNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

/** The policers that an entry puts in force. */
uint32_t policersOf(const tHwCpuDefendPktCarEntry &entry)
{
    uint32_t flags = 0;
    if (entry.res & (ZYN_HW_CAR_CIR | ZYN_HW_CAR_CBS))
        flags |= CPD_RULE_BYTES;
    if (entry.res & ZYN_HW_CAR_PPS || flags == 0)
        flags |= CPD_RULE_PACKETS;
    return flags;
}

} // namespace

DataPlane::DataPlane() : skeleton_(nullptr, cpudefend_bpf__destroy)
{
    libraryLog.clear();
    libbpf_set_print(keepLog);
    skeleton_.reset(cpudefend_bpf__open_and_load());
    if (!skeleton_)
        throw loadFailure(errno);
    rules_ = share<cpd_rule>(skeleton_->maps.cpudefend_rules);
    states_ = share<cpd_state>(skeleton_->maps.cpudefend_state);
}

DataPlane::~DataPlane()
{
    unshare(rules_);
    unshare(states_);
}

const Port &DataPlane::attach(const std::string &name, Mode mode)
{
    uint32_t ifindex = if_nametoindex(name.c_str());
    if (ifindex == 0)
        throw Failure("protect port " + name, errno);

    Port port{name, ifindex, mode == Mode::Auto ? Mode::Native : mode, {}, Descriptor()};
    int error = link(port, program());
    if (error != 0 && mode == Mode::Auto && error != EBUSY && error != EEXIST) {
        port.mode = Mode::Generic;
        port.whyGeneric = attachReason(error);
        error = link(port, program());
    }
    if (error != 0)
        throw Failure("protect port " + name + " in " + modeName(port.mode) + " mode",
                      attachReason(error));
    ports_.push_back(std::move(port));
    return ports_.back();
}

void DataPlane::setPolicer(uint32_t type, cpd_kind kind, const cpd_settings &settings)
{
    std::atomic_ref<__u64> word(states_[type].word[kind]);
    cpd_settings *sets = rules_[type].settings[kind];
    __u64 seen = word.load();
    const cpd_settings before = sets[seen & 1];
    // Packets are judged by the set that the word's turn selects, so the other one is free.
    sets[~seen & 1] = settings;
    while (!word.compare_exchange_weak(seen, carryOver(seen, before, settings, monotonicNow()))) {
    }
}

void DataPlane::enforce(uint32_t type, const tHwCpuDefendPktCarEntry *entry)
{
    uint32_t flags = 0;
    if (entry && entry->op == ZYN_HW_OP_DENY)
        flags = CPD_RULE_DENY;
    else if (entry)
        flags = policersOf(*entry);
    if (flags & CPD_RULE_PACKETS)
        setPolicer(type, CPD_PACKETS, packetSettings(entry->pps));
    if (flags & CPD_RULE_BYTES)
        setPolicer(type, CPD_BYTES, byteSettings(entry->cir, entry->cbs));
    std::atomic_ref<__u32>(rules_[type].flags).store(flags);
}

int DataPlane::program() const
{
    return bpf_program__fd(skeleton_->progs.cpudefend_xdp);
}

int DataPlane::counters() const
{
    return bpf_map__fd(skeleton_->maps.cpudefend_stats);
}

} // namespace zynlinux
