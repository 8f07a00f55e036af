/**
 * Arrays that grow, for what has no pool because its number is not known at start-up.
 */
#ifndef CPUDEFEND_ARRAY_H
#define CPUDEFEND_ARRAY_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

/** An array of plain records. All zero it is empty, and holds no memory. */
template <typename T> class cpuDefendArray
{
public:
    uint32_t count() const { return count_; }
    T &operator[](uint32_t i) { return at_[i]; }
    T *begin() { return at_; }
    T *end() { return at_ + count_; }

    /** Forget all records; the memory is kept for others. */
    void clear() { count_ = 0; }

    void release()
    {
        free(at_);
        *this = {};
    }

    /** @return whether there was memory; without, nothing changes */
    bool append(const T &record)
    {
        if (count_ == room_ && !grow())
            return false;
        at_[count_++] = record;
        return true;
    }

    /** Take a record out; those behind it move up. */
    void remove(T *record)
    {
        const auto behind = static_cast<size_t>(end() - (record + 1));
        memmove(record, record + 1, behind * sizeof(T));
        count_--;
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

    T *at_;
    uint32_t count_;
    uint32_t room_;
};

#endif
