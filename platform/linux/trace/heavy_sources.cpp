#include "trace/heavy_sources.h"

#include <tuple>

namespace zynlinux
{

bool HeavySources::Heavier::operator()(const Item *a, const Item *b) const
{
    return std::tie(b->second.most, a->first) < std::tie(a->second.most, b->first);
}

void HeavySources::add(const Source &source, const cpd_sample &sample, Time now)
{
    age(now);
    auto item = items_.find(source);
    if (item != items_.end())
        ranking_.erase(&*item);
    else
        item = enter(source);
    item->second.most += 1;
    item->second.last = sample;
    ranking_.insert(&*item);
    totals_[source.group] += 1;
}

/** Where there is no room, the lightest gives way to the newcomer, which may have weighed as much
 *  unseen. */
HeavySources::Items::iterator HeavySources::enter(const Source &source)
{
    if (items_.size() < room_)
        return items_.emplace(source, Weight{}).first;
    const auto lightest = std::prev(ranking_.end());
    auto item = items_.extract((*lightest)->first);
    ranking_.erase(lightest);
    item.key() = source;
    item.mapped().error = item.mapped().most;
    return items_.insert(std::move(item)).position;
}

void HeavySources::age(Time now)
{
    const auto due = (now - halved_) / halfLife;
    for (auto i = due; i > 0 && !totals_.empty(); i--)
        halve();
    halved_ += due * halfLife;
}

/** Their order stays: what is halved is not rounded. */
void HeavySources::halve()
{
    for (auto &[source, weight] : items_) {
        weight.most /= 2;
        weight.error /= 2;
    }
    for (auto &[group, total] : totals_)
        total /= 2;
    forget();
}

void HeavySources::forget()
{
    std::erase_if(totals_, [](const auto &each) { return each.second < nothing; });
    while (!ranking_.empty() && (*ranking_.rbegin())->second.most < nothing) {
        const Item *lightest = *ranking_.rbegin();
        ranking_.erase(lightest);
        items_.erase(lightest->first);
    }
}

double HeavySources::total(const Group &group) const
{
    auto found = totals_.find(group);
    return found == totals_.end() ? 0 : found->second;
}

} // namespace zynlinux
