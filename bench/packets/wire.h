/**
 * Two name spaces and a wire between them: at one end the port of the protected box, at the other
 * a sender that is limited by nothing but its CPU.
 */
#ifndef BENCH_PACKETS_WIRE_H
#define BENCH_PACKETS_WIRE_H

#include <chrono>
#include <cstdint>
#include <thread>

#include "frames.h"

/** The port of the protected box, in the name space of the process. */
constexpr char PORT[] = "bench0";

/** Frames that one call of the sender's sends, unless it would take it too long. */
constexpr unsigned FRAMES_A_CALL = 393'216;

/** What calls of the sender's took, in seconds. */
struct Taken {
    double sending; /**< in which frames were sent and worked off */
    double whole;   /**< by the wall clock, with what a call sets up and tears down */
};

/** Several calls of the sender's, in sum. */
struct Flooded {
    double packets;       /**< that the box worked off: taken by its end of the wire */
    Taken taken;          /**< by the CPU that sent and worked them off */
    double serverSeconds; /**< CPU time of the DHCP server, which reads what passes */

    /** Packets per second by the wall clock. */
    double byWallClock() const { return packets / taken.whole; }

    /** Packets per second while they flow. */
    double inFlood() const { return packets / taken.sending; }
};

class Wire
{
public:
    /** Leaves the caller in a new network and mount name space, which are the box's. */
    Wire();
    ~Wire();
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    /**
     * Offer packets one batch after the other, on one CPU that sends a batch and then works it off
     * at the box's end, whatever becomes of it: dropped at the hook or far behind it. So no
     * packet is lost in between, nothing waits for another CPU to wake up, and the time per packet
     * is the sum of what all variants have in common and what their own way with it takes.
     *
     * @param time the least that it lasts, by the wall clock
     */
    Flooded flood(std::chrono::milliseconds time);

    /** Seconds that making a frame takes, of those that flood() spends on each. */
    double making() const;

private:
    void makePort();
    void makeSender();
    void serveDhcp();
    Taken send(int program, double frames) const;
    uint64_t workedOff() const;
    double serverTime();

    const FrameBytes frame_ = floodFrame();
    int box_; // name spaces
    int sender_;
    int flooder_ = -1; // programs of the sender
    int maker_ = -1;
    int dhcp_ = -1;
    std::thread server_;
};

#endif
