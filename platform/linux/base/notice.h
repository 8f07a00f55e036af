/**
 * When something that lasts is said in the log. No input or output.
 */
#ifndef ZYNLINUX_NOTICE_H
#define ZYNLINUX_NOTICE_H

#include <chrono>
#include <optional>

namespace zynlinux
{

/** Once, until it has ended; and however often it comes and goes, no more than once in a while. */
class Notice
{
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit Notice(std::chrono::seconds pause) : pause_(pause) {}

    /** @param lasts whether it does, now @return whether it is to be said */
    bool isDue(bool lasts, Time now)
    {
        const bool news = lasts && !said_ && (!last_ || now - *last_ >= pause_);
        said_ = lasts && (said_ || news);
        if (news)
            last_ = now;
        return news;
    }

private:
    std::chrono::seconds pause_;
    bool said_ = false; /**< since it has begun */
    std::optional<Time> last_;
};

} // namespace zynlinux

#endif
