#include "samples.h"

#include <cerrno>
#include <cstring>

#include <bpf/libbpf.h>

#include "failure.h"

namespace zynlinux
{

namespace
{

constexpr size_t batch = 64; // out of the ring at a time

} // namespace

Samples::Samples(int ring) : ring_(ring_buffer__new(ring, keep, this, nullptr), ring_buffer__free)
{
    if (!ring_)
        throw Failure("read samples of packets", errno);
}

/** Called for each sample in the ring. @return non-zero to leave the rest there for now */
int Samples::keep(void *self, void *data, size_t size)
{
    auto *samples = static_cast<Samples *>(self);
    cpd_sample sample{};
    std::memcpy(&sample, data, std::min(size, sizeof sample));
    samples->taken_.push_back(sample);
    return samples->taken_.size() < batch ? 0 : -EAGAIN;
}

bool Samples::take(cpd_sample *sample)
{
    if (taken_.empty())
        ring_buffer__consume(ring_.get());
    if (taken_.empty())
        return false;
    *sample = taken_.front();
    taken_.pop_front();
    return true;
}

} // namespace zynlinux
