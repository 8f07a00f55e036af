/**
 * Senders at the far end of a wire: as much as a CPU can, evenly, or all at once.
 */
#ifndef FLOOD_SENDER_H
#define FLOOD_SENDER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "octets.h"

struct sender_bpf;

/**
 * Hands frames straight to the driver of a port: the kernel makes them itself, many times one, and
 * redirects them there. Nothing else here sends as fast; but every call takes tens of ms before it
 * begins.
 */
class Generator
{
public:
    /** @param sources that its ARP requests come from in turn; 0: from the one that they name */
    explicit Generator(const std::string &port, uint32_t sources = 0);
    ~Generator();

    /**
     * Send a frame so many times, one right behind the other.
     * @return false when a signal ended it before @throw std::runtime_error
     */
    bool send(const Octets &frame, uint32_t count) const;

    /** Frames that were sent so far. */
    uint64_t sent() const;

private:
    std::unique_ptr<sender_bpf, void (*)(sender_bpf *)> program_;
};

/** Sends all frames at once, from so many CPUs, until it is stopped. */
class Flood
{
public:
    /** @param sources as Generator has them */
    Flood(const std::string &port, const std::vector<Octets> &frames, unsigned cpus,
          uint32_t sources = 0);
    ~Flood();
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;

    uint64_t sent() const { return generator_.sent(); }

    /** @return all that was sent */
    uint64_t stop();

private:
    void run(const Octets &frame, unsigned cpu);

    const Generator generator_;
    std::atomic<bool> stop_ = false;
    std::atomic<size_t> running_ = 0;
    std::vector<std::thread> threads_;
};

struct Stream {
    uint64_t sent;
    double rate; /**< at which it was sent, packets per second */
};

/**
 * Send a frame so many times, evenly spaced (in small batches where the gap is short), and never
 * faster for long: of the time that was lost, no more than a little is made up for.
 */
Stream sendEvenly(const std::string &port, const Octets &frame, uint32_t rate, uint64_t count);

#endif
