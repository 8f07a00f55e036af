/**
 * Work beside the loop.
 */
#ifndef ZYNLINUX_BESIDE_H
#define ZYNLINUX_BESIDE_H

#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <utility>

#include <pthread.h>

namespace zynlinux
{

/** Work in a thread that lasts as long as it. */
template <class Result> class Beside
{
public:
    using Clock = std::chrono::steady_clock;

    /**
     * Begin it.
     * @param done is called in that thread when the result is there; may be empty
     */
    template <class Work> Beside(Work work, std::function<void()> done)
    {
        std::packaged_task<Result()> task(std::move(work));
        result_ = task.get_future();
        thread_ = std::jthread([task = std::move(task), done = std::move(done)]() mutable {
            pthread_setname_np(pthread_self(), "beside"); // as lists of threads show it
            task();
            if (done)
                done();
        });
    }

    /** Whether the result is there, waiting for it until @a end. */
    bool isDone(Clock::time_point end = {}) const
    {
        return result_.wait_until(end) == std::future_status::ready;
    }

    /** The result, once; what the work has thrown is thrown here. */
    Result take() { return result_.get(); }

private:
    std::future<Result> result_;
    std::jthread thread_; // the last: it is waited for before the result goes
};

} // namespace zynlinux

#endif
