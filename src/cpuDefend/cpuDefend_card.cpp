/**
 * Cards: the kernel's links are the ports, and a slot's record is there as long as one of its
 * ports is.
 */
#include <errno.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "cpuDefend_array.h"

namespace
{

/** System 0 with slot 0, the system itself, stands for no slot. */
struct tPlace {
    uint32_t sys;
    uint32_t slot;

    bool isSlot() const { return sys != 0 || slot != 0; }
    bool operator==(const tPlace &) const = default;
};

constexpr tPlace NO_SLOT{0, 0};
constexpr uint32_t MAX_NUMBER = 255; // of a system and a slot: what a record can tell apart

struct tLink {
    uint32_t ifUnit;
    tPlace now; /**< NO_SLOT when it is gone */
    tPlace was; /**< when the records last were as the links are */
    bool isListed;
};

cpuDefendArray<tLink> links(&tCpuDefendSystem::useLinkNum); // those in a slot, as they came

/* ---- Records as the links are ----------------------------------------------------------- */

bool isOccupied(const tPlace &place)
{
    for (const tLink &link : links)
        if (link.now == place)
            return true;
    return false;
}

/** Release a slot's record, and what of it would stay behind. */
void release(const tPlace &place)
{
    tCpuDefendSlotEntry *entry = cpuDefendSlotEntryGet(place.sys, place.slot);
    if (!entry)
        return;
    cpuDefendSlotEntryDel(entry);
    timerStop(&gCpuDefend.timerList, &entry->cpuRatControlTimer);
    entry->policyEntry = nullptr; // also when the hardware did not let go: cpuDefendFollow sees to
    entry->policyNameLen = 0;     // that
    memset(entry->policyName, 0, sizeof entry->policyName);
}

/** Release the records of slots whose last port has gone. @return whether there were any */
bool releaseLeft()
{
    bool any = false;
    for (const tLink &link : links)
        if (link.was.isSlot() && !isOccupied(link.was)) {
            release(link.was);
            any = true;
        }
    return any;
}

/** Have a record for a slot that has a port; there is none when the pool is exhausted. */
void provide(const tPlace &place)
{
    tCpuDefendSlotEntry *entry = cpuDefendSlotEntryGet(place.sys, place.slot);
    if (!entry) {
        entry = cpuDefendSlotEntryAdd(place.sys, place.slot);
        if (!entry) {
            NM_DEBUG_OUTPUT("[cpuDefend] slot %u/%u is not protected: all %u slot records are "
                            "taken\r\n",
                            place.sys, place.slot, gCpuDefend.maxSlotNum);
            return;
        }
        entry->selectedPosition = 0; // whatever the record was before: nothing is programmed there
    }
    gCpuDefend.followsCards = 1;
}

/** The records are as the links are. Links that are gone are remembered no more. */
void takeAsIs()
{
    for (uint32_t i = links.count(); i-- > 0;) {
        links[i].was = links[i].now;
        if (!links[i].now.isSlot())
            links.remove(&links[i]);
    }
}

bool isSettled()
{
    for (const tLink &link : links)
        if (!(link.now == link.was))
            return false;
    return true;
}

/** Bring the records in line with the links, and what is programmed with the records. */
void settle()
{
    if (isSettled())
        return;
    zynHwChangeBegin();
    const bool hasRoom = releaseLeft(); // so that slots may get a record now that had found none
    for (const tLink &link : links)
        if (link.now.isSlot() && (hasRoom || !(link.now == link.was)))
            provide(link.now);
    takeAsIs();
    cpuDefendFollow();
    zynHwChangeEnd();
}

/* ---- Links coming and going ------------------------------------------------------------- */

tPlace placeOf(uint32_t ifUnit)
{
    tPhyIfInfo info{};
    if (sysIndexTrans(ifUnit, SYS_INDEX_TRANS_PHY, &info) != 0)
        return NO_SLOT;
    if (info.unit > MAX_NUMBER || info.slot > MAX_NUMBER) { // it would get another slot's record
        CPUDEFEND_DEBUG("[cpuDefend] system %u slot %u is beyond %u!\r\n", info.unit, info.slot,
                        MAX_NUMBER);
        return NO_SLOT;
    }
    return {info.unit, info.slot};
}

tLink *find(uint32_t ifUnit)
{
    for (tLink &link : links)
        if (link.ifUnit == ifUnit)
            return &link;
    return nullptr;
}

/** A link is there: new, or changed in some way, as by a name that puts it somewhere else. */
void isThere(uint32_t ifUnit)
{
    const tPlace place = placeOf(ifUnit);
    tLink *link = find(ifUnit);
    if (link) {
        link->now = place;
        link->isListed = true;
    } else if (place.isSlot() && !links.append({ifUnit, place, NO_SLOT, true})) {
        CPUDEFEND_DEBUG("[cpuDefend] no memory to add port %u!\r\n", ifUnit);
    }
}

void isGone(uint32_t ifUnit)
{
    tLink *link = find(ifUnit);
    if (link)
        link->now = NO_SLOT;
}

/* ---- Messages --------------------------------------------------------------------------- */

/** What is looked at of a message about a link. Its rest may be cut off. */
struct tLinkMessage {
    nlmsghdr header;
    uint8_t family; /**< as the next, part of ifinfomsg */
    uint8_t pad;
    uint16_t type;
    int32_t index;
};
constexpr uint32_t HEADER_LEN = 16;
static_assert(sizeof(nlmsghdr) == HEADER_LEN);
static_assert(sizeof(tLinkMessage) == HEADER_LEN + offsetof(ifinfomsg, ifi_flags));

/** Hand the messages in a buffer to @a visit(message), the last one perhaps in part. */
template <typename Visit> void eachMessage(const unsigned char *buf, size_t left, Visit visit)
{
    while (left >= HEADER_LEN) {
        tLinkMessage message{};
        memcpy(&message, buf, left < sizeof message ? left : sizeof message);
        const uint32_t len = message.header.nlmsg_len;
        if (len < HEADER_LEN)
            return;
        visit(message, left < len ? left : len);
        if (len > left || ((len + 3) & ~3u) >= left)
            return;
        buf += (len + 3) & ~3u;
        left -= (len + 3) & ~3u;
    }
}

/** Take note of a message about a link; others tell nothing here. */
void take(const tLinkMessage &message, size_t len)
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
    eachMessage(buffer, len, [=](const tLinkMessage &message, size_t messageLen) {
        if (message.header.nlmsg_seq != SEQUENCE || *state != Listing::Going)
            return;
        if (message.header.nlmsg_flags & NLM_F_DUMP_INTR)
            *isInterrupted = true;
        if (message.header.nlmsg_type == NLMSG_ERROR)
            *state = Listing::Failed;
        else if (message.header.nlmsg_type == NLMSG_DONE)
            *state = Listing::Complete;
        else
            take(message, messageLen);
    });
}

Listing list(int fd)
{
    Listing state = Listing::Going;
    bool isInterrupted = false; // links came or went meanwhile
    for (tLink &link : links)
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

void cpuDefendCardStart()
{
    if (listAll() == Listing::Complete) {
        for (tLink &link : links)
            if (!link.isListed)
                link.now = NO_SLOT;
    } else {
        CPUDEFEND_DEBUG("[cpuDefend] the links are not all known!\r\n");
    }
    settle();
}

void cpuDefendCardNotify(const unsigned char *buf, int32_t len)
{
    eachMessage(buf, len > 0 ? static_cast<size_t>(len) : 0,
                [](const tLinkMessage &message, size_t messageLen) {
                    take(message, messageLen);
                    settle();
                });
}
