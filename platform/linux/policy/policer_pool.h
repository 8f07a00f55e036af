/**
 * Which of the policers that the packet program knows are taken.
 */
#ifndef ZYNLINUX_POLICER_POOL_H
#define ZYNLINUX_POLICER_POOL_H

#include <cstdint>
#include <vector>

#include "bpf/cpudefend_shared.h"

namespace zynlinux
{

class PolicerPool
{
public:
    /** @param policers CPD_POLICERS of them, shared with the program; number 0 is never given */
    explicit PolicerPool(cpd_policer *policers);

    /** Take the one with this number, unless it is taken, or no number of a policer. */
    bool take(uint32_t index);

    /** Take any. @throw Failure when none is left */
    uint32_t take();

    void release(uint32_t index);

    cpd_policer &operator[](uint32_t index) { return policers_[index]; }

private:
    cpd_policer *policers_;
    std::vector<bool> taken_;
    uint32_t next_ = 1; /**< where the search goes on, so that numbers rest before they return */
};

} // namespace zynlinux

#endif
