/** Choices by chance, the same ones for the same seed on every host. */
#ifndef RECORDED_DICE_H
#define RECORDED_DICE_H

#include <cstddef>
#include <cstdint>
#include <random>

namespace recorded
{

class Dice
{
public:
    explicit Dice(uint32_t seed) : random_(seed) {}

    uint32_t number() { return static_cast<uint32_t>(random_()); }

    /** A number from 0 on, below @a limit. */
    uint32_t below(uint32_t limit) { return number() % limit; }

    /** True once in @a n times. */
    bool once(uint32_t n) { return below(n) == 0; }

    template <typename T, size_t N> const T &of(const T (&choice)[N])
    {
        return choice[below(static_cast<uint32_t>(N))];
    }

private:
    std::mt19937 random_;
};

} // namespace recorded

#endif
