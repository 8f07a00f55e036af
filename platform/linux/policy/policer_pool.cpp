#include "policy/policer_pool.h"

#include "base/failure.h"

namespace zynlinux
{

PolicerPool::PolicerPool(cpd_policer *policers) : policers_(policers), taken_(CPD_POLICERS) {}

bool PolicerPool::take(uint32_t index)
{
    if (index == 0 || index >= CPD_POLICERS || taken_[index])
        return false;
    taken_[index] = true;
    return true;
}

uint32_t PolicerPool::take()
{
    for (uint32_t tries = 1; tries < CPD_POLICERS; tries++) {
        uint32_t index = next_;
        next_ = next_ + 1 < CPD_POLICERS ? next_ + 1 : 1;
        if (take(index))
            return index;
    }
    throw Failure("find a free policer", "all " + std::to_string(CPD_POLICERS - 1) + " are taken");
}

void PolicerPool::release(uint32_t index)
{
    taken_[index] = false;
}

} // namespace zynlinux
