/**
 * Every choice that makes a frame, written down, so that the frame can be made again, and made
 * simpler: by leaving choices out and by taking lesser ones. 0 is the simplest of each.
 */
#ifndef REACH_CHOICES_H
#define REACH_CHOICES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

class Choices
{
public:
    /** Choose at random; the same seed chooses the same. */
    explicit Choices(uint64_t seed) : state_(seed) {}

    /** Choose as was chosen before, and the simplest behind the end of that. */
    explicit Choices(const std::vector<uint32_t> &again) : again_(&again) {}

    /** One of 0 to n - 1, all alike. */
    uint32_t below(uint32_t n);

    /** True once in so many times. */
    bool rarely(uint32_t oneIn);

    /** An index, each as often as its weight says. */
    uint32_t weighted(std::initializer_list<uint32_t> weights);

    /** One of a table. */
    template <class Table> const auto &of(const Table &table)
    {
        return table[below(static_cast<uint32_t>(std::size(table)))];
    }

    const std::vector<uint32_t> &made() const { return made_; }

private:
    uint64_t random();
    uint32_t keep(uint32_t choice);

    /** What was chosen here before; 0 for what is not possible any more. */
    uint32_t before(uint32_t n) const;

    uint64_t state_ = 0;
    const std::vector<uint32_t> *again_ = nullptr;
    std::vector<uint32_t> made_;
};

/**
 * Leave out what is not needed.
 * @param still whether choices still do what is wanted; it does of @a choices themselves
 */
std::vector<uint32_t> simplest(std::vector<uint32_t> choices,
                               const std::function<bool(const std::vector<uint32_t> &)> &still);

#endif
