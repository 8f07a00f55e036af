/**
 * Who sent the most of what was sampled in about the last second, in bounded memory and time,
 * whatever the number of sources: a space-saving summary (Metwally, Agrawal, El Abbadi, 2005) in
 * which all weights halve twice a second. No input or output.
 */
#ifndef ZYNLINUX_HEAVY_SOURCES_H
#define ZYNLINUX_HEAVY_SOURCES_H

#include <chrono>
#include <map>
#include <set>

#include "trace/source.h"

namespace zynlinux
{

/**
 * A sample weighs 1, and half of that for each halving since. So what a source sends at an even
 * rate weighs, after the first second, between half a second's samples and one second's.
 */
class HeavySources
{
public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds halfLife{500};
    static constexpr double nothing = 1.0 / 16; /**< sources that weigh less are forgotten */

    /** What is known of a source: it weighs between least() and most, give or take nothing. */
    struct Weight {
        double most = 0;
        double error = 0;  /**< at most the weight of all samples divided by the room */
        cpd_sample last{}; /**< its newest sample */

        double least() const { return most - error; }
    };
    using Items = std::map<Source, Weight>;
    using Item = Items::value_type;

    struct Heavier {
        bool operator()(const Item *a, const Item *b) const;
    };
    using Ranking = std::set<const Item *, Heavier>;

    /** @param room sources that are known at a time, at least 1 */
    explicit HeavySources(size_t room) : room_(room) {}

    /** Count a sample. The lightest source makes room for an unknown one. */
    void add(const Source &source, const cpd_sample &sample, Time now);

    /** Let time pass. @param now no earlier than in any call before */
    void age(Time now);

    /** All that are known, the heaviest (by most) first. Valid until add(). */
    const Ranking &ranking() const { return ranking_; }

    /** The weight of all samples of a group. */
    double total(const Group &group) const;

private:
    Items::iterator enter(const Source &source);
    void halve();
    void forget();

    size_t room_;
    Items items_;
    Ranking ranking_; /**< of the items */
    std::map<Group, double> totals_;
    Time halved_{}; /**< when that was due last */
};

} // namespace zynlinux

#endif
