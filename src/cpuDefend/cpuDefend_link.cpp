/**
 * Links coming and going, as the kernel tells of them and when it is asked.
 */
#include "cpuDefend_link.h"

#include <errno.h>
#include <linux/if_link.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

/* ---- Links coming and going ------------------------------------------------------------- */

constexpr uint32_t MAX_NUMBER = 255; // of a system and a slot: what a record can tell apart

tCpuDefendPlace placeOf(uint32_t ifUnit)
{
    tPhyIfInfo info{};
    if (sysIndexTrans(ifUnit, SYS_INDEX_TRANS_PHY, &info) != 0)
        return CPUDEFEND_NO_SLOT;
    if (info.unit > MAX_NUMBER || info.slot > MAX_NUMBER) { // it would get another slot's record
        CPUDEFEND_DEBUG("[cpuDefend] system %u slot %u is beyond %u!\r\n", info.unit, info.slot,
                        MAX_NUMBER);
        return CPUDEFEND_NO_SLOT;
    }
    return {info.unit, info.slot};
}

tCpuDefendLink *find(uint32_t ifUnit)
{
    for (tCpuDefendLink &link : gCpuDefend.links)
        if (link.ifUnit == ifUnit)
            return &link;
    return nullptr;
}

/** A link is there: new, or changed in some way, as by a name that puts it somewhere else. */
void isThere(uint32_t ifUnit)
{
    const tCpuDefendPlace place = placeOf(ifUnit);
    tCpuDefendLink *link = find(ifUnit);
    if (link) {
        link->now = place;
        link->isListed = true;
    } else if (place.isSlot() &&
               !gCpuDefend.links.append({ifUnit, place, CPUDEFEND_NO_SLOT, true})) {
        CPUDEFEND_DEBUG("[cpuDefend] no memory to add port %u!\r\n", ifUnit);
    }
}

void isGone(uint32_t ifUnit)
{
    tCpuDefendLink *link = find(ifUnit);
    if (link)
        link->now = CPUDEFEND_NO_SLOT;
}

/* ---- Asking for all links --------------------------------------------------------------- */

enum class Listing { Going, Complete, Interrupted, Failed };

constexpr uint32_t SEQUENCE = 1;
constexpr int LISTINGS = 5; // before a list that changes all the time is taken as it is
constexpr uint32_t BUFFER_LEN = 32 * 1024;

unsigned char buffer[BUFFER_LEN];

struct tLinkRequest {
    nlmsghdr header;
    ifinfomsg info;
    rtattr attr;
    uint32_t mask;
};

bool ask(int fd)
{
    tLinkRequest request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = SEQUENCE;
    request.attr.rta_type = IFLA_EXT_MASK;
    request.attr.rta_len = sizeof request.attr + sizeof request.mask;
    request.mask = RTEXT_FILTER_SKIP_STATS;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(fd, &request, sizeof request, 0, reinterpret_cast<sockaddr *>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(sizeof request);
}

/** Receive what the kernel sent. @return its length, below 0 for a failure */
ssize_t receive(int fd)
{
    for (;;) {
        sockaddr_nl sender{};
        socklen_t senderLen = sizeof sender;
        const ssize_t len = recvfrom(fd, buffer, sizeof buffer, MSG_TRUNC,
                                     reinterpret_cast<sockaddr *>(&sender), &senderLen);
        if (len < 0 && errno == EINTR)
            continue;
        if (len > static_cast<ssize_t>(sizeof buffer))
            return -1;
        if (len < 0 || sender.nl_pid == 0)
            return len;
    }
}

/** Take in one part of the list. */
void takePart(size_t len, Listing *state, bool *isInterrupted)
{
    cpuDefendNetlinkEach(buffer, len, [=](const tCpuDefendLinkMessage &message, size_t messageLen) {
        if (message.header.nlmsg_seq != SEQUENCE || *state != Listing::Going)
            return;
        if (message.header.nlmsg_flags & NLM_F_DUMP_INTR)
            *isInterrupted = true;
        if (message.header.nlmsg_type == NLMSG_ERROR)
            *state = Listing::Failed;
        else if (message.header.nlmsg_type == NLMSG_DONE)
            *state = Listing::Complete;
        else
            cpuDefendLinkTake(message, messageLen);
    });
}

Listing list(int fd)
{
    Listing state = Listing::Going;
    bool isInterrupted = false; // links came or went meanwhile
    for (tCpuDefendLink &link : gCpuDefend.links)
        link.isListed = false;
    if (!ask(fd))
        return Listing::Failed;
    while (state == Listing::Going) {
        const ssize_t len = receive(fd);
        if (len <= 0)
            return Listing::Failed;
        takePart(static_cast<size_t>(len), &state, &isInterrupted);
    }
    return state == Listing::Complete && isInterrupted ? Listing::Interrupted : state;
}

/** A socket for the time of the list, on which the kernel is not waited for without end. */
int openSocket()
{
    const int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE);
    const timeval limit{1, 0};
    if (fd >= 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return fd;
}

Listing listAll()
{
    const int fd = openSocket();
    if (fd < 0)
        return Listing::Failed;
    Listing state = Listing::Interrupted;
    for (int i = 0; i < LISTINGS && state == Listing::Interrupted; i++)
        state = list(fd);
    close(fd);
    return state;
}

} // namespace

void cpuDefendLinkTake(const tCpuDefendLinkMessage &message, size_t len)
{
    if (len < sizeof message)
        return;
    const auto ifUnit = static_cast<uint32_t>(message.index);
    if (message.header.nlmsg_type == RTM_NEWLINK)
        isThere(ifUnit);
    // Of another family than none: it has only left a bridge.
    else if (message.header.nlmsg_type == RTM_DELLINK && message.family == AF_UNSPEC)
        isGone(ifUnit);
}

bool cpuDefendLinkListAll()
{
    if (listAll() != Listing::Complete)
        return false;
    for (tCpuDefendLink &link : gCpuDefend.links)
        if (!link.isListed)
            link.now = CPUDEFEND_NO_SLOT;
    return true;
}
