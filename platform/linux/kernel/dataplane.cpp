#include "kernel/dataplane.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/mman.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "base/failure.h"
#include "cpudefend.skel.h"
#include "zynosal.h"

namespace zynlinux
{

namespace
{

/** The end of what the BPF library had to say: kept back, and shown only with a failure. */
std::string libraryLog;
constexpr size_t libraryLogMax = 4096; // the verifier alone can fill megabytes

constexpr uint64_t samplesPerSecond = 10'000; // of a packet type, on a CPU

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

/** The length of the kernel's tick (ns), which is the coarse clock's resolution. */
uint32_t tickLength()
{
    timespec tick{};
    clock_getres(CLOCK_MONOTONIC_COARSE, &tick);
    return static_cast<uint32_t>(tick.tv_nsec);
}

uint8_t samplesPerTick()
{
    const uint64_t samples = samplesPerSecond * tickLength() / 1'000'000'000;
    return static_cast<uint8_t>(std::clamp<uint64_t>(samples, 1, 255));
}

constexpr char infoName[] = "cpudefend_info";
constexpr char pinnedPrefix[] = "cpudefend_"; // of the maps that outlive a daemon
constexpr uint32_t onlyElement = 0;

/** The kernel's number for a map; 0 for what is none. @param bytes its values must be so long */
uint32_t idOf(int map, size_t bytes)
{
    bpf_map_info info{};
    uint32_t size = sizeof info;
    bool is =
        map >= 0 && bpf_obj_get_info_by_fd(map, &info, &size) == 0 && info.value_size == bytes;
    return is ? info.id : 0;
}

void check(int result, const char *what)
{
    if (result != 0)
        throw Failure(what, errno);
}

} // namespace

uint64_t monotonicNow()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

DataPlane::DataPlane(const PinFolder &pins)
    : skeleton_(nullptr, cpudefend_bpf__destroy), info_(std::make_unique<cpd_info>())
{
    libraryLog.clear();
    libbpf_set_print(keepLog);
    skeleton_.reset(cpudefend_bpf__open());
    if (!skeleton_)
        throw loadFailure(errno);
    if (const auto left = pins.names(pinnedPrefix); !left.empty()) {
        const std::string wrong = wrongWithLeft(pins);
        takenOver_ = wrong.empty();
        if (!takenOver_)
            NM_DEBUG_OUTPUT("[platform] what was left %s: nothing stays in force\n", wrong.c_str());
        for (const std::string &name : left) // its links still hold what it needs
            if (!takenOver_)
                pins.unpin(name);
    }
    load(pins);

    bpf_map *meter = skeleton_->maps.cpudefend_meter;
    void *memory = mmap(nullptr, sizeof(cpd_policer) * CPD_POLICERS, PROT_READ | PROT_WRITE,
                        MAP_SHARED, bpf_map__fd(meter), 0);
    if (memory == MAP_FAILED)
        throw Failure("share the policers with the packet program", errno);
    policers_ = static_cast<cpd_policer *>(memory);

    int info = bpf_map__fd(skeleton_->maps.cpudefend_info);
    if (takenOver_) {
        check(bpf_map_lookup_elem(info, &onlyElement, info_.get()), "read what was left pinned");
        own_ = readOwn();
        return;
    }
    info_->layout = CPD_LAYOUT;
    info_->size = sizeof *info_;
    info_->targets[0].used = 1;
    std::ranges::transform(pinned(), info_->maps, [](bpf_map *map) {
        return idOf(bpf_map__fd(map), bpf_map__value_size(map));
    });
    saveInfo();
}

DataPlane::~DataPlane()
{
    if (policers_)
        munmap(policers_, sizeof(cpd_policer) * CPD_POLICERS);
}

void DataPlane::load(const PinFolder &pins)
{
    skeleton_->rodata->samples_per_tick = samplesPerTick();
    skeleton_->rodata->tick_length = tickLength();
    for (bpf_map *map : pinned())
        if (pins.pins())
            check(bpf_map__set_pin_path(map, pins.path(bpf_map__name(map)).c_str()),
                  "name a pinned map");
    if (int error = cpudefend_bpf__load(skeleton_.get()))
        throw loadFailure(-error);
    bpf_prog_info info{};
    uint32_t size = sizeof info;
    check(bpf_obj_get_info_by_fd(program(), &info, &size), "look at the packet program");
    programId_ = info.id;
}

/** The maps that outlive a daemon. */
std::vector<bpf_map *> DataPlane::pinned() const
{
    std::vector<bpf_map *> maps;
    bpf_map *map;
    bpf_object__for_each_map(
        map, skeleton_->obj) if (std::string_view(bpf_map__name(map)).starts_with(pinnedPrefix))
        maps.push_back(map);
    if (maps.size() > CPD_PINNED_MAPS)
        throw Failure("keep the data plane", "there are too many maps");
    return maps;
}

/** Why this program cannot go on with what lies pinned; empty when it can. */
std::string DataPlane::wrongWithLeft(const PinFolder &pins) const
{
    auto info = std::make_unique<cpd_info>();
    const Descriptor kept = pins.open(infoName);
    if (idOf(kept.get(), sizeof *info) == 0 ||
        bpf_map_lookup_elem(kept.get(), &onlyElement, info.get()) != 0 ||
        info->layout != CPD_LAYOUT || info->size != sizeof *info)
        return "is of another layout";
    const uint32_t *known = info->maps;
    for (bpf_map *map : pinned()) {
        const std::string name = bpf_map__name(map);
        const Descriptor left = pins.open(name);
        if (left.get() < 0)
            return "is not whole (" + name + " is missing)";
        if (idOf(left.get(), bpf_map__value_size(map)) != *known++)
            return "is not whole (" + name + " is another one)";
    }
    return {};
}

size_t DataPlane::pinAgain(const PinFolder &pins, const std::set<std::string> &there) const
{
    size_t count = 0;
    for (bpf_map *map : pinned()) {
        if (there.contains(bpf_map__name(map)))
            continue;
        pins.pin(bpf_map__fd(map), bpf_map__name(map));
        count++;
    }
    return count;
}

void DataPlane::saveInfo()
{
    check(bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_info), &onlyElement,
                              info_.get(), BPF_ANY),
          "keep what the next daemon has to know");
}

int DataPlane::newPolicy(const cpd_policy &policy) const
{
    int map = bpf_map_create(BPF_MAP_TYPE_ARRAY, "cpudefend_rule", sizeof(uint32_t),
                             sizeof(cpd_policy), 1, nullptr);
    if (map < 0)
        throw Failure("make room for a policy in the kernel", errno);
    Descriptor made(map);
    check(bpf_map_update_elem(map, &onlyElement, &policy, BPF_ANY), "hand a policy to the kernel");
    return made.release();
}

PreparedPolicies DataPlane::prepare(const Policies &policies) const
{
    static const cpd_policy withoutRules{};
    PreparedPolicies prepared;
    for (const auto &[target, policy] : policies)
        prepared[target] = Descriptor(newPolicy(policy ? *policy : withoutRules));
    return prepared;
}

void DataPlane::replace(const PreparedPolicies &policies)
{
    std::vector<uint32_t> targets;
    std::vector<int> maps;
    for (const auto &[target, map] : policies) {
        targets.push_back(target);
        maps.push_back(map.get());
    }
    // In one batch the kernel waits only once for the packets that are still being judged.
    auto count = static_cast<uint32_t>(targets.size());
    if (count != 0)
        check(bpf_map_update_batch(bpf_map__fd(skeleton_->maps.cpudefend_rules), targets.data(),
                                   maps.data(), &count, nullptr),
              "put a policy in force");
}

void DataPlane::remove(uint32_t target)
{
    bpf_map_delete_elem(bpf_map__fd(skeleton_->maps.cpudefend_rules), &target);
}

void UnmapTables::operator()(cpd_tables *tables) const
{
    munmap(tables, sizeof *tables);
}

SharedTables DataPlane::makeTables(uint32_t set)
{
    LIBBPF_OPTS(bpf_map_create_opts, options);
    options.map_flags = BPF_F_MMAPABLE;
    Descriptor map(bpf_map_create(BPF_MAP_TYPE_ARRAY, "cpudefend_table", sizeof(uint32_t),
                                  sizeof(cpd_tables), 1, &options));
    if (map.get() < 0)
        throw Failure("make room for ACL tables in the kernel", errno);
    void *memory =
        mmap(nullptr, sizeof(cpd_tables), PROT_READ | PROT_WRITE, MAP_SHARED, map.get(), 0);
    if (memory == MAP_FAILED)
        throw Failure("share ACL tables with the packet program", errno);
    SharedTables tables(static_cast<cpd_tables *>(memory));
    int fd = map.get();
    check(bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_acls), &set, &fd, BPF_ANY),
          "make room for ACL tables in the kernel");
    return tables;
}

void DataPlane::dropTables(uint32_t set)
{
    bpf_map_delete_elem(bpf_map__fd(skeleton_->maps.cpudefend_acls), &set);
}

bool DataPlane::hasTables(uint32_t set) const
{
    uint32_t id;
    return bpf_map_lookup_elem(bpf_map__fd(skeleton_->maps.cpudefend_acls), &set, &id) == 0;
}

void DataPlane::placePort(uint32_t ifindex, uint32_t target, bool segments)
{
    const uint32_t port = cpd_port(target, segments);
    check(
        bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_ports), &ifindex, &port, BPF_ANY),
        "say which slot a port is in");
    check(placeNear(ifindex, port), "say which slot a port is in");
}

void DataPlane::forgetPort(uint32_t ifindex)
{
    placeNear(ifindex, 0);
    bpf_map_delete_elem(bpf_map__fd(skeleton_->maps.cpudefend_ports), &ifindex);
}

/** Where the program looks first. @param port as cpd_port() makes it; 0: nowhere here */
int DataPlane::placeNear(uint32_t ifindex, __u32 port)
{
    if (ifindex >= CPD_NEAR)
        return 0;
    return bpf_map_update_elem(bpf_map__fd(skeleton_->maps.cpudefend_near), &ifindex, &port,
                               BPF_ANY);
}

namespace
{

constexpr uint8_t present = 1;

/** The key of a network; its address, behind the number of bits, is the one of a single address. */
cpd_prefix keyOf(const Prefix &prefix)
{
    cpd_prefix key{};
    key.bits = prefix.bits;
    std::memcpy(&key.address, prefix.address.data(), sizeof key.address);
    return key;
}

const void *keyIn(const Prefix &prefix, const cpd_prefix &key)
{
    return prefix.bits == CPD_ADDRESS_BITS ? static_cast<const void *>(&key.address) : &key;
}

/** All keys of a map. */
template <class Key> std::vector<Key> keysOf(int map)
{
    std::vector<Key> keys;
    Key key;
    for (int result = bpf_map_get_next_key(map, nullptr, &key); result == 0;
         result = bpf_map_get_next_key(map, &key, &key))
        keys.push_back(key);
    return keys;
}

} // namespace

int DataPlane::ownMap(const Prefix &prefix) const
{
    return bpf_map__fd(prefix.bits == CPD_ADDRESS_BITS ? skeleton_->maps.cpudefend_local
                                                       : skeleton_->maps.cpudefend_nets);
}

/** What a former daemon told. */
Prefixes DataPlane::readOwn() const
{
    Prefixes own;
    for (const Address &each : keysOf<Address>(bpf_map__fd(skeleton_->maps.cpudefend_local)))
        own.insert({CPD_ADDRESS_BITS, each});
    for (const cpd_prefix &each : keysOf<cpd_prefix>(bpf_map__fd(skeleton_->maps.cpudefend_nets))) {
        Prefix prefix{each.bits, {}};
        std::memcpy(prefix.address.data(), &each.address, sizeof each.address);
        own.insert(prefix);
    }
    return own;
}

bool DataPlane::setOwn(const Prefixes &prefixes)
{
    std::erase_if(own_, [&](const Prefix &each) {
        const cpd_prefix key = keyOf(each);
        const bool stale = !prefixes.contains(each);
        if (stale)
            bpf_map_delete_elem(ownMap(each), keyIn(each, key));
        return stale;
    });
    for (const Prefix &each : prefixes) {
        const cpd_prefix key = keyOf(each);
        if (!own_.contains(each) &&
            bpf_map_update_elem(ownMap(each), keyIn(each, key), &present, BPF_ANY) == 0)
            own_.insert(each);
    }
    return own_.size() == prefixes.size();
}

void DataPlane::clearCounters(uint32_t target)
{
    std::vector<cpd_stats> zeros(static_cast<size_t>(std::max(0, libbpf_num_possible_cpus())));
    if (zeros.empty())
        return;
    for (uint32_t type = 0; type < CPD_STATS_EACH; type++) {
        uint32_t index = cpd_stats_index(target, type);
        bpf_map_update_elem(counters(), &index, zeros.data(), BPF_ANY);
    }
}

int DataPlane::program() const
{
    return bpf_program__fd(skeleton_->progs.cpudefend_xdp);
}

int DataPlane::tcProgram() const
{
    return bpf_program__fd(skeleton_->progs.cpudefend_tc);
}

int DataPlane::counters() const
{
    return bpf_map__fd(skeleton_->maps.cpudefend_stats);
}

int DataPlane::samples() const
{
    return bpf_map__fd(skeleton_->maps.cpudefend_ring);
}

} // namespace zynlinux
