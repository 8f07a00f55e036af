#include "policy/car_table.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace zynlinux
{

namespace
{

auto settings(const tHwCpuDefendPktCarEntry &entry)
{
    return std::tie(entry.pktType, entry.cir, entry.cbs, entry.pps, entry.queue, entry.priority,
                    entry.op, entry.res);
}

} // namespace

bool sameSettings(const tHwCpuDefendPktCarEntry &a, const tHwCpuDefendPktCarEntry &b)
{
    return settings(a) == settings(b);
}

void CarTable::add(const tHwCpuDefendPktCarEntry &entry)
{
    entries_[entry.pktType].push_back({entry, {}});
}

CarEntry *CarTable::find(const tHwCpuDefendPktCarEntry &entry)
{
    auto type = entries_.find(entry.pktType);
    if (type == entries_.end())
        return nullptr;
    auto &list = type->second;
    auto newest = std::find_if(list.rbegin(), list.rend(), [&](const CarEntry &each) {
        return sameSettings(each.settings, entry);
    });
    return newest == list.rend() ? nullptr : &*newest;
}

bool CarTable::remove(const tHwCpuDefendPktCarEntry &entry)
{
    const CarEntry *newest = find(entry);
    if (!newest)
        return false;
    auto type = entries_.find(entry.pktType);
    type->second.erase(type->second.begin() + (newest - type->second.data()));
    if (type->second.empty())
        entries_.erase(type);
    return true;
}

const CarEntry *CarTable::inForce(uint32_t pktType) const
{
    auto type = entries_.find(pktType);
    return type == entries_.end() ? nullptr : &type->second.back();
}

CarEntry *CarTable::inForce(uint32_t pktType)
{
    return const_cast<CarEntry *>(std::as_const(*this).inForce(pktType));
}

bool CarTable::empty() const
{
    return entries_.empty();
}

} // namespace zynlinux
