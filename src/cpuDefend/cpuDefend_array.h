/**
 * Arrays that grow, for what has no pool because its number is not known at start-up.
 */
#ifndef CPUDEFEND_ARRAY_H
#define CPUDEFEND_ARRAY_H

#include <stdlib.h>
#include <string.h>

#include "cpuDefend.h"

/**
 * An array of plain records, for the life of the process. How many it holds stands in gCpuDefend,
 * so that a start-up begins with none; the memory is kept.
 */
template <typename T> class cpuDefendArray
{
public:
    explicit constexpr cpuDefendArray(uint32_t tCpuDefendSystem::*count) : count_(count) {}

    uint32_t count() const { return gCpuDefend.*count_; }
    T &operator[](uint32_t i) { return at_[i]; }
    T *begin() { return at_; }
    T *end() { return at_ + count(); }

    void clear() { gCpuDefend.*count_ = 0; }

    /** @return whether there was memory; without, nothing changes */
    bool append(const T &record)
    {
        if (count() == room_ && !grow())
            return false;
        at_[(gCpuDefend.*count_)++] = record;
        return true;
    }

    /** Take a record out; those behind it move up. */
    void remove(T *record)
    {
        const auto behind = static_cast<size_t>(end() - (record + 1));
        memmove(record, record + 1, behind * sizeof(T));
        (gCpuDefend.*count_)--;
    }

private:
    bool grow()
    {
        const uint32_t room = room_ ? room_ * 2 : 16;
        void *at = realloc(at_, room * sizeof(T));
        if (!at)
            return false;
        at_ = static_cast<T *>(at);
        room_ = room;
        return true;
    }

    T *at_ = nullptr;
    uint32_t room_ = 0;
    uint32_t tCpuDefendSystem::*count_;
};

#endif
