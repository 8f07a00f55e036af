/**
 * What source tracing gets for the samples that there are: as many packets, but of the sources that
 * sent the most. Its table is small, and keeps whom it has; so nobody may get in, and nobody be
 * kept out, by sending a little from many addresses. No input or output.
 */
#ifndef ZYNLINUX_SOURCE_FEED_H
#define ZYNLINUX_SOURCE_FEED_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "trace/heavy_sources.h"

namespace zynlinux
{

/**
 * A sample is kept for a while, until more is known of its time. Then it counts, and names a source
 * of its group, most often the heaviest, whose newest sample is handed up. Who is named:
 * - Heavy sources. One that is not in the table must weigh so much that twice as many as there are
 *   free records could do so: the last records are left to the heaviest.
 * - Where nobody is heavy, the heaviest that there are, as long as they leave three quarters of the
 *   table free.
 * With nobody to name, the sample counts for nothing.
 */
class SourceFeed
{
public:
    using Time = HeavySources::Time;

    /** For which a sample is kept: so short that its weight halves no more than once. */
    static constexpr std::chrono::milliseconds delay{400};
    static_assert(delay < HeavySources::halfLife);
    static constexpr size_t room = 1024; /**< sources whose weight is known */
    /** Who is heavy: weighs this part of its group, and this much. */
    static constexpr double part = 0.02;
    static constexpr double least = 3;

    /** Keep a sample. Only while next() has none. @param now no earlier than in any call before */
    void take(const cpd_sample &sample, const Source &source, Time now);

    /** Choose packets for the samples that were kept long enough. Only while next() has none. */
    void choose(Time now);

    /** The next packet for tracing, or null. Valid until take() or choose(). */
    const cpd_sample *next();

    /** When choose() has something to do next. */
    std::optional<Time> due() const;

    /**
     * Tracing has dealt with the last packet, or is about to begin.
     * @param used records of its table in use
     * @param size all of them
     */
    void traced(uint32_t used, uint32_t size);

private:
    using Names = std::vector<const HeavySources::Item *>; /**< the heaviest first */

    struct Kept {
        Time since;
        Group group;
        size_t count;
    };

    /** Where a group's turns go on. */
    struct Turn {
        bool odd = false; /**< the next one is for others than the heaviest */
        size_t at = 0;    /**< the one of these */
    };

    Names namesOf(const Group &group) const;
    Names anyOf(const Group &group) const;
    void share(const Group &group, size_t count);
    bool isListed(const Source &source) const { return listed_.count(source) > 0; }

    HeavySources sources_{room};
    std::deque<Kept> kept_;
    std::deque<const HeavySources::Item *> packets_;
    const HeavySources::Item *last_ = nullptr; /**< the packet that tracing had last */
    std::map<Group, Turn> turns_;
    std::set<Source> listed_; /**< are in the table, as far as is known */
    uint32_t used_ = 0;
    uint32_t size_ = 0;
};

} // namespace zynlinux

#endif
