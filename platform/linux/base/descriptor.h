#ifndef ZYNLINUX_DESCRIPTOR_H
#define ZYNLINUX_DESCRIPTOR_H

#include <unistd.h>
#include <utility>

namespace zynlinux
{

/** A file descriptor that is closed with its owner. */
class Descriptor
{
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor()
    {
        if (fd_ >= 0)
            close(fd_);
    }

    int get() const { return fd_; }

    /** Give it up: it is the caller's from now on. */
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

} // namespace zynlinux

#endif
