#include "events.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "failure.h"

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

/** Hears of links and addresses. What the messages say does not matter: everybody looks anew. */
Descriptor networkSocket()
{
    Descriptor made =
        checked(socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE),
                "hear of ports that come and go");
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    // Anycast addresses come and go as a port begins or ceases to forward: its configuration.
    address.nl_groups =
        RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | 1u << (RTNLGRP_IPV6_NETCONF - 1);
    if (bind(made.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw Failure("hear of ports that come and go", errno);
    return made;
}

} // namespace

Events::Events()
    : all_(checked(epoll_create1(EPOLL_CLOEXEC), "wait for events")), network_(networkSocket()),
      alarm_(checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), "set an alarm"))
{
    sigset_t set = ourSignals();
    signals_ = checked(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC), "wait for signals");
    watch(signals_);
    watch(network_);
    watch(alarm_);
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

Events::~Events()
{
    sigset_t set = ourSignals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

void Events::watch(const Descriptor &descriptor)
{
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll_ctl(all_.get(), EPOLL_CTL_ADD, descriptor.get(), &event) != 0)
        throw Failure("wait for events", errno);
}

void Events::alarmIn(std::chrono::nanoseconds time)
{
    constexpr long perSecond = 1'000'000'000;
    itimerspec alarm{};
    alarm.it_value.tv_sec = time.count() / perSecond;
    alarm.it_value.tv_nsec = std::max(1L, time.count() % perSecond); // all zero would disarm it
    timerfd_settime(alarm_.get(), 0, &alarm, nullptr);
}

/** Take all messages. @return whether there was any, or some that got lost */
bool Events::takeNetwork()
{
    bool any = false;
    char message[64]; // the rest of it is cut off
    for (;;) {
        sockaddr_nl sender{};
        socklen_t length = sizeof sender;
        ssize_t got = recvfrom(network_.get(), message, sizeof message, 0,
                               reinterpret_cast<sockaddr *>(&sender), &length);
        if (got < 0 && errno != EINTR && errno != ENOBUFS)
            return any;
        any = any || got < 0 || sender.nl_pid == 0;
    }
}

void Events::takeSignals(Happened *happened)
{
    signalfd_siginfo info;
    while (read(signals_.get(), &info, sizeof info) == sizeof info) {
        happened->reload = happened->reload || info.ssi_signo == SIGHUP;
        happened->stop = happened->stop || info.ssi_signo != SIGHUP;
    }
}

Events::Happened Events::take()
{
    Happened happened;
    uint64_t expirations;
    takeSignals(&happened);
    happened.network = takeNetwork();
    happened.timeUp = read(alarm_.get(), &expirations, sizeof expirations) == sizeof expirations;
    return happened;
}

} // namespace zynlinux
