#include "sockets.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>

#include <linux/icmp.h>

namespace
{

using zynlinux::Descriptor;

std::runtime_error failure(const std::string &what)
{
    return std::runtime_error("couldn't " + what + ": " + std::strerror(errno));
}

Descriptor open(int family, int type, int protocol)
{
    Descriptor fd(socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol));
    if (fd.get() < 0)
        throw failure("open a socket");
    const int room = 16 << 20;
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    return fd;
}

void bindTo(int fd, int family, uint16_t port)
{
    const int on = 1;
    sockaddr_storage any{};
    any.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET6) {
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        reinterpret_cast<sockaddr_in6 *>(&any)->sin6_port = htons(port);
    } else {
        reinterpret_cast<sockaddr_in *>(&any)->sin_port = htons(port);
    }
    const socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (bind(fd, reinterpret_cast<sockaddr *>(&any), length) != 0)
        throw failure("take port " + std::to_string(port));
}

void join4(int fd, const char *group, unsigned device)
{
    ip_mreqn request{};
    inet_pton(AF_INET, group, &request.imr_multiaddr);
    request.imr_ifindex = static_cast<int>(device);
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0)
        throw failure("join a group");
}

void join6(int fd, const char *group, unsigned device)
{
    ipv6_mreq request{};
    inet_pton(AF_INET6, group, &request.ipv6mr_multiaddr);
    request.ipv6mr_interface = device;
    if (setsockopt(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &request, sizeof request) != 0)
        throw failure("join a group of IPv6");
}

void join(int fd, int family, const std::string &device)
{
    const unsigned index = if_nametoindex(device.c_str());
    if (family == AF_INET)
        for (const char *group : {"224.0.0.9", "239.1.1.1"})
            join4(fd, group, index);
    else
        for (const char *group : {"ff02::9", "ff02::1:2"})
            join6(fd, group, index);
}

/** Not the errors and redirects: the host tells itself when a packet claims to come from it. */
void leaveOutErrors(int fd, int protocol)
{
    if (protocol == IPPROTO_ICMP) {
        const icmp_filter errors{1u << ICMP_DEST_UNREACH | 1u << ICMP_SOURCE_QUENCH |
                                 1u << ICMP_REDIRECT | 1u << ICMP_TIME_EXCEEDED |
                                 1u << ICMP_PARAMETERPROB};
        setsockopt(fd, SOL_RAW, ICMP_FILTER, &errors, sizeof errors);
    } else if (protocol == IPPROTO_ICMPV6) {
        icmp6_filter filter;
        ICMP6_FILTER_SETPASSALL(&filter);
        for (int type = ICMP6_DST_UNREACH; type <= ICMP6_PARAM_PROB; type++)
            ICMP6_FILTER_SETBLOCK(type, &filter);
        ICMP6_FILTER_SETBLOCK(ND_REDIRECT, &filter);
        setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter);
    }
}

} // namespace

Descriptor openUdp(int family, uint16_t port, const std::string &device)
{
    Descriptor fd = open(family, SOCK_DGRAM, 0);
    bindTo(fd.get(), family, port);
    join(fd.get(), family, device);
    return fd;
}

Descriptor openRaw(int family, int protocol, const std::string &device)
{
    Descriptor fd = open(family, SOCK_RAW, protocol);
    if (setsockopt(fd.get(), SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
                   static_cast<socklen_t>(device.size())) != 0)
        throw failure("read from " + device + " alone");
    leaveOutErrors(fd.get(), protocol);
    return fd;
}

Descriptor listenTo(int family, uint16_t port)
{
    Descriptor fd = open(family, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    bindTo(fd.get(), family, port);
    if (listen(fd.get(), 128) != 0)
        throw failure("listen");
    return fd;
}
