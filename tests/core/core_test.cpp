#include "core_test.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "invariants.h"

/* ---- Seams ---------------------------------------------------------------------------- */

namespace seam
{

bool armed, debugging, noPolicies;
std::vector<Call> calls;
std::map<std::pair<std::string, int>, long> fail;
int blocks;
int semDepth;
int semTakes;
std::vector<Hook> hooks;
int32_t hookResult;
std::optional<std::deque<Datagram>> datagrams;
int requests;

static std::vector<int> opened;

void closeSockets()
{
    while (!opened.empty())
        close(opened.back());
}

std::vector<int> sockets()
{
    return opened;
}

/** The result that this call of @a function is to have, if any. */
static std::optional<long> planned(const std::string &function)
{
    if (!armed)
        return std::nullopt;
    int nth = 0;
    for (const Call &call : calls)
        nth += call.function == function;
    auto found = fail.find({function, nth});
    if (found == fail.end())
        return std::nullopt;
    errno = failure;
    return found->second;
}

static void note(const std::string &function, std::vector<long> args, long result,
                 const std::string &address = "", long mask = 0)
{
    if (armed)
        calls.push_back({function, std::move(args), address, mask, result});
}

static Hook hook(const char *table, const uint8_t *name, uint32_t len, uint32_t id, const void *var,
                 uint32_t flag)
{
    Hook call{table, std::string(reinterpret_cast<const char *>(name), len), 0, id, flag, 0, ""};
    if (flag & ZYN_SYNC_OCTETS) {
        octetstring octets;
        memcpy(&octets, var, sizeof octets);
        call.octets.assign(reinterpret_cast<const char *>(octets.pBuf), octets.len);
    } else {
        memcpy(&call.number, var, sizeof call.number);
    }
    return call;
}

} // namespace seam

extern "C" {

void *__real_calloc(size_t count, size_t size);
void __real_free(void *block);
int __real_socket(int domain, int type, int protocol);
int __real_close(int fd);
int __real_bind(int fd, const sockaddr *address, socklen_t len);
int __real_listen(int fd, int backlog);
int __real_setsockopt(int fd, int level, int option, const void *value, socklen_t len);
ssize_t __real_sendto(int fd, const void *data, size_t len, int flags, const sockaddr *address,
                      socklen_t addressLen);
ssize_t __real_recvfrom(int fd, void *buf, size_t len, int flags, sockaddr *address,
                        socklen_t *addressLen);
tOsixSemId __real_OsixCreateMSem(uint32_t options);
void __real_OsixDeleteSem(tOsixSemId sem);
int32_t __real_OsixTakeSem(tOsixSemId sem, int32_t wait);
int32_t __real_OsixGiveSem(tOsixSemId sem);

static void *tracked[16]; /* blocks counted by seam::blocks */

void *__wrap_calloc(size_t count, size_t size)
{
    if (!seam::armed)
        return __real_calloc(count, size);
    void *block = seam::planned("calloc") ? nullptr : __real_calloc(count, size);
    seam::note("calloc", {static_cast<long>(count), static_cast<long>(size)}, block != nullptr);
    for (void *&place : tracked)
        if (block && !place) {
            place = block;
            seam::blocks++;
            break;
        }
    return block;
}

void __wrap_free(void *block)
{
    for (void *&place : tracked)
        if (block && place == block) {
            place = nullptr;
            seam::blocks--;
        }
    __real_free(block);
    if (seam::armed)
        errno = ECHILD; /* as a C library may */
}

int __wrap_socket(int domain, int type, int protocol)
{
    std::optional<long> result = seam::planned("socket");
    if (!result) {
        result = __real_socket(domain, type, protocol);
        if (*result >= 0)
            seam::opened.push_back(static_cast<int>(*result));
    }
    seam::note("socket", {domain, type, protocol}, *result);
    return static_cast<int>(*result);
}

int __wrap_close(int fd)
{
    std::erase(seam::opened, fd);
    return __real_close(fd);
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t len)
{
    std::optional<long> result = seam::planned("bind");
    if (!result)
        result = __real_bind(fd, address, len);
    const mode_t mask = umask(0);
    umask(mask);
    seam::note("bind", {fd, static_cast<long>(len)}, *result,
               std::string(reinterpret_cast<const char *>(address), len), mask);
    return static_cast<int>(*result);
}

int __wrap_listen(int fd, int backlog)
{
    std::optional<long> result = seam::planned("listen");
    if (!result)
        result = __real_listen(fd, backlog);
    seam::note("listen", {fd, backlog}, *result);
    return static_cast<int>(*result);
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t len)
{
    std::optional<long> result = seam::planned("setsockopt");
    if (!result)
        result = __real_setsockopt(fd, level, option, value, len);
    int32_t number = 0;
    if (len == sizeof number)
        memcpy(&number, value, sizeof number);
    seam::note("setsockopt", {fd, level, option, number, static_cast<long>(len)}, *result);
    return static_cast<int>(*result);
}

ssize_t __wrap_sendto(int fd, const void *data, size_t len, int flags, const sockaddr *address,
                      socklen_t addressLen)
{
    if (!seam::datagrams)
        return __real_sendto(fd, data, len, flags, address, addressLen);
    seam::requests++;
    return static_cast<ssize_t>(len);
}

ssize_t __wrap_recvfrom(int fd, void *buf, size_t len, int flags, sockaddr *address,
                        socklen_t *addressLen)
{
    if (!seam::datagrams)
        return __real_recvfrom(fd, buf, len, flags, address, addressLen);
    if (seam::datagrams->empty()) {
        errno = EAGAIN;
        return -1;
    }
    const seam::Datagram datagram = seam::datagrams->front();
    seam::datagrams->pop_front();
    const size_t received = std::min(len, datagram.data.size());
    memcpy(buf, datagram.data.data(), received);
    sockaddr_nl sender{};
    sender.nl_family = AF_NETLINK;
    sender.nl_pid = datagram.senderPort;
    memcpy(address, &sender, std::min<size_t>(*addressLen, sizeof sender));
    *addressLen = sizeof sender;
    return static_cast<ssize_t>(flags & MSG_TRUNC ? datagram.data.size() : received);
}

tOsixSemId __wrap_OsixCreateMSem(uint32_t options)
{
    tOsixSemId sem = nullptr;
    if (!seam::planned("OsixCreateMSem")) {
        const bool wasArmed = seam::armed;
        seam::armed = false; /* what the semaphore allocates is not the daemon's */
        sem = __real_OsixCreateMSem(options);
        seam::armed = wasArmed;
    }
    seam::note("OsixCreateMSem", {static_cast<long>(options)}, sem != nullptr);
    gCpuDefend.cpuDefendDebug = seam::armed && seam::debugging;
    if (seam::armed && seam::noPolicies)
        INIT_LIST_HEAD(&gCpuDefend.policyFreeList);
    return sem;
}

void __wrap_OsixDeleteSem(tOsixSemId sem)
{
    if (sem)
        seam::note("OsixDeleteSem", {}, 0);
    __real_OsixDeleteSem(sem);
}

int32_t __wrap_OsixTakeSem(tOsixSemId sem, int32_t wait)
{
    EXPECT_EQ(wait, OSIX_WAIT_FOREVER);
    seam::semTakes++;
    seam::semDepth++;
    return __real_OsixTakeSem(sem, wait);
}

int32_t __wrap_OsixGiveSem(tOsixSemId sem)
{
    seam::semDepth--;
    return __real_OsixGiveSem(sem);
}

int32_t __wrap_zynHwPolicySync(tCpuDefendPolicyIdx *idx, uint32_t id, void *var, uint32_t flag)
{
    seam::hooks.push_back(seam::hook("policy", idx->name, idx->len, id, var, flag));
    return seam::hookResult;
}

int32_t __wrap_zynHwCarPktSync(tcpuDefendCarPktIdx *idx, uint32_t id, void *var, uint32_t flag)
{
    seam::hooks.push_back(seam::hook("carPkt", idx->policyName, idx->policyNameLen, id, var, flag));
    seam::hooks.back().pktType = idx->pktType;
    return seam::hookResult;
}

int32_t __wrap_zynHwUserDefinedSync(tcpuDefendUserDefinedIdx *idx, uint32_t id, void *var,
                                    uint32_t flag)
{
    seam::hooks.push_back(
        seam::hook("userDefined", idx->policyName, idx->policyNameLen, id, var, flag));
    return seam::hookResult;
}

} // extern "C"

/* ---- Tables --------------------------------------------------------------------------- */

std::string nameOf(const tCpuDefendPolicyEntry *policy)
{
    return std::string(reinterpret_cast<const char *>(policy->policyName), policy->policyNameLen);
}

tCpuDefendPolicyIdx policyIdx(const std::string &name)
{
    tCpuDefendPolicyIdx idx{};
    memcpy(idx.name, name.data(), name.size() < sizeof idx.name ? name.size() : sizeof idx.name);
    idx.len = static_cast<uint32_t>(name.size());
    return idx;
}

tcpuDefendCarPktIdx carIdx(const std::string &name, uint32_t pktType)
{
    const tCpuDefendPolicyIdx policy = policyIdx(name);
    tcpuDefendCarPktIdx idx{};
    memcpy(idx.policyName, policy.name, sizeof idx.policyName);
    idx.policyNameLen = policy.len;
    idx.pktType = pktType;
    return idx;
}

static uint32_t size(const std::string &text)
{
    return static_cast<uint32_t>(text.size());
}

tCpuDefendPolicyEntry *addPolicy(const std::string &name)
{
    return cpuDefendPolicyEntryAdd(bytes(name), size(name));
}

tCpuDefendPolicyEntry *findPolicy(const std::string &name)
{
    return cpuDefendPolicyEntryGet(bytes(name), size(name));
}

tCpuDefendUserDefinedEntry *addRule(const std::string &policy, uint32_t index)
{
    int32_t ret = 0;
    return cpuDefendUserDefinedEntryAdd(bytes(policy), size(policy), index, &ret);
}

tCpuDefendUserDefinedEntry *findRule(const std::string &policy, uint32_t index)
{
    return cpuDefendUserDefinedEntryGet(bytes(policy), size(policy), index);
}

tCpuDefendCarPktEntry *addCar(const std::string &policy, uint32_t pktType)
{
    int32_t ret = 0;
    return cpuDefendCarPktEntryAdd(bytes(policy), size(policy), pktType, &ret);
}

tCpuDefendCarPktEntry *findCar(const std::string &policy, uint32_t pktType)
{
    return cpuDefendCarPktEntryGet(bytes(policy), size(policy), pktType);
}

tCpuDefendPolicyEntry *addBarePolicy(const std::string &name)
{
    tCpuDefendPolicyEntry *policy = addPolicy(name);
    for (tCpuDefendCarPktEntry *entry : carEntries(policy))
        cpuDefendCarPktEntryDel(entry);
    return policy;
}

tCpuDefendSlotEntry *addSlot(uint8_t sysId, uint8_t slotId, const std::string &policyName)
{
    tCpuDefendSlotEntry *slot = list_entry(gCpuDefend.slotFreeList.next, tCpuDefendSlotEntry, node);
    list_del_init(&slot->node);
    list_add_tail(&slot->node, &gCpuDefend.slotList);
    gCpuDefend.useSlotNum++;
    slot->sysId = sysId;
    slot->slotId = slotId;
    slot->policyNameLen = static_cast<uint8_t>(policyName.size());
    memcpy(slot->policyName, policyName.data(), policyName.size());
    return slot;
}

/* ---- Lists ---------------------------------------------------------------------------- */

uint32_t length(const list_head &head)
{
    uint32_t n = 0;
    for (const list_head *link = head.next; link != &head; link = link->next)
        n++;
    return n;
}

std::vector<tCpuDefendCarPktEntry *> carEntries()
{
    std::vector<tCpuDefendCarPktEntry *> found;
    list_for_each_entry(tCpuDefendCarPktEntry, entry, &gCpuDefend.carPktList, node)
        found.push_back(entry);
    return found;
}

std::vector<tCpuDefendCarPktEntry *> carEntries(tCpuDefendPolicyEntry *policy)
{
    std::vector<tCpuDefendCarPktEntry *> found;
    list_for_each_entry(tCpuDefendCarPktEntry, entry, &policy->carPktList, policyNode)
        found.push_back(entry);
    return found;
}

std::vector<tCpuDefendUserDefinedEntry *> rules()
{
    std::vector<tCpuDefendUserDefinedEntry *> found;
    list_for_each_entry(tCpuDefendUserDefinedEntry, entry, &gCpuDefend.userDefinedList, node)
        found.push_back(entry);
    return found;
}

std::vector<tCpuDefendUserDefinedEntry *> rules(tCpuDefendPolicyEntry *policy)
{
    std::vector<tCpuDefendUserDefinedEntry *> found;
    list_for_each_entry(tCpuDefendUserDefinedEntry, entry, &policy->userDefinedList, policyNode)
        found.push_back(entry);
    return found;
}

static std::string key(const tCpuDefendPolicyEntry *policy, unsigned number)
{
    return nameOf(policy) + "/" + std::to_string(number);
}

std::vector<std::string> keys(const std::vector<tCpuDefendCarPktEntry *> &entries)
{
    std::vector<std::string> found;
    for (const tCpuDefendCarPktEntry *entry : entries)
        found.push_back(key(entry->policyEntry, entry->pktType));
    return found;
}

std::vector<std::string> keys(const std::vector<tCpuDefendUserDefinedEntry *> &entries)
{
    std::vector<std::string> found;
    for (const tCpuDefendUserDefinedEntry *entry : entries)
        found.push_back(key(entry->policyEntry, entry->index));
    return found;
}

std::vector<std::string> tenKeys(const std::string &name)
{
    std::vector<std::string> found;
    for (int type = 0; type < 10; type++)
        found.push_back(name + "/" + std::to_string(type));
    return found;
}

std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string> &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/* ---- Management API ------------------------------------------------------------------- */

/** A value as the handlers take it: a number in its first word, or a run of bytes. */
union Value {
    octetstring octets;
    uint32_t number;
};

static Value number(uint32_t value)
{
    Value cell{};
    cell.number = value;
    return cell;
}

static Value octets(std::string &text)
{
    Value cell{};
    cell.octets = {reinterpret_cast<unsigned char *>(text.data()), size(text)};
    return cell;
}

/** Call @a get with a buffer of @a room bytes, behind which there is more that it must leave. */
template <typename Get> static Answer<std::string> readOctets(uint32_t room, Get get)
{
    std::string buffer(room + 64, '~');
    Value cell{};
    cell.octets = {reinterpret_cast<unsigned char *>(buffer.data()), room};
    const int32_t code = get(&cell);
    if (code != 0)
        return {code, ""};
    EXPECT_EQ(cell.octets.pBuf, reinterpret_cast<unsigned char *>(buffer.data()));
    EXPECT_EQ(buffer.substr(cell.octets.len).find_first_not_of('~'), std::string::npos);
    return {code, buffer.substr(0, cell.octets.len)};
}

int32_t setPolicy(const std::string &name, uint32_t cmd, uint32_t value)
{
    tCpuDefendPolicyIdx idx = policyIdx(name);
    Value cell = number(value);
    return cpuDefendPolicySetApi(&idx, cmd, &cell);
}

int32_t setPolicy(const std::string &name, uint32_t cmd, const std::string &text)
{
    tCpuDefendPolicyIdx idx = policyIdx(name);
    std::string copy = text;
    Value cell = octets(copy);
    return cpuDefendPolicySetApi(&idx, cmd, &cell);
}

Answer<uint32_t> getPolicy(const std::string &name, uint32_t cmd)
{
    tCpuDefendPolicyIdx idx = policyIdx(name);
    uint32_t value = untouched;
    const int32_t code = cpuDefendPolicyGetApi(&idx, cmd, &value);
    return {code, value};
}

Answer<std::string> getPolicy(const std::string &name, uint32_t cmd, uint32_t room)
{
    tCpuDefendPolicyIdx idx = policyIdx(name);
    return readOctets(room, [&](Value *cell) { return cpuDefendPolicyGetApi(&idx, cmd, cell); });
}

int32_t setCar(const std::string &name, uint32_t pktType, uint32_t cmd, uint32_t value)
{
    tcpuDefendCarPktIdx idx = carIdx(name, pktType);
    return cpuDefendCarPktSetApi(&idx, cmd, &value);
}

Answer<uint32_t> getCar(const std::string &name, uint32_t pktType, uint32_t cmd)
{
    tcpuDefendCarPktIdx idx = carIdx(name, pktType);
    uint32_t value = untouched;
    const int32_t code = cpuDefendCarPktGetApi(&idx, cmd, &value);
    return {code, value};
}

int32_t setGlobal(uint32_t attr, uint32_t value)
{
    Value cell = number(value);
    return cpuDefendGlobalSetApi(0, attr, &cell.octets);
}

int32_t setGlobal(uint32_t attr, const std::string &text)
{
    std::string copy = text;
    Value cell = octets(copy);
    return cpuDefendGlobalSetApi(0, attr, &cell.octets);
}

int32_t syncGlobal(uint32_t attr, const std::string &text)
{
    std::string copy = text;
    Value cell = octets(copy);
    return cpuDefendGlobalSyncApi(0, attr, &cell.octets);
}

Answer<uint32_t> getGlobal(uint32_t attr)
{
    Value cell = number(untouched);
    const int32_t code = cpuDefendGlobalGetApi(0, attr, &cell.octets);
    uint32_t value;
    memcpy(&value, &cell, sizeof value);
    return {code, value};
}

Answer<std::string> getGlobal(uint32_t attr, uint32_t room)
{
    return readOctets(room,
                      [&](Value *cell) { return cpuDefendGlobalGetApi(0, attr, &cell->octets); });
}

std::vector<std::string> texts(const std::vector<scripted::Record> &records)
{
    std::vector<std::string> lines;
    for (const scripted::Record &record : records)
        lines.push_back(record.text());
    return lines;
}

/* ---- Fixture -------------------------------------------------------------------------- */

static uint64_t clockReading;

uint64_t CoreTest::now()
{
    return clockReading;
}

void CoreTest::SetUp()
{
    clockReading = 1000;
    osClockSet(now);
    restart(8, 2);
}

void CoreTest::restart(uint32_t policies, uint32_t slots)
{
    release();
    ASSERT_EQ(cpuDefendInit(policies, slots), 0);
    scripted::reset();
    seam::semDepth = seam::semTakes = 0;
}

void CoreTest::release()
{
    seam::armed = seam::noPolicies = false;
    seam::calls.clear();
    seam::fail.clear();
    seam::hooks.clear();
    seam::hookResult = 0;
    cpuDefendRelease();
    seam::closeSockets();
}

void CoreTest::TearDown()
{
    EXPECT_EQ(seam::semDepth, 0);
    if (gCpuDefend.policyTable)
        for (const std::string &violation : invariants::violations())
            ADD_FAILURE() << violation;
    release();
    osClockSet(nullptr);
    scripted::reset();
}

void CoreTest::advance(uint32_t ms)
{
    clockReading += ms;
    timerListCheck(&gCpuDefend.timerList);
}
