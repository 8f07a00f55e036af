#include "trace/source_feed.h"

#include <algorithm>

namespace zynlinux
{

void SourceFeed::take(const cpd_sample &sample, const Source &source, Time now)
{
    last_ = nullptr;
    sources_.add(source, sample, now);
    if (kept_.empty() || kept_.back().since != now || kept_.back().group != source.group)
        kept_.push_back({now, source.group, 0});
    kept_.back().count++;
}

void SourceFeed::choose(Time now)
{
    last_ = nullptr;
    sources_.age(now);
    std::map<Group, size_t> due;
    for (; !kept_.empty() && kept_.front().since + delay <= now; kept_.pop_front())
        due[kept_.front().group] += kept_.front().count;
    for (const auto &[group, count] : due)
        share(group, count);
}

std::optional<SourceFeed::Time> SourceFeed::due() const
{
    if (kept_.empty())
        return std::nullopt;
    return kept_.front().since + delay;
}

/** Those who are heavy, or if nobody is, any. All that are named find room in the table. */
SourceFeed::Names SourceFeed::namesOf(const Group &group) const
{
    const double total = sources_.total(group);
    const double bar = std::max(part * total, least);
    uint32_t free = size_ - used_;
    bool anyHeavy = false;
    Names names;
    for (const HeavySources::Item *item : sources_.ranking()) {
        const auto &[source, weight] = *item;
        if (weight.most < bar)
            break;
        if (source.group != group || weight.least() < bar)
            continue;
        anyHeavy = true;
        const bool listed = isListed(source);
        if (listed || weight.least() * 2 * free >= total) {
            names.push_back(item);
            free -= !listed;
        }
    }
    return anyHeavy ? names : anyOf(group);
}

SourceFeed::Names SourceFeed::anyOf(const Group &group) const
{
    uint32_t used = used_;
    Names names;
    for (const HeavySources::Item *item : sources_.ranking()) {
        if (used >= size_ / 4)
            break;
        if (item->first.group == group) {
            names.push_back(item);
            used += !isListed(item->first);
        }
    }
    return names;
}

/**
 * Half of the packets, or more, are of the heaviest; the others take turns. Tracing passes over the
 * first packet of a moment, and shows of each source what was counted up to its last one: so the
 * heaviest begins, and from the lightest on it goes up to the heaviest again.
 */
void SourceFeed::share(const Group &group, size_t count)
{
    const Names names = namesOf(group);
    if (names.empty())
        return;
    Turn &turn = turns_[group];
    const size_t all = names.size() - 1;
    const size_t others = std::min(all, (count + turn.odd) / 2);
    size_t at = packets_.size() + (count > others);
    packets_.resize(packets_.size() + count, names[0]);
    for (size_t i = others; i > 0; i--)
        packets_[at++] = names[1 + (turn.at + i - 1) % all];
    turn.at = others == all ? 0 : (turn.at + others) % all;
    turn.odd = (count + turn.odd) % 2 != 0;
}

const cpd_sample *SourceFeed::next()
{
    if (packets_.empty())
        return nullptr;
    last_ = packets_.front();
    packets_.pop_front();
    return &last_->second.last;
}

/** What made the table grow is the last packet's source. When it shrinks, nobody knows by whom. */
void SourceFeed::traced(uint32_t used, uint32_t size)
{
    if (used < used_)
        listed_.clear();
    else if (used > used_ && last_)
        listed_.insert(last_->first);
    used_ = used;
    size_ = size;
}

} // namespace zynlinux
