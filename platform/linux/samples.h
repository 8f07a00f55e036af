/**
 * The ring of samples that the packet program fills, as a source of packets.
 */
#ifndef ZYNLINUX_SAMPLES_H
#define ZYNLINUX_SAMPLES_H

#include <deque>
#include <memory>

#include "bpf/cpudefend_shared.h"

struct ring_buffer;

namespace zynlinux
{

class Samples
{
public:
    /** @param ring the map @throw Failure */
    explicit Samples(int ring);

    /** Take the next one. @return false when there is none */
    bool take(cpd_sample *sample);

private:
    static int keep(void *self, void *data, size_t size);

    std::unique_ptr<ring_buffer, void (*)(ring_buffer *)> ring_;
    std::deque<cpd_sample> taken_; /**< out of the ring, for the next calls */
};

} // namespace zynlinux

#endif
