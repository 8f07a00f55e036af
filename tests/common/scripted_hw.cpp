#include "scripted_hw.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace scripted
{

Script script;
std::vector<Record> calls;
std::vector<Record> counted;
uint32_t changeDepth, changes, changesEnded;
size_t packetsTaken, platformRuns;
std::vector<std::pair<uint32_t, uint32_t>> room;
bool loneEnd;
static std::vector<tHwDropped> dropped; // at the end of the last change

static const char *const callNames[] = {"SlotSet", "ScalarSet",  "ScalarGet",
                                        "CpuGet",  "ScalarSync", "SlotSync",
                                        "AclAdd",  "AclDel",     "CarCount"};

std::string Record::text() const
{
    std::ostringstream out;
    out << callNames[static_cast<int>(call)];
    if (slot)
        out << " slot " << slot->first << '/' << slot->second;
    else
        out << " system";
    switch (call) {
    case Call::AclAdd:
    case Call::AclDel:
        out << " acl=" << acl << " action=" << action << " cir=" << cir << " cbs=" << cbs
            << " ebs=" << ebs;
        break;
    case Call::SlotSet:
    case Call::ScalarSet:
        out << " cmd=" << cmd << " type=" << car.pktType << " cir=" << car.cir << " cbs=" << car.cbs
            << " pps=" << car.pps << " queue=" << +car.queue << " priority=" << +car.priority
            << " op=" << +car.op << " bit=" << +car.res;
        break;
    default:
        out << " id=" << cmd << " flag=" << flag << " number=" << number << " octets=" << octets;
    }
    return out.str();
}

void reset()
{
    script = Script();
    calls.clear();
    counted.clear();
    changeDepth = changes = changesEnded = 0;
    packetsTaken = platformRuns = 0;
    room.clear();
    loneEnd = false;
    dropped.clear();
}

std::vector<Record> programming()
{
    std::vector<Record> found;
    for (const Record &record : calls)
        switch (record.call) {
        case Call::SlotSet:
        case Call::ScalarSet:
        case Call::AclAdd:
        case Call::AclDel: found.push_back(record); break;
        default: break;
        }
    return found;
}

size_t count(Call call)
{
    size_t n = 0;
    for (const Record &record : calls)
        n += record.call == call;
    return n;
}

/** Record a call and find its answer; role queries and readings are not counted by failAt. */
static int32_t answer(Record record)
{
    if (script.answer)
        return script.answer(record);
    size_t nth = 0;
    for (const Record &earlier : calls)
        nth += earlier.call != Call::ScalarGet && earlier.call != Call::CpuGet;
    if (auto all = script.failAll.find(record.call); all != script.failAll.end())
        record.result = all->second;
    if (auto at = script.failAt.find(nth); at != script.failAt.end())
        record.result = at->second;
    calls.push_back(record);
    return record.result;
}

static Record about(Call call, const tSlotIndex *slot, uint32_t cmd, uint32_t flag)
{
    Record record{};
    record.call = call;
    if (slot) {
        record.slot = {slot->sys, slot->slot};
        record.slotType = slot->type;
    }
    record.cmd = cmd;
    record.flag = flag;
    record.change = changeDepth > 0 ? changes : 0;
    return record;
}

static U_INT8 halves(uint64_t number)
{
    return {static_cast<uint32_t>(number >> 32), static_cast<uint32_t>(number)};
}

static Record sync(Call call, const tSlotIndex *slot, uint32_t id, const void *value, uint32_t flag)
{
    Record record = about(call, slot, id, flag);
    const bool slotName = call == Call::SlotSync && (id == 8005 || id == 8007 || id == 8009);
    if ((flag & ZYN_SYNC_OCTETS) || slotName) {
        octetstring octets;
        memcpy(&octets, value, sizeof octets);
        record.octets.assign(reinterpret_cast<const char *>(octets.pBuf), octets.len);
    } else if (value) {
        record.isNumber = true;
        memcpy(&record.number, value, sizeof record.number);
    }
    return record;
}

static int32_t acl(Call call, const tSlotIndex *slot, uint16_t number, uint32_t action,
                   uint32_t cir, uint32_t cbs, uint32_t ebs)
{
    Record record = about(call, slot, 0, 0);
    record.acl = number;
    record.action = action;
    record.cir = cir;
    record.cbs = cbs;
    record.ebs = ebs;
    return answer(record);
}

} // namespace scripted

using namespace scripted;

int32_t zynPlatformInit(char *const[])
{
    return 0;
}

int32_t zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t flag)
{
    Record record = about(Call::SlotSet, slot, cmd, static_cast<uint32_t>(flag));
    memcpy(&record.car, arg, sizeof record.car);
    return answer(record);
}

int32_t zynScalarSetApi(uint32_t, uint32_t, tHwApiFunc *func)
{
    Record record = about(Call::ScalarSet, nullptr, func->hwCmd, func->flag);
    record.descriptor = *func;
    memcpy(&record.car, func->arg, sizeof record.car);
    return answer(record);
}

int32_t zynHwCarCount(const tSlotIndex *slot, tHwCpuDefendPktCarEntry *entry)
{
    Record record = about(Call::CarCount, slot, 0, 0);
    memcpy(&record.car, entry, sizeof record.car);
    if (auto all = script.failAll.find(Call::CarCount); all != script.failAll.end())
        record.result = all->second;
    counted.push_back(record);
    if (record.result != 0)
        return record.result;
    auto found = script.counts.find({record.slot, entry->pktType});
    const Counts counts = found == script.counts.end() ? Counts{} : found->second;
    if (found != script.counts.end())
        script.counts.erase(found);
    entry->PassPkt = halves(counts.passPkt);
    entry->DropPkt = halves(counts.dropPkt);
    entry->PassOct = halves(counts.passOct);
    entry->DropOct = halves(counts.dropOct);
    return 0;
}

/** Take the front of what is used up in turn; a new one when there is none. */
template <class T> static T next(std::deque<T> &turns)
{
    if (turns.empty())
        return T();
    T taken = turns.front();
    turns.pop_front();
    return taken;
}

void zynHwChangeBegin(void)
{
    changes += changeDepth++ == 0;
    if (changeDepth == 1)
        dropped.clear();
}

int32_t zynHwChangeEnd(void)
{
    if (changeDepth == 0) {
        loneEnd = true;
        return 0;
    }
    if (--changeDepth != 0)
        return 0;
    changesEnded++;
    dropped = script.dropping ? script.dropping() : next(script.drops);
    return next(script.changeEnds);
}

int32_t zynHwDropped(uint32_t n, tHwDropped *found)
{
    if (n >= dropped.size())
        return 2;
    *found = dropped[n];
    return 0;
}

int32_t zynPlatformFd(void)
{
    return script.platformFd;
}

int32_t zynPlatformRun(void)
{
    platformRuns++;
    if (script.platform)
        script.platform();
    return script.portsMoved;
}

int32_t zynPktOpen(void)
{
    return script.pktSock;
}

int32_t zynPktRecv(packet_rxpktinfo *info, uint16_t *protocol, unsigned char *buf, uint32_t size)
{
    if (script.packets.empty())
        return 0;
    const Packet packet = script.packets.front();
    if (script.packets.size() > 1 || !script.flood)
        script.packets.pop_front();
    packetsTaken++;
    *info = packet.info;
    *protocol = packet.protocol;
    memset(buf, 0, size);
    std::copy_n(packet.frame.begin(), std::min<size_t>(size, packet.frame.size()), buf);
    return static_cast<int32_t>(packet.frame.size());
}

void zynPktTraced(uint32_t used, uint32_t most)
{
    room.emplace_back(used, most);
}

int32_t zynHwScalarGet(uint32_t, uint32_t id, void *)
{
    Record record = about(Call::ScalarGet, nullptr, id, 0);
    const uint32_t held = script.slave ? HW_SYS_SWRUNNINGROLEISSLAVE : HW_SYS_SWRUNNINGROLEISMASTER;
    record.result = id == held && !script.noRole ? 0 : 1;
    calls.push_back(record);
    if (script.queried)
        script.queried(record);
    return record.result;
}

int32_t zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    Record record = about(Call::CpuGet, nullptr, id, 0);
    record.selector = selector;
    if (script.queried)
        script.queried(record);
    if (script.answer)
        record.result = script.answer(record);
    std::deque<uint32_t> &readings = script.cpu[selector];
    if (readings.empty())
        record.result = 5;
    if (record.result == 0) {
        *value = readings.front();
        if (readings.size() > 1)
            readings.pop_front();
    }
    calls.push_back(record);
    return record.result;
}

int32_t zynHwScalarSync(uint32_t, uint32_t scalarId, const void *value, uint32_t flag)
{
    return answer(sync(Call::ScalarSync, nullptr, scalarId, value, flag));
}

int32_t zynHwSlotSync(const tSlotIndex *slot, uint32_t scalarId, const void *value, uint32_t flag)
{
    return answer(sync(Call::SlotSync, slot, scalarId, value, flag));
}

int32_t acl_cpudefend_add(const tSlotIndex *slot, uint16_t number, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    return acl(Call::AclAdd, slot, number, action, cir, cbs, ebs);
}

int32_t acl_cpudefend_del(const tSlotIndex *slot, uint16_t number, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    return acl(Call::AclDel, slot, number, action, cir, cbs, ebs);
}

int32_t sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    auto port = script.ports.find(ifUnit);
    if (mode != SYS_INDEX_TRANS_PHY || port == script.ports.end())
        return 1;
    *info = tPhyIfInfo{port->second.first, port->second.second, ifUnit, 0, 0, 0, 0};
    return 0;
}
