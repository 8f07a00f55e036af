/**
 * What the stack is handed by a port, or hands to it: counted in the kernel, without loss.
 */
#ifndef FLOOD_ARRIVALS_H
#define FLOOD_ARRIVALS_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "bpf/arrivals_shared.h"

struct arrivals_bpf;

enum class Direction { In, Out };

/** A moment or a span on the clock of struct arrival. */
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

class Arrivals
{
public:
    /** Count from now on. @throw std::runtime_error when the kernel does not let it */
    explicit Arrivals(const std::string &port, Direction direction = Direction::In);
    ~Arrivals();
    Arrivals(const Arrivals &) = delete;
    Arrivals &operator=(const Arrivals &) = delete;

    /** How many of this ethertype so far. */
    uint64_t count(uint16_t protocol) const;

    /** All of this ethertype, by time. @throw std::runtime_error when the log did not hold all */
    std::vector<arrival> all(uint16_t protocol) const;

    /** The same, of a time that the log may have run full after. */
    std::vector<arrival> until(uint16_t protocol, Clock::time_point end) const;

    /** In the order in which they came, whatever they are. */
    std::vector<arrival> log() const;

private:
    uint64_t logged() const;

    std::unique_ptr<arrivals_bpf, void (*)(arrivals_bpf *)> skeleton_;
    const arrival_totals *totals_ = nullptr;
    const arrival *log_ = nullptr;
    zynlinux::Descriptor link_;
};

/** Programs of the kind that Arrivals is, on the port's way in. */
unsigned ingressPrograms(const std::string &port);

uint64_t nanoseconds(Clock::time_point time);

/** The part of them from @a begin until before @a end. */
std::vector<arrival> between(const std::vector<arrival> &all, Clock::time_point begin,
                             Clock::time_point end);

enum class Unit { Packets, Bytes };

uint64_t amount(const std::vector<arrival> &all, Unit unit);

/**
 * By how much the worst window goes beyond what a policer lets through: with a result of 0 or less
 * there is no window with more than rate * its time + bucket.
 *
 * The time stamps are taken behind the policer, so a window may look shorter than it was there, by
 * what a packet may wait in between.
 */
double excess(const std::vector<arrival> &all, double rate, double bucket,
              Unit unit = Unit::Packets);

#endif
