#include "trace/samples.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>

#include <bpf/libbpf.h>

#include "base/failure.h"
#include "zynosal.h"

namespace zynlinux
{

namespace
{

constexpr std::chrono::milliseconds period{5}; // between two looks at the ring
constexpr double perSecond = 9000;             // samples that are read
constexpr double atOnce = 1000;                // and those that may have come together

constexpr char doing[] = "read samples of packets";

Descriptor checked(int fd)
{
    if (fd < 0)
        throw Failure(doing, errno);
    return Descriptor(fd);
}

/** @param time below a second */
timespec timespecOf(std::chrono::nanoseconds time)
{
    return {0, time.count()};
}

} // namespace

Samples::Samples(int ring, const Ports &ports)
    : ports_(ports), ring_(ring_buffer__new(ring, keep, this, nullptr), ring_buffer__free),
      ringDescriptor_(ring), all_(checked(epoll_create1(EPOLL_CLOEXEC))),
      timer_(checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)))
{
    if (!ring_)
        throw Failure(doing, errno);
    watch(EPOLL_CTL_ADD, ring, true);
    watch(EPOLL_CTL_ADD, timer_.get(), true);
}

void Samples::watch(int operation, int fd, bool wanted)
{
    epoll_event event{};
    event.events = wanted ? uint32_t{EPOLLIN} : 0;
    if (epoll_ctl(all_.get(), operation, fd, &event) != 0)
        throw Failure(doing, errno);
}

const cpd_sample *Samples::next()
{
    const cpd_sample *packet = feed_.next();
    if (packet || !isTime())
        return packet;
    gather();
    return feed_.next();
}

bool Samples::isTime()
{
    uint64_t expirations;
    const bool timeUp = read(timer_.get(), &expirations, sizeof expirations) == sizeof expirations;
    return timeUp || !pause_;
}

void Samples::gather()
{
    const auto now = Clock::now();
    const bool any = readRing(now);
    feed_.choose(now);
    wait(any, now);
}

/** Read what is in the ring, within what is allowed. @return whether there was anything */
bool Samples::readRing(Clock::time_point now)
{
    const std::chrono::duration<double> passed = now - gathered_;
    gathered_ = now;
    allowance_ = std::min(allowance_ + passed.count() * perSecond, atOnce);
    if (allowance_ < 1)
        return true;
    const double before = allowance_;
    ring_buffer__consume(ring_.get());
    return allowance_ < before;
}

/** Called for each sample in the ring. @return non-zero to leave the rest there for now */
int Samples::keep(void *self, void *data, size_t size)
{
    auto *samples = static_cast<Samples *>(self);
    cpd_sample sample{};
    std::memcpy(&sample, data, std::min(size, sizeof sample));
    const PortConfig *port = samples->ports_.find(sample.ifindex);
    if (const auto source = port ? sourceOf(sample, *port) : std::nullopt)
        samples->feed_.take(sample, *source, samples->gathered_);
    return --samples->allowance_ < 1 ? -EAGAIN : 0;
}

void Samples::traced(uint32_t used, uint32_t size)
{
    feed_.traced(used, size);
    if (full_.isDue(used >= size, gathered_))
        NM_DEBUG_OUTPUT("[platform] warning: the table of traced sources is full; others are not "
                        "named until it is reset\n");
}

/** Have it told when there is something to do. @param pause leave the ring alone for a while */
void Samples::wait(bool pause, Clock::time_point now)
{
    itimerspec alarm{}; // all zero: none
    if (pause)
        alarm.it_value = timespecOf(period);
    else if (const auto due = feed_.due())
        alarm.it_value = timespecOf(std::max<Clock::duration>(*due - now, period));
    timerfd_settime(timer_.get(), 0, &alarm, nullptr);
    if (pause != std::exchange(pause_, pause))
        watch(EPOLL_CTL_MOD, ringDescriptor_, !pause);
}

} // namespace zynlinux
