#include "addresses.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <sys/socket.h>
#include <utility>

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include "failure.h"

namespace zynlinux
{

namespace
{

/** Which routes lead to the host itself, by family: addresses of its own and networks that it was
 *  told to take for such, broadcast addresses of IPv4, anycast addresses. */
struct OwnRoutes {
    unsigned char family;
    unsigned char type;
};
constexpr OwnRoutes ownRoutes[] = {
    {AF_INET, RTN_LOCAL},  {AF_INET, RTN_BROADCAST}, {AF_INET, RTN_ANYCAST},
    {AF_INET6, RTN_LOCAL}, {AF_INET6, RTN_ANYCAST},
};

struct CloseSocket {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};
using Socket = std::unique_ptr<mnl_socket, CloseSocket>;

Failure askFailure()
{
    return Failure("ask for the routes to the host itself", errno);
}

/** A socket whose requests are answered with what they ask for and nothing else (Linux 4.20). */
Socket openSocket()
{
    Socket made(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    int on = 1;
    if (!made || mnl_socket_bind(made.get(), 0, MNL_SOCKET_AUTOPID) != 0 ||
        mnl_socket_setsockopt(made.get(), NETLINK_GET_STRICT_CHK, &on, sizeof on) != 0)
        throw askFailure();
    return made;
}

/** Of IPv4 as mapped into IPv6. */
Prefix prefixOf(const rtmsg &route, const nlattr *destination)
{
    const bool v4 = route.rtm_family == AF_INET;
    const uint32_t at = v4 ? 12 : 0;
    Prefix prefix;
    prefix.bits = route.rtm_dst_len + 8 * at;
    if (v4)
        prefix.address[10] = prefix.address[11] = 0xff;
    const size_t room = prefix.address.size() - at;
    if (destination && mnl_attr_get_payload_len(destination) == room)
        std::memcpy(&prefix.address[at], mnl_attr_get_payload(destination), room);
    return prefix;
}

int takeDestination(const nlattr *attribute, void *destination)
{
    if (mnl_attr_get_type(attribute) == RTA_DST)
        *static_cast<const nlattr **>(destination) = attribute;
    return MNL_CB_OK;
}

/** One route of an answer. The kernel need not have looked at the type that was asked for. */
int takeRoute(const nlmsghdr *message, void *own)
{
    const auto *route = static_cast<const rtmsg *>(mnl_nlmsg_get_payload(message));
    const bool wanted = route->rtm_type == RTN_LOCAL || route->rtm_type == RTN_BROADCAST ||
                        route->rtm_type == RTN_ANYCAST;
    const nlattr *destination = nullptr;
    mnl_attr_parse(message, sizeof *route, takeDestination, &destination);
    if (wanted)
        static_cast<Prefixes *>(own)->insert(prefixOf(*route, destination));
    return MNL_CB_OK;
}

void ask(mnl_socket *socket, const OwnRoutes &which, unsigned sequence)
{
    char buffer[MNL_NLMSG_HDRLEN + MNL_ALIGN(sizeof(rtmsg))];
    nlmsghdr *request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = sequence;
    auto *route = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    route->rtm_family = which.family;
    route->rtm_type = which.type;
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0)
        throw askFailure();
}

/** Read the answer to its end. @return false when the tables changed meanwhile */
bool read(mnl_socket *socket, unsigned sequence, Prefixes &own)
{
    static char buffer[32'768]; // what the kernel fills for a dump at most
    int more = MNL_CB_OK;
    while (more > MNL_CB_STOP) {
        ssize_t got = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
        if (got < 0)
            throw askFailure();
        more = mnl_cb_run(buffer, static_cast<size_t>(got), sequence, mnl_socket_get_portid(socket),
                          takeRoute, &own);
    }
    if (more < 0 && errno != EINTR)
        throw askFailure();
    return more >= 0;
}

/** Where the kernel has no IPv6, nothing of it is its own. @return false as read() */
bool tryToRead(Prefixes &own)
{
    Socket socket = openSocket();
    unsigned sequence = 0;
    for (const OwnRoutes &which : ownRoutes) {
        ask(socket.get(), which, ++sequence);
        if (!read(socket.get(), sequence, own))
            return false;
    }
    return true;
}

Prefixes readOwn()
{
    for (int tries = 0; tries < 4; tries++)
        if (Prefixes own; tryToRead(own))
            return own;
    throw Failure("ask for the routes to the host itself", "they keep changing");
}

} // namespace

void Addresses::refresh()
{
    if (!plane_.setOwn(readOwn()) && !std::exchange(saidTooMany_, true))
        std::fprintf(stderr,
                     "[platform] warning: of what is the host's own only %u addresses and as many "
                     "networks are known\n",
                     static_cast<unsigned>(CPD_ADDRESSES));
}

} // namespace zynlinux
