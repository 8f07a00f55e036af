/**
 * Memory whose last byte stands before a page that nobody may touch, and whose first byte stands
 * behind marked ones: what reaches past either end shows on every build, emulated ones included.
 */
#ifndef CHANNEL_GUARDED_H
#define CHANNEL_GUARDED_H

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace channel
{

class Guarded
{
public:
    explicit Guarded(const std::vector<uint8_t> &content)
        : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))), size_(content.size())
    {
        void *area =
            mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (area == MAP_FAILED || size_ > page_)
            throw std::runtime_error("no guarded memory");
        area_ = static_cast<uint8_t *>(area);
        mprotect(area_ + page_, page_, PROT_NONE);
        std::fill(area_, data(), MARK);
        std::copy(content.begin(), content.end(), data());
    }
    ~Guarded() { munmap(area_, 2 * page_); }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;

    uint8_t *data() { return area_ + page_ - size_; }
    std::vector<uint8_t> content() { return {data(), data() + size_}; }

    /** Nothing before the first byte was written. */
    bool intact()
    {
        return std::all_of(area_, data(), [](uint8_t byte) { return byte == MARK; });
    }

private:
    static constexpr uint8_t MARK = 0x5A;
    size_t page_;
    size_t size_;
    uint8_t *area_;
};

} // namespace channel

#endif
