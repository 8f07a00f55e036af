/**
 * What happens to the data plane from outside: signals, links and addresses that change, seconds
 * that go by. One descriptor tells of all.
 */
#ifndef ZYNLINUX_EVENTS_H
#define ZYNLINUX_EVENTS_H

#include <chrono>

#include "base/descriptor.h"

namespace zynlinux
{

class Events
{
public:
    /** What has happened since it was last asked. */
    struct Happened {
        bool reload = false;    /**< SIGHUP */
        bool stop = false;      /**< SIGTERM or SIGINT */
        bool links = false;     /**< some changed */
        bool addresses = false; /**< some came or went, or routes of the table `local` did */
        bool tables = false;    /**< routes to the host of other tables did, or rules */
        bool rested = false;    /**< the time of a rest is up */
        bool second = false;    /**< a second has gone by */
        bool called = false;    /**< call() was called */
    };

    /** From now on the signals are taken here. @throw Failure */
    Events();
    /** The signals do again what they did. */
    ~Events();
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;

    /** Turns readable when something has happened. */
    int descriptor() const { return all_.get(); }

    /** Have changes of the network gather for so long, however many there are. */
    void rest(std::chrono::nanoseconds time);

    /** Have that told; from any thread. */
    void call() const;

    Happened take();

private:
    void watch(const Descriptor &descriptor) const;
    void heed(bool network);
    void takeSignals(Happened *happened);

    Descriptor all_;
    Descriptor signals_;
    Descriptor links_;
    Descriptor addresses_;
    Descriptor tables_;
    Descriptor rest_;
    Descriptor second_;
    Descriptor call_;
    bool resting_ = false;
};

} // namespace zynlinux

#endif
