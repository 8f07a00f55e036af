/**
 * The whole stage: a host, its port and consumers, and the protection. Items are sent, and it is
 * said who saw what.
 */
#ifndef REACH_SCENE_H
#define REACH_SCENE_H

#include <chrono>
#include <memory>
#include <optional>
#include <sched.h>
#include <span>
#include <string>
#include <vector>

#include "consumers.h"
#include "counted.h"
#include "item.h"
#include "policies.h"
#include "wire.h"

struct Seen {
    std::vector<Sightings> by; /**< a consumer each */
    Sightings passed;          /**< frames that came through to the port's sockets */
    double seconds = 0;        /**< from before the first was sent until all had arrived */
};

class Scene
{
public:
    /** @throw std::runtime_error when something of it cannot be had here */
    Scene(const PortKind &kind, uint64_t seed);

    /** Start the daemon. */
    void protect();

    Protection &protection() { return *protection_; }
    const Consumers &consumers() const { return consumers_; }

    /** The next item of the seed. */
    Item next();

    /** One like it, with a number of its own, so that none is taken for a part of another. */
    Item again(const std::vector<uint32_t> &choices);

    /** Send them all so many times, and wait until all have arrived. */
    Seen watch(std::span<const Item> items, unsigned times = 1);
    Seen watch(const Item &item, unsigned times = 1) { return watch({&item, 1}, times); }

    /** What was sent and seen so far, for the reader of a test's output. */
    std::string summary() const;

    /** Frames that were counted as passed, so far. */
    uint64_t counted() { return counted_->read().passed; }

private:
    void awaitArrival(Seen *seen);
    void awaitReplies(Seen *seen);
    void awaitLoopback();
    bool lookForMarker(Seen *seen, uint32_t number);
    void sendAll(std::span<const Item> items);

    const PortKind kind_;
    const uint64_t seed_;
    std::unique_ptr<Wire> wire_;
    Consumers consumers_;
    zynlinux::Descriptor everything_; /**< a packet socket of the port */
    zynlinux::Descriptor loopback_;   /**< one of the loopback device, for markers */
    cpu_set_t cpus_;                  /**< that there are for the daemon */
    std::unique_ptr<Protection> protection_;
    std::optional<Counted> counted_;
    uint64_t made_ = 0, sent_ = 0, passed_ = 0, sightings_ = 0;
    uint32_t lastId_ = 0, lastMarker_ = 0;
};

#endif
