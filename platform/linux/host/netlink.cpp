#include "host/netlink.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>

#include "base/failure.h"

namespace zynlinux
{

namespace
{

/** A table or a family of addresses that is not there has nothing in it. */
bool isAbsence(int error)
{
    return error == ENOENT || error == EAFNOSUPPORT || error == EOPNOTSUPP;
}

} // namespace

bool Netlink::list(NetlinkBytes message, const Visit &visit)
try {
    bool whole = true;
    ask(message);
    while (takePart(receive(), visit, whole) == State::Going) {
    }
    return whole;
} catch (const Failure &) {
    socket_ = Descriptor(); // the rest of an answer may still be on its way
    throw;
}

void Netlink::ask(NetlinkBytes message)
{
    constexpr timeval limit{1, 0}; // whatever happens, nobody waits for ever
    if (socket_.get() < 0) {
        socket_ = Descriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
        if (socket_.get() < 0)
            throw Failure("ask for " + what_, errno);
        const int yes = 1; // or the kernel would not look at what is asked for (Linux 4.20)
        setsockopt(socket_.get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &yes, sizeof yes);
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(socket_.get(), message.data(), message.size(), 0,
               reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel) < 0)
        throw Failure("ask for " + what_, errno);
}

/** What the kernel sent next. */
NetlinkBytes Netlink::receive()
{
    for (;;) {
        sockaddr_nl sender{};
        socklen_t length = sizeof sender;
        ssize_t got = recvfrom(socket_.get(), buffer_.data(), buffer_.size(), MSG_TRUNC,
                               reinterpret_cast<sockaddr *>(&sender), &length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            throw Failure("ask for " + what_, errno);
        if (static_cast<size_t>(got) > buffer_.size())
            throw Failure("ask for " + what_, EMSGSIZE);
        if (sender.nl_pid == 0)
            return {buffer_.data(), static_cast<size_t>(got)};
    }
}

/** @param whole becomes false when the list was interrupted */
Netlink::State Netlink::takePart(NetlinkBytes part, const Visit &visit, bool &whole) const
{
    nlmsghdr header{};
    for (NetlinkBytes rest = part; takeFront(rest, header); rest = part) {
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > part.size())
            throw Failure("ask for " + what_, EBADMSG);
        const NetlinkBytes body = rest.first(header.nlmsg_len - sizeof header);
        part = part.subspan(std::min<size_t>(part.size(), NLMSG_ALIGN(header.nlmsg_len)));
        if (header.nlmsg_seq != sequence_)
            continue;
        if (header.nlmsg_flags & NLM_F_DUMP_INTR)
            whole = false;
        const bool done = header.nlmsg_type == NLMSG_DONE;
        const bool ends = done || header.nlmsg_type == NLMSG_ERROR;
        const int error = ends ? -static_cast<int>(numberIn(body)) : 0;
        if (error != 0 && !isAbsence(error))
            throw Failure("ask for " + what_, error);
        if (ends)
            return State::Done;
        visit(header.nlmsg_type, body);
    }
    return State::Going;
}

} // namespace zynlinux
