#include "choices.h"

#include <algorithm>
#include <numeric>

uint64_t Choices::random()
{
    // SplitMix64: any seed will do, and it is quick to start.
    uint64_t mixed = state_ += 0x9e3779b97f4a7c15;
    mixed = (mixed ^ mixed >> 30) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ mixed >> 27) * 0x94d049bb133111eb;
    return mixed ^ mixed >> 31;
}

uint32_t Choices::keep(uint32_t choice)
{
    made_.push_back(choice);
    return choice;
}

uint32_t Choices::before(uint32_t n) const
{
    const size_t at = made_.size();
    return at < again_->size() && (*again_)[at] < n ? (*again_)[at] : 0;
}

uint32_t Choices::below(uint32_t n)
{
    return keep(again_ ? before(n) : static_cast<uint32_t>(random() % n));
}

bool Choices::rarely(uint32_t oneIn)
{
    return keep(again_ ? before(2) : random() % oneIn == 0) != 0;
}

uint32_t Choices::weighted(std::initializer_list<uint32_t> weights)
{
    if (again_)
        return keep(before(static_cast<uint32_t>(weights.size())));
    uint64_t left = random() % std::accumulate(weights.begin(), weights.end(), uint64_t{0});
    uint32_t index = 0;
    for (uint32_t weight : weights) {
        if (left < weight)
            break;
        left -= weight;
        index++;
    }
    return keep(index);
}

namespace
{

using Made = std::vector<uint32_t>;
using Still = std::function<bool(const Made &)>;

/** Leave out so many in a row, wherever that is possible. */
bool shorten(Made *choices, size_t count, const Still &still)
{
    bool shorter = false;
    for (size_t at = choices->size(); at-- > 0;) {
        if (at + count > choices->size())
            continue;
        Made less = *choices;
        const auto begin = less.begin() + static_cast<ptrdiff_t>(at);
        less.erase(begin, begin + static_cast<ptrdiff_t>(count));
        if (!still(less))
            continue;
        *choices = std::move(less);
        shorter = true;
    }
    return shorter;
}

/** Take a lesser one wherever that is possible. */
bool lower(Made *choices, const Still &still)
{
    bool lesser = false;
    for (uint32_t &each : *choices) {
        const uint32_t was = each;
        for (uint32_t value : {0u, was / 2, was - 1}) {
            each = value;
            if (was > value && still(*choices)) {
                lesser = true;
                break;
            }
            each = was;
        }
    }
    return lesser;
}

} // namespace

Made simplest(Made choices, const Still &still)
{
    bool better = true;
    for (int round = 0; better && round < 4; round++) {
        better = lower(&choices, still);
        for (size_t count : {8, 4, 2, 1})
            better |= shorten(&choices, count, still);
    }
    return choices;
}
