/**
 * The ring of samples that the packet program fills, as a source of packets.
 */
#ifndef ZYNLINUX_SAMPLES_H
#define ZYNLINUX_SAMPLES_H

#include <memory>

#include "base/descriptor.h"
#include "base/notice.h"
#include "host/ports.h"
#include "trace/source_feed.h"

struct ring_buffer;

namespace zynlinux
{

class Samples
{
public:
    /** @param ring the map @param ports must outlast this object @throw Failure */
    Samples(int ring, const Ports &ports);
    Samples(const Samples &) = delete;
    Samples &operator=(const Samples &) = delete;

    /** Turns readable when there may be a packet. */
    int descriptor() const { return all_.get(); }

    /** The next packet, or null. Valid until the next call. */
    const cpd_sample *next();

    /** As SourceFeed::traced(). That the table is full is said in the log. */
    void traced(uint32_t used, uint32_t size);

private:
    using Clock = std::chrono::steady_clock;

    bool isTime();
    void gather();
    bool readRing(Clock::time_point now);
    void wait(bool pause, Clock::time_point now);
    void watch(int operation, int fd, bool wanted);
    static int keep(void *self, void *data, size_t size);

    const Ports &ports_;
    std::unique_ptr<ring_buffer, void (*)(ring_buffer *)> ring_;
    int ringDescriptor_;
    Descriptor all_;
    Descriptor timer_;
    bool pause_ = false; /**< until the timer says so, the ring is left alone */
    SourceFeed feed_;
    Notice full_{std::chrono::minutes{1}};
    Clock::time_point gathered_; /**< when it was done last */
    double allowance_ = 0;       /**< samples that may be read */
};

} // namespace zynlinux

#endif
