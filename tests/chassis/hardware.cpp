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

static tHwDropped dropped(const Place &place, const Item &item)
{
    tHwDropped made{};
    made.result = HARDWARE_FULL;
    made.isAcl = 1;
    made.isSlot = place.has_value();
    if (place)
        made.slot = {place->first, place->second, 0};
    made.acl = static_cast<uint16_t>(item.number);
    made.action = item.op;
    made.cir = item.cir;
    made.cbs = made.ebs = item.cbs;
    return made;
}

/** Drop the ACLs for which there is no room, the newest first. */
static std::vector<tHwDropped> dropUnfitting()
{
    std::vector<tHwDropped> all;
    for (auto &[place, items] : hardware.held) {
        const std::vector<Item> fit = fitting(items);
        std::vector<Item> acls;
        for (const Item &item : items)
            if (item.acl)
                acls.push_back(item);
        for (size_t i = acls.size(); i-- > acls.size() - (items.size() - fit.size());)
            all.push_back(dropped(place, acls[i]));
        items = fit;
    }
    hardware.anyDropped = !all.empty();
    return all;
}

static void complainIf(bool wrong, const char *what)
{
    if (wrong)
        hardware.complaints.push_back(what);
}

static Item carItem(const scripted::Record &record)
{
    const tHwCpuDefendPktCarEntry &car = record.car;
    for (const U_INT8 &counter : {car.PassPkt, car.DropPkt, car.PassOct, car.DropOct})
        complainIf(counter.high != 0 || counter.low != 0, "a counter is sent");
    return {false,   car.pktType, car.op,       car.cir, car.cbs,
            car.pps, car.queue,   car.priority, car.res};
}

static Item aclItem(const scripted::Record &record)
{
    complainIf(record.acl == 0 || record.ebs != record.cbs ||
                   (record.action == ZYN_HW_OP_DENY && (record.cir != 0 || record.cbs != 0)),
               "an ACL call with odd arguments");
    return {true, record.acl, record.action, record.cir, record.cbs};
}

static Kind kindOf(const scripted::Record &record)
{
    switch (record.call) {
    case scripted::Call::ScalarGet: return Kind::Role;
    case scripted::Call::CpuGet: return Kind::Cpu;
    case scripted::Call::ScalarSync: return Kind::ScalarSync;
    case scripted::Call::SlotSync: return Kind::SlotSync;
    case scripted::Call::AclAdd: return Kind::Add;
    case scripted::Call::AclDel: return Kind::Del;
    default: break;
    }
    const bool isSlot = record.call == scripted::Call::SlotSet;
    const bool add =
        record.cmd == (isSlot ? HW_SLOT_CPUDEFENDPKTCARADD : HW_SYS_CPUDEFENDPKTCARADD);
    const bool del =
        record.cmd == (isSlot ? HW_SLOT_CPUDEFENDPKTCARDEL : HW_SYS_CPUDEFENDPKTCARDEL);
    complainIf((!add && !del) || isSlot != record.slot.has_value() ||
                   record.flag != (isSlot ? 3u : 0u) || record.descriptor.argLen != 0 ||
                   record.descriptor.action != 0,
               "a call with odd arguments");
    return add ? Kind::Add : Kind::Del;
}

static Call callOf(const scripted::Record &record)
{
    Call call{kindOf(record), record.slot, 0, 0, "", {}, record.result};
    complainIf(record.slotType != 0, "a slot index of another type than 0");
    switch (record.call) {
    case scripted::Call::SlotSet:
    case scripted::Call::ScalarSet: call.item = carItem(record); break;
    case scripted::Call::AclAdd:
    case scripted::Call::AclDel: call.item = aclItem(record); break;
    case scripted::Call::CpuGet:
        call.id = record.selector;
        complainIf(record.cmd != HW_CPU_USED || record.selector > 1, "an unknown CPU reading");
        break;
    case scripted::Call::ScalarGet: call.id = record.cmd; break;
    default:
        call.id = record.cmd;
        call.flag = record.flag;
        call.value = record.isNumber ? numberValue(record.number) : record.octets;
    }
    return call;
}

static int32_t answer(const scripted::Record &record)
{
    Call call = callOf(record);
    call.result = hardware.failable++ == hardware.failAt ? HARDWARE_FAILURE : apply(call);
    hardware.log.push_back(call);
    scripted::script.cpu = {{0, {hardware.percent}},
                            {1, {hardware.percent * 100 + hardware.hundredths}}};
    return call.result;
}

void startHardware()
{
    hardware = Hardware();
    scripted::reset();
    scripted::script.answer = answer;
    scripted::script.dropping = dropUnfitting;
    scripted::script.queried = [](const scripted::Record &record) {
        scripted::calls.clear(); // they are in the log
        if (record.call == scripted::Call::ScalarGet)
            hardware.log.push_back(callOf(record));
    };
}

} // namespace chassis
