#include "car_table.h"

#include <algorithm>
#include <tuple>

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
    entries_[entry.pktType].push_back(entry);
}

bool CarTable::remove(const tHwCpuDefendPktCarEntry &entry)
{
    auto type = entries_.find(entry.pktType);
    if (type == entries_.end())
        return false;
    auto &list = type->second;
    auto newest = std::find_if(list.rbegin(), list.rend(),
                               [&](const auto &each) { return sameSettings(each, entry); });
    if (newest == list.rend())
        return false;
    list.erase(std::next(newest).base());
    return true;
}

const tHwCpuDefendPktCarEntry *CarTable::inForce(uint32_t pktType) const
{
    auto type = entries_.find(pktType);
    return type == entries_.end() || type->second.empty() ? nullptr : &type->second.back();
}

} // namespace zynlinux
