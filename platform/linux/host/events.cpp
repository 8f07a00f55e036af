#include "host/events.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <vector>

#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "base/failure.h"

namespace zynlinux
{

namespace
{

Descriptor checked(int fd, const char *what)
{
    if (fd < 0)
        throw Failure(what, errno);
    return Descriptor(fd);
}

sigset_t ourSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (int each : {SIGHUP, SIGTERM, SIGINT})
        sigaddset(&set, each);
    return set;
}

constexpr uint32_t typeAt = offsetof(nlmsghdr, nlmsg_type);
constexpr uint32_t tableAt = sizeof(nlmsghdr) + offsetof(rtmsg, rtm_table);
constexpr uint32_t kindAt = sizeof(nlmsghdr) + offsetof(rtmsg, rtm_type);

using Code = std::vector<sock_filter>;

/** Of the table `local`. */
const Code localRoutes = {
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, tableAt),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, RT_TABLE_LOCAL, 0, 1),
};

/** Of other tables, and to the host itself: others may change by the thousand. */
const Code otherRoutesToTheHost = {
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, tableAt),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, RT_TABLE_LOCAL, 4, 0),
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kindAt),
    BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, RTN_LOCAL, 0, 2),
    BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, RTN_ANYCAST, 1, 0), // and broadcast in between
};

/** Have a socket hear of no other routes than those that get to the end of a test, and do not jump
 *  over the first instruction behind it. */
void hearOfNoRoutesBut(const Code &test, int socket)
{
    Code code = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, typeAt),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_NEWROUTE), 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, htons(RTM_DELROUTE), 0,
                 static_cast<uint8_t>(test.size())),
    };
    code.insert(code.end(), test.begin(), test.end());
    code.push_back(BPF_STMT(BPF_RET | BPF_K, UINT32_MAX));
    code.push_back(BPF_STMT(BPF_RET | BPF_K, 0));
    const sock_fprog program{static_cast<uint16_t>(code.size()), code.data()};
    setsockopt(socket, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
}

/**
 * Hears of what groups tell. What the messages say does not matter: everybody looks anew. So it
 * does not matter either which of them find no room behind those that wait.
 */
Descriptor networkSocket(uint32_t groups, const Code &routes, const char *what)
{
    Descriptor made =
        checked(socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE), what);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    const int yes = 1;
    hearOfNoRoutesBut(routes, made.get());
    if (setsockopt(made.get(), SOL_NETLINK, NETLINK_NO_ENOBUFS, &yes, sizeof yes) != 0 ||
        bind(made.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw Failure(what, errno);
    return made;
}

constexpr uint32_t routeGroups = RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;

/** The bit of a group that has no name of its own. */
constexpr uint32_t group(rtnetlink_groups number)
{
    return 1u << (number - 1);
}

Descriptor timer(const char *what)
{
    return checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), what);
}

timespec toTimespec(std::chrono::nanoseconds time)
{
    constexpr long perSecond = 1'000'000'000;
    return {time.count() / perSecond, time.count() % perSecond};
}

/** Whether a timer's time is up, or an event has been counted. */
bool isUp(const Descriptor &counter)
{
    uint64_t count;
    return read(counter.get(), &count, sizeof count) == sizeof count;
}

/** So many messages are taken with one call, and so often in a row. */
constexpr unsigned batch = 64;
constexpr int batchesMax = 64;

/** Take messages; of each only the sender matters. @return whether there were any */
bool takeBatch(const Descriptor &socket, bool *fromKernel)
{
    std::array<sockaddr_nl, batch> senders{};
    std::array<mmsghdr, batch> messages{};
    for (unsigned i = 0; i < batch; i++) {
        messages[i].msg_hdr.msg_name = &senders[i];
        messages[i].msg_hdr.msg_namelen = sizeof senders[i];
    }
    int count = recvmmsg(socket.get(), messages.data(), batch, 0, nullptr);
    for (int i = 0; i < count; i++)
        *fromKernel = *fromKernel || senders[static_cast<size_t>(i)].nl_pid == 0;
    return count > 0;
}

/** Take what is there. @return whether there was anything of the kernel's */
bool takeAll(const Descriptor &socket)
{
    bool any = false;
    for (int i = 0; i < batchesMax && takeBatch(socket, &any); i++) {
    }
    return any;
}

} // namespace

// Anycast addresses come and go as a port begins or ceases to forward: its configuration.
Events::Events()
    : all_(checked(epoll_create1(EPOLL_CLOEXEC), "wait for events")),
      links_(networkSocket(RTMGRP_LINK, {}, "hear of ports that come and go")),
      addresses_(networkSocket(RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | routeGroups |
                                   group(RTNLGRP_IPV6_NETCONF),
                               localRoutes, "hear of addresses that come and go")),
      tables_(networkSocket(routeGroups | RTMGRP_IPV4_RULE | group(RTNLGRP_IPV6_RULE),
                            otherRoutesToTheHost, "hear of routes that come and go")),
      rest_(timer("rest")), second_(timer("hear of seconds")),
      call_(checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "be called"))
{
    sigset_t set = ourSignals();
    signals_ = checked(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "wait for signals");
    const itimerspec everySecond{{1, 0}, {1, 0}};
    timerfd_settime(second_.get(), 0, &everySecond, nullptr);
    watch(signals_);
    watch(rest_);
    watch(second_);
    watch(call_);
    watch(links_);
    watch(addresses_);
    watch(tables_);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

Events::~Events()
{
    sigset_t set = ourSignals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void Events::watch(const Descriptor &descriptor) const
{
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll_ctl(all_.get(), EPOLL_CTL_ADD, descriptor.get(), &event) != 0)
        throw Failure("wait for events", errno);
}

/** Whether changes of the network make the descriptor readable. */
void Events::heed(bool network)
{
    epoll_event event{};
    if (network)
        event.events = EPOLLIN;
    for (const Descriptor *each : {&links_, &addresses_, &tables_})
        epoll_ctl(all_.get(), EPOLL_CTL_MOD, each->get(), &event);
    resting_ = !network;
}

void Events::rest(std::chrono::nanoseconds time)
{
    itimerspec once{};
    once.it_value = toTimespec(std::max(time, std::chrono::nanoseconds(1))); // zero would disarm it
    timerfd_settime(rest_.get(), 0, &once, nullptr);
    heed(false);
}

void Events::takeSignals(Happened *happened)
{
    signalfd_siginfo info;
    while (read(signals_.get(), &info, sizeof info) == sizeof info) {
        happened->reload = happened->reload || info.ssi_signo == SIGHUP;
        happened->stop = happened->stop || info.ssi_signo != SIGHUP;
    }
}

void Events::call() const
{
    eventfd_write(call_.get(), 1);
}

Events::Happened Events::take()
{
    Happened happened;
    takeSignals(&happened);
    happened.rested = isUp(rest_);
    happened.second = isUp(second_);
    happened.called = isUp(call_);
    if (happened.rested)
        heed(true);
    if (!resting_) {
        happened.links = takeAll(links_);
        happened.addresses = takeAll(addresses_);
        happened.tables = takeAll(tables_);
    }
    return happened;
}

} // namespace zynlinux
