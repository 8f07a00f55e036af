#include "surroundings.h"

#include <linux/netlink.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "cpuDefend.h"

using namespace recorded;

namespace recorded
{

Surroundings *surroundings;

constexpr int32_t FAILURE = EIO, FULL = ENOSPC;

/** Descriptors: nothing is ever done with them. */
enum { FIRST_FD = 900, PACKETS_FD = 980, PLATFORM_FD = 981 };
static int nextFd = FIRST_FD;
static int notifications = -1; // the socket that joined the link group
static bool isListing;         // a list of links was asked for and not given

static std::string place(const tSlotIndex *slot)
{
    if (!slot)
        return "system";
    return std::to_string(slot->sys) + '/' + std::to_string(slot->slot) + '/' +
           std::to_string(slot->type);
}

static std::string hex(const void *data, size_t length)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const auto *at = static_cast<const unsigned char *>(data); length > 0; at++, length--)
        text += {digits[*at >> 4], digits[*at & 15]};
    return text;
}

/** Whether the call that is made now is the one to fail. */
static bool fails()
{
    return surroundings->failIn > 0 && --surroundings->failIn == 0;
}

/* ---- What is programmed ------------------------------------------------------------------- */

struct Acl {
    bool isSlot;
    tSlotIndex slot;
    uint16_t number;
    uint32_t action, cir, cbs, ebs;
};

static uint32_t changeDepth;
static std::vector<Acl> added; // in the change that is on
static std::vector<Acl> dropped;

static std::string carText(const tHwCpuDefendPktCarEntry &car)
{
    char text[200];
    snprintf(text, sizeof text, "type %u cir %u cbs %u pps %u queue %u priority %u op %u bits %02x",
             car.pktType, car.cir, car.cbs, car.pps, car.queue, car.priority, car.op, car.res);
    const U_INT8 *counters[] = {&car.PassPkt, &car.DropPkt, &car.PassOct, &car.DropOct};
    std::string all = text;
    for (const U_INT8 *counter : counters)
        all += ' ' + std::to_string(counter->high) + ':' + std::to_string(counter->low);
    return all;
}

/** The value of a synchronisation call. */
static std::string syncText(const void *value, bool isOctets)
{
    if (!value)
        return "null";
    if (!isOctets) {
        uint32_t number;
        memcpy(&number, value, sizeof number);
        return std::to_string(number);
    }
    octetstring octets;
    memcpy(&octets, value, sizeof octets);
    return '"' + hex(octets.pBuf, octets.len) + '"';
}

/** @param named whether the id says that the value is a name, although the flag does not */
static int32_t sync(const char *what, const std::string &of, uint32_t id, const void *value,
                    uint32_t flag, bool named = false)
{
    const int32_t result = fails() ? FAILURE : 0;
    const std::string text = syncText(value, named || (flag & ZYN_SYNC_OCTETS) != 0);
    printf("* %s %s %u %s flag %x -> %d\n", what, of.c_str(), id, text.c_str(), flag, result);
    return result;
}

static std::string nameOf(const uint8_t *name, uint32_t len)
{
    return '"' + hex(name, len) + '"';
}

/** Drop the newest ACL of the change that ends. */
static void dropOne();

} // namespace recorded

extern "C" {

int32_t __real_zynHwSlotSet(const tSlotIndex *, uint32_t, void *, int32_t);
int32_t __real_zynScalarSetApi(uint32_t, uint32_t, tHwApiFunc *);
int32_t __real_acl_cpudefend_add(const tSlotIndex *, uint16_t, uint32_t, uint32_t, uint32_t,
                                 uint32_t);
int32_t __real_acl_cpudefend_del(const tSlotIndex *, uint16_t, uint32_t, uint32_t, uint32_t,
                                 uint32_t);
int32_t __real_zynHwCarCount(const tSlotIndex *, tHwCpuDefendPktCarEntry *);
void __real_zynHwChangeBegin(void);
int32_t __real_zynHwChangeEnd(void);
int __real_close(int);

int32_t __wrap_zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t flag)
{
    tHwCpuDefendPktCarEntry car;
    memcpy(&car, arg, sizeof car);
    const int32_t result = fails() ? FAILURE : __real_zynHwSlotSet(slot, cmd, arg, flag);
    const char *what = cmd == HW_SLOT_CPUDEFENDPKTCARADD   ? "add"
                       : cmd == HW_SLOT_CPUDEFENDPKTCARDEL ? "del"
                                                           : "?";
    printf("* slot car %s %s flag %d %s -> %d\n", what, place(slot).c_str(), flag,
           carText(car).c_str(), result);
    return result;
}

int32_t __wrap_zynScalarSetApi(uint32_t index, uint32_t cmd, tHwApiFunc *func)
{
    tHwCpuDefendPktCarEntry car;
    memcpy(&car, func->arg, sizeof car);
    const int32_t result = fails() ? FAILURE : __real_zynScalarSetApi(index, cmd, func);
    const char *what = func->hwCmd == HW_SYS_CPUDEFENDPKTCARADD   ? "add"
                       : func->hwCmd == HW_SYS_CPUDEFENDPKTCARDEL ? "del"
                                                                  : "?";
    printf("* car %s %u %u %u %u %u %u %s -> %d\n", what, index, cmd, func->action, func->res,
           func->argLen, func->flag, carText(car).c_str(), result);
    return result;
}

int32_t __wrap_acl_cpudefend_add(const tSlotIndex *slot, uint16_t number, uint32_t action,
                                 uint32_t cir, uint32_t cbs, uint32_t ebs)
{
    const int32_t result =
        fails() ? FAILURE : __real_acl_cpudefend_add(slot, number, action, cir, cbs, ebs);
    printf("* acl add %s %u action %u cir %u cbs %u ebs %u -> %d\n", place(slot).c_str(), number,
           action, cir, cbs, ebs, result);
    if (result == 0)
        added.push_back(
            {slot != nullptr, slot ? *slot : tSlotIndex{}, number, action, cir, cbs, ebs});
    return result;
}

int32_t __wrap_acl_cpudefend_del(const tSlotIndex *slot, uint16_t number, uint32_t action,
                                 uint32_t cir, uint32_t cbs, uint32_t ebs)
{
    const int32_t result =
        fails() ? FAILURE : __real_acl_cpudefend_del(slot, number, action, cir, cbs, ebs);
    printf("* acl del %s %u action %u cir %u cbs %u ebs %u -> %d\n", place(slot).c_str(), number,
           action, cir, cbs, ebs, result);
    return result;
}

int32_t __wrap_zynHwCarCount(const tSlotIndex *slot, tHwCpuDefendPktCarEntry *entry)
{
    const int32_t result = fails() ? FAILURE : __real_zynHwCarCount(slot, entry);
    if (result == 0) {
        entry->PassPkt = {surroundings->dice.below(2), surroundings->dice.below(1000)};
        entry->DropPkt = {0, surroundings->dice.below(1000)};
        entry->PassOct = {0, surroundings->dice.number()};
        entry->DropOct = {surroundings->dice.below(2), surroundings->dice.number()};
    }
    printf("* count %s %s -> %d\n", place(slot).c_str(), carText(*entry).c_str(), result);
    return result;
}

void __wrap_zynHwChangeBegin(void)
{
    puts("* change begin");
    if (changeDepth++ == 0) {
        added.clear();
        dropped.clear();
    }
    __real_zynHwChangeBegin();
}

int32_t __wrap_zynHwChangeEnd(void)
{
    int32_t result = __real_zynHwChangeEnd();
    if (--changeDepth == 0 && !added.empty()) {
        if (surroundings->changeFails > 0 && surroundings->changeFails--)
            result = FULL;
        else if (surroundings->dropsIn > 0 && --surroundings->dropsIn == 0)
            dropOne();
    }
    printf("* change end -> %d\n", result);
    return result;
}

int32_t __wrap_zynHwDropped(uint32_t n, tHwDropped *entry)
{
    const int32_t result = n < dropped.size() ? 0 : ENOENT;
    printf("* dropped %u -> %d\n", n, result);
    if (result != 0)
        return result;
    const Acl &acl = dropped[n];
    *entry = {};
    entry->result = FULL;
    entry->isSlot = acl.isSlot;
    entry->isAcl = 1;
    entry->slot = acl.slot;
    entry->acl = acl.number;
    entry->action = acl.action;
    entry->cir = acl.cir;
    entry->cbs = acl.cbs;
    entry->ebs = acl.ebs;
    return 0;
}

int32_t __wrap_zynHwScalarGet(uint32_t index, uint32_t id, void *)
{
    static const uint32_t roles[] = {HW_SYS_SWRUNNINGROLEISMASTER, HW_SYS_SWRUNNINGROLEISSLAVE, 0};
    const int32_t result = roles[surroundings->role] == id ? 0 : 1;
    printf("* role %u -> %d", id, result);
    puts(index == 0 ? "" : " of another index");
    return result;
}

int32_t __wrap_zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    const int32_t result = fails() ? FAILURE : 0;
    printf("* cpu %u -> %d", selector, result);
    puts(id == HW_CPU_USED ? "" : " of another id");
    if (result == 0)
        *value = selector ? surroundings->percent * 100 + surroundings->hundredths
                          : surroundings->percent;
    return result;
}

int32_t __wrap_zynHwScalarSync(uint32_t index, uint32_t id, const void *value, uint32_t flag)
{
    return sync("sync", std::to_string(index), id, value, flag);
}

int32_t __wrap_zynHwSlotSync(const tSlotIndex *slot, uint32_t id, const void *value, uint32_t flag)
{
    return sync("slot sync", place(slot), id, value, flag, id == 8005 || id == 8007 || id == 8009);
}

int32_t __wrap_zynHwPolicySync(tCpuDefendPolicyIdx *idx, uint32_t id, void *value, uint32_t flag)
{
    return sync("policy sync", nameOf(idx->name, idx->len), id, value, flag);
}

int32_t __wrap_zynHwUserDefinedSync(tcpuDefendUserDefinedIdx *idx, uint32_t id, void *value,
                                    uint32_t flag)
{
    return sync("rule sync",
                nameOf(idx->policyName, idx->policyNameLen) + ' ' + std::to_string(idx->index), id,
                value, flag);
}

int32_t __wrap_zynHwCarPktSync(tcpuDefendCarPktIdx *idx, uint32_t id, void *value, uint32_t flag)
{
    return sync("car sync",
                nameOf(idx->policyName, idx->policyNameLen) + ' ' + std::to_string(idx->pktType),
                id, value, flag);
}

int32_t __wrap_zynHwCpuRatControlSync(void *, uint32_t id, void *value, uint32_t flag)
{
    return sync("level sync", "", id, value, flag);
}

/* ---- Ports, packets, the platform's own work ---------------------------------------------- */

int32_t __wrap_sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    const auto port = surroundings->ports.find(ifUnit);
    const bool known = mode == SYS_INDEX_TRANS_PHY && port != surroundings->ports.end();
    printf("* place of %u -> %d\n", ifUnit, known ? 0 : 1);
    if (!known)
        return 1;
    *info = tPhyIfInfo{port->second.first, port->second.second, ifUnit, 0, 0, 0, 0};
    return 0;
}

int32_t __wrap_zynPlatformFd(void)
{
    return PLATFORM_FD;
}

int32_t __wrap_zynPlatformRun(void)
{
    surroundings->platformIsDue = false;
    printf("* platform -> %d\n", surroundings->portsMoved);
    return surroundings->portsMoved;
}

int32_t __wrap_zynPktOpen(void)
{
    return PACKETS_FD;
}

int32_t __wrap_zynPktRecv(packet_rxpktinfo *info, uint16_t *protocol, unsigned char *buf,
                          uint32_t size)
{
    if (surroundings->packets.empty())
        return 0;
    const Packet packet = surroundings->packets.front();
    surroundings->packets.pop_front();
    *info = packet.info;
    *protocol = packet.protocol;
    memset(buf, 0, size);
    memcpy(buf, packet.frame.data(), std::min<size_t>(size, packet.frame.size()));
    printf("* packet on %u of %zu bytes\n", info->pkt_inport, packet.frame.size());
    return static_cast<int32_t>(packet.frame.size());
}

void __wrap_zynPktTraced(uint32_t used, uint32_t most)
{
    printf("* traced %u of %u\n", used, most);
}

/* ---- Messages ------------------------------------------------------------------------------- */

/** One line of its own; source lines are left out, as they may move. */
void __wrap_NM_DEBUG_OUTPUT(const char *format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::string line;
    for (const char *at = text; *at; at++) {
        if (*at == '\r' || *at == '\n')
            line += *at == '\r' ? "\\r" : "\\n";
        else
            line += *at;
        if (line.size() >= 5 && line.compare(line.size() - 5, 5, "line ") == 0 && at[1] >= '0' &&
            at[1] <= '9') {
            line += '#';
            while (at[1] >= '0' && at[1] <= '9')
                at++;
        }
    }
    printf("! %s\n", line.c_str());
}

/* ---- Sockets -------------------------------------------------------------------------------- */

int __wrap_socket(int domain, int, int)
{
    printf("* socket of domain %d\n", domain);
    if (nextFd == PACKETS_FD)
        nextFd = FIRST_FD + 10;
    return nextFd++;
}

int __wrap_close(int fd)
{
    return fd >= FIRST_FD ? 0 : __real_close(fd);
}

int __wrap_bind(int, const sockaddr *, socklen_t)
{
    return 0;
}

int __wrap_listen(int, int)
{
    return 0;
}

int __wrap_unlink(const char *)
{
    return 0;
}

int __wrap_setsockopt(int fd, int level, int option, const void *, socklen_t)
{
    if (level == SOL_NETLINK && option == NETLINK_ADD_MEMBERSHIP)
        notifications = fd;
    return 0;
}

/** A request for the list of links. */
ssize_t __wrap_sendto(int, const void *data, size_t length, int, const sockaddr *, socklen_t)
{
    puts("* listing");
    nlmsghdr header;
    memcpy(&header, data, sizeof header);
    isListing = true;
    return static_cast<ssize_t>(length);
}

static ssize_t given(const std::string &datagram, void *buf, size_t size)
{
    memcpy(buf, datagram.data(), std::min(size, datagram.size()));
    return static_cast<ssize_t>(std::min(size, datagram.size()));
}

/** The list, all of it at once. */
static ssize_t receiveList(void *buf, size_t size)
{
    const uint32_t how = surroundings->listing;
    surroundings->listing = 0;
    if (!isListing || how == 2) {
        errno = EAGAIN;
        return -1;
    }
    isListing = false;
    const uint16_t flags = how == 1 ? NLM_F_DUMP_INTR : 0;
    return given(linkList(surroundings->links, 1, flags), buf, size);
}

static ssize_t receiveNotification(void *buf, size_t size, sockaddr *from)
{
    if (surroundings->overrun || surroundings->datagrams.empty()) {
        errno = surroundings->overrun ? ENOBUFS : EAGAIN;
        surroundings->overrun = false;
        return -1;
    }
    reinterpret_cast<sockaddr_nl *>(from)->nl_pid = surroundings->sender;
    const std::string datagram = surroundings->datagrams.front();
    surroundings->datagrams.pop_front();
    return given(datagram, buf, size);
}

ssize_t __wrap_recvfrom(int fd, void *buf, size_t size, int, sockaddr *from, socklen_t *)
{
    return fd == notifications ? receiveNotification(buf, size, from) : receiveList(buf, size);
}

/** What is readable, at once. */
int __wrap_select(int nfds, fd_set *readable, fd_set *, fd_set *, timeval *)
{
    int count = 0;
    for (int fd = 0; fd < nfds; fd++) {
        const bool is =
            (fd == notifications && (surroundings->overrun || !surroundings->datagrams.empty())) ||
            (fd == PLATFORM_FD && surroundings->platformIsDue) ||
            (fd == PACKETS_FD && !surroundings->packets.empty());
        if (FD_ISSET(fd, readable) && is)
            count++;
        else
            FD_CLR(fd, readable);
    }
    return count;
}

} // extern "C"

namespace recorded
{

static void dropOne()
{
    const Acl acl = added.back();
    const tSlotIndex *slot = acl.isSlot ? &acl.slot : nullptr;
    if (__real_acl_cpudefend_del(slot, acl.number, acl.action, acl.cir, acl.cbs, acl.ebs) == 0)
        dropped.push_back(acl);
}

} // namespace recorded
