#include "hardware.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

namespace chassis
{

Hardware hardware;

std::string numberValue(uint32_t number)
{
    return "#" + std::to_string(number);
}

std::string Call::text() const
{
    static const char *const names[] = {"role", "cpu", "sync", "slot sync", "add", "del"};
    std::ostringstream out;
    out << names[static_cast<int>(kind)];
    if (place)
        out << " (" << place->first << ',' << place->second << ')';
    if (kind == Kind::Add || kind == Kind::Del)
        out << (item.acl ? " acl " : " car ") << item.number << " op " << item.op << " cir "
            << item.cir << " cbs " << item.cbs << " pps " << item.pps << " queue " << item.queue
            << " priority " << item.priority << " bits " << item.bits;
    else
        out << " id " << id << " flag " << std::hex << flag << std::dec << " value '" << value
            << '\'';
    out << " -> " << result;
    return out.str();
}

bool Call::sameAs(const Call &other) const
{
    return kind == other.kind && place == other.place && id == other.id && flag == other.flag &&
           value == other.value && item == other.item;
}

uint32_t Hardware::copies(uint32_t cir) const
{
    uint32_t n = 0;
    for (const auto &[place, items] : held)
        for (const Item &item : items)
            n += !item.acl && item.cir == cir;
    return n;
}

static Place placeOf(const tSlotIndex *slot)
{
    if (!slot)
        return std::nullopt;
    if (slot->type != 0)
        hardware.complaints.push_back("a slot index of another type than 0");
    return std::pair(slot->sys, slot->slot);
}

/** What the call does: add @a item, or remove the newest equal one. */
static int32_t apply(const Call &call)
{
    if (call.kind != Kind::Add && call.kind != Kind::Del)
        return 0;
    std::vector<Item> &items = hardware.held[call.place];
    if (call.kind == Kind::Add) {
        items.push_back(call.item);
        return 0;
    }
    for (size_t i = items.size(); i-- > 0;)
        if (items[i] == call.item) {
            items.erase(items.begin() + static_cast<ptrdiff_t>(i));
            return 0;
        }
    return ENOENT;
}

std::vector<Item> fitting(const std::vector<Item> &items)
{
    std::vector<Item> fit;
    size_t room = hardware.aclRoom;
    for (const Item &item : items)
        if (!item.acl || (room > 0 && room--))
            fit.push_back(item);
    return fit;
}

/** Drop the ACLs for which there is no room, the newest first. */
static void dropUnfitting()
{
    for (auto &[place, items] : hardware.held) {
        const std::vector<Item> fit = fitting(items);
        const size_t room = fit.size();
        std::vector<Item> acls;
        for (const Item &item : items)
            if (item.acl)
                acls.push_back(item);
        for (size_t i = acls.size(); i-- > acls.size() - (items.size() - room);)
            hardware.dropped.emplace_back(place, acls[i]);
        items = fit;
    }
}

static int32_t answer(Call call)
{
    call.result = hardware.failable++ == hardware.failAt ? HARDWARE_FAILURE : apply(call);
    hardware.log.push_back(call);
    return call.result;
}

static int32_t car(bool add, const Place &place, const void *arg)
{
    tHwCpuDefendPktCarEntry entry;
    memcpy(&entry, arg, sizeof entry);
    const U_INT8 counters[] = {entry.PassPkt, entry.DropPkt, entry.PassOct, entry.DropOct};
    for (const U_INT8 &counter : counters)
        if (counter.high != 0 || counter.low != 0)
            hardware.complaints.push_back("a counter is sent");
    return answer({add ? Kind::Add : Kind::Del, place, 0, 0, "",
                   Item{false, entry.pktType, entry.op, entry.cir, entry.cbs, entry.pps,
                        entry.queue, entry.priority, entry.res}});
}

static int32_t acl(Kind kind, const tSlotIndex *slot, uint16_t number, uint32_t op, uint32_t cir,
                   uint32_t cbs, uint32_t ebs)
{
    if (number == 0 || ebs != cbs || (op == ZYN_HW_OP_DENY && (cir != 0 || cbs != 0)))
        hardware.complaints.push_back("an ACL call with odd arguments");
    return answer({kind, placeOf(slot), 0, 0, "", Item{true, number, op, cir, cbs}});
}

static int32_t sync(Kind kind, const tSlotIndex *slot, uint32_t id, const void *value,
                    uint32_t flag)
{
    const bool slotLevelName = kind == Kind::SlotSync && (id == 8005 || id == 8007 || id == 8009);
    std::string text;
    if ((flag & ZYN_SYNC_OCTETS) || slotLevelName) {
        octetstring octets;
        memcpy(&octets, value, sizeof octets);
        text.assign(reinterpret_cast<const char *>(octets.pBuf), octets.len);
    } else {
        uint32_t number;
        memcpy(&number, value, sizeof number);
        text = numberValue(number);
    }
    return answer({kind, placeOf(slot), id, flag, text, {}});
}

} // namespace chassis

using namespace chassis;

int32_t zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t flag)
{
    const bool add = cmd == HW_SLOT_CPUDEFENDPKTCARADD;
    if (!slot || flag != 3 || (!add && cmd != HW_SLOT_CPUDEFENDPKTCARDEL))
        hardware.complaints.push_back("a slot call with odd arguments");
    return car(add, placeOf(slot), arg);
}

int32_t zynScalarSetApi(uint32_t index, uint32_t cmd, tHwApiFunc *func)
{
    const bool add = func->hwCmd == HW_SYS_CPUDEFENDPKTCARADD;
    if (index != 0 || cmd != 0 || func->argLen != 0 || func->action != 0 || func->flag != 0 ||
        (!add && func->hwCmd != HW_SYS_CPUDEFENDPKTCARDEL))
        hardware.complaints.push_back("a system call with odd arguments");
    return car(add, std::nullopt, func->arg);
}

int32_t zynHwCarCount(const tSlotIndex *slot, tHwCpuDefendPktCarEntry *entry)
{
    const Item item{false,      entry->pktType, entry->op,       entry->cir, entry->cbs,
                    entry->pps, entry->queue,   entry->priority, entry->res};
    const std::vector<Item> &items = hardware.held[placeOf(slot)];
    if (std::find(items.begin(), items.end(), item) == items.end())
        return ENOENT;
    entry->PassPkt = entry->DropPkt = entry->PassOct = entry->DropOct = {};
    return 0;
}

void zynHwChangeBegin(void)
{
    if (hardware.changeDepth++ == 0)
        hardware.dropped.clear();
}

int32_t zynHwChangeEnd(void)
{
    if (hardware.changeDepth == 0)
        hardware.complaints.push_back("the end of a change that has not begun");
    else if (--hardware.changeDepth == 0)
        dropUnfitting();
    return 0;
}

int32_t zynHwDropped(uint32_t n, tHwDropped *dropped)
{
    if (n >= hardware.dropped.size())
        return ENOENT;
    const auto &[place, item] = hardware.dropped[n];
    *dropped = {};
    dropped->result = HARDWARE_FULL;
    dropped->isAcl = 1;
    dropped->isSlot = place.has_value();
    if (place)
        dropped->slot = {place->first, place->second, 0};
    dropped->acl = static_cast<uint16_t>(item.number);
    dropped->action = item.op;
    dropped->cir = item.cir;
    dropped->cbs = dropped->ebs = item.cbs;
    return 0;
}

int32_t zynHwScalarGet(uint32_t, uint32_t id, void *)
{
    const uint32_t role =
        hardware.slave ? HW_SYS_SWRUNNINGROLEISSLAVE : HW_SYS_SWRUNNINGROLEISMASTER;
    Call call{Kind::Role, std::nullopt, id, 0, "", {}};
    call.result = id == role ? 0 : 1;
    hardware.log.push_back(call);
    return call.result;
}

int32_t zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    if (id != HW_CPU_USED || selector > 1)
        hardware.complaints.push_back("an unknown CPU reading");
    const int32_t result = answer({Kind::Cpu, std::nullopt, selector, 0, "", {}});
    if (result == 0)
        *value = selector ? hardware.percent * 100 + hardware.hundredths : hardware.percent;
    return result;
}

int32_t zynHwScalarSync(uint32_t, uint32_t scalarId, const void *value, uint32_t flag)
{
    return sync(Kind::ScalarSync, nullptr, scalarId, value, flag);
}

int32_t zynHwSlotSync(const tSlotIndex *slot, uint32_t scalarId, const void *value, uint32_t flag)
{
    return sync(Kind::SlotSync, slot, scalarId, value, flag);
}

int32_t acl_cpudefend_add(const tSlotIndex *slot, uint16_t number, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    return acl(Kind::Add, slot, number, action, cir, cbs, ebs);
}

int32_t acl_cpudefend_del(const tSlotIndex *slot, uint16_t number, uint32_t action, uint32_t cir,
                          uint32_t cbs, uint32_t ebs)
{
    return acl(Kind::Del, slot, number, action, cir, cbs, ebs);
}

int32_t sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    const auto port = hardware.ports.find(ifUnit);
    if (mode != SYS_INDEX_TRANS_PHY || port == hardware.ports.end())
        return 1;
    *info = tPhyIfInfo{port->second.first, port->second.second, ifUnit, 0, 0, 0, 0};
    return 0;
}
