#include "arrivals.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <stdexcept>
#include <sys/mman.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include "arrivals.skel.h"

namespace
{

// Of Linux 6.6, newer than the headers of libbpf that this must build with.
constexpr auto tcxIngress = static_cast<bpf_attach_type>(46);
constexpr auto tcxEgress = static_cast<bpf_attach_type>(47);
constexpr uint32_t beforeAllOthers = 1u << 3;

/** What a packet may wait for between the policer and the counter. */
constexpr Seconds delay = std::chrono::milliseconds(20);

std::runtime_error failure(const std::string &what)
{
    return std::runtime_error("couldn't " + what + ": " + std::strerror(errno));
}

const void *share(const bpf_map *map, size_t size)
{
    void *memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, bpf_map__fd(map), 0);
    if (memory == MAP_FAILED)
        throw failure("share the counters");
    return memory;
}

int keepQuiet(libbpf_print_level, const char *, va_list)
{
    return 0;
}

} // namespace

Arrivals::Arrivals(const std::string &port, Direction direction)
    : skeleton_(nullptr, arrivals_bpf__destroy)
{
    libbpf_set_print(keepQuiet);
    skeleton_.reset(arrivals_bpf__open_and_load());
    if (!skeleton_)
        throw failure("load the counting program");
    totals_ =
        static_cast<const arrival_totals *>(share(skeleton_->maps.totals, sizeof(arrival_totals)));
    log_ = static_cast<const arrival *>(
        share(skeleton_->maps.arrivals, sizeof(arrival) * ARRIVALS_LOG));

    LIBBPF_OPTS(bpf_link_create_opts, options);
    options.flags = beforeAllOthers;
    link_ = zynlinux::Descriptor(
        bpf_link_create(bpf_program__fd(skeleton_->progs.count_arrivals),
                        static_cast<int>(if_nametoindex(port.c_str())),
                        direction == Direction::In ? tcxIngress : tcxEgress, &options));
    if (link_.get() < 0)
        throw failure("count what passes port " + port);
}

Arrivals::~Arrivals()
{
    if (totals_)
        munmap(const_cast<arrival_totals *>(totals_), sizeof(arrival_totals));
    if (log_)
        munmap(const_cast<arrival *>(log_), sizeof(arrival) * ARRIVALS_LOG);
}

uint64_t Arrivals::count(uint16_t protocol) const
{
    return __atomic_load_n(&totals_->by_protocol[protocol], __ATOMIC_RELAXED);
}

uint64_t Arrivals::logged() const
{
    return __atomic_load_n(&totals_->logged, __ATOMIC_ACQUIRE);
}

std::vector<arrival> Arrivals::log() const
{
    return {log_, log_ + std::min<uint64_t>(logged(), ARRIVALS_LOG)};
}

std::vector<arrival> Arrivals::until(uint16_t protocol, Clock::time_point end) const
{
    std::vector<arrival> found;
    for (const arrival &each : log())
        if (each.protocol == protocol && each.time != 0 && each.time < nanoseconds(end))
            found.push_back(each);
    std::sort(found.begin(), found.end(),
              [](const arrival &a, const arrival &b) { return a.time < b.time; });
    return found;
}

std::vector<arrival> Arrivals::all(uint16_t protocol) const
{
    if (logged() > ARRIVALS_LOG)
        throw std::runtime_error("more arrived than the log holds");
    return until(protocol, Clock::time_point::max());
}

unsigned ingressPrograms(const std::string &port)
{
    uint32_t ids[64];
    uint32_t count = 64;
    if (bpf_prog_query(static_cast<int>(if_nametoindex(port.c_str())), tcxIngress, 0, nullptr, ids,
                       &count) != 0)
        throw failure("ask for the programs of port " + port);
    return count;
}

uint64_t nanoseconds(Clock::time_point time)
{
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count());
}

std::vector<arrival> between(const std::vector<arrival> &all, Clock::time_point begin,
                             Clock::time_point end)
{
    std::vector<arrival> found;
    for (const arrival &each : all)
        if (each.time >= nanoseconds(begin) && each.time < nanoseconds(end))
            found.push_back(each);
    return found;
}

uint64_t amount(const std::vector<arrival> &all, Unit unit)
{
    uint64_t sum = 0;
    for (const arrival &each : all)
        sum += unit == Unit::Bytes ? each.length : 1;
    return sum;
}

double excess(const std::vector<arrival> &all, double rate, double bucket, Unit unit)
{
    if (all.empty())
        return -bucket;
    double worst = -bucket;
    double passed = 0; // before the arrival at hand
    double least = 0;  // of what had passed when a window began, less the rate until then
    for (const arrival &each : all) {
        const double allowed = rate * static_cast<double>(each.time - all.front().time) / 1e9;
        least = std::min(least, passed - allowed);
        passed += unit == Unit::Bytes ? each.length : 1;
        worst = std::max(worst, passed - allowed - least - bucket - rate * delay.count());
    }
    return worst;
}
