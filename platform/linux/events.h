/**
 * What happens to the data plane from outside: signals, ports and addresses that come and go, a
 * time that is up. One descriptor tells of all.
 */
#ifndef ZYNLINUX_EVENTS_H
#define ZYNLINUX_EVENTS_H

#include <chrono>

#include "descriptor.h"

namespace zynlinux
{

class Events
{
public:
    /** What has happened since it was last asked. */
    struct Happened {
        bool reload = false;  /**< SIGHUP */
        bool stop = false;    /**< SIGTERM or SIGINT */
        bool network = false; /**< a link or an address changed, or messages about it were lost */
        bool timeUp = false;
    };

    /** From now on the signals are taken here. @throw Failure */
    Events();
    /** The signals do again what they did. */
    ~Events();
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;

    /** Turns readable when something has happened. */
    int descriptor() const { return all_.get(); }

    /** Have timeUp told once, after that time. */
    void alarmIn(std::chrono::nanoseconds time);

    Happened take();

private:
    void watch(const Descriptor &descriptor);
    bool takeNetwork();
    void takeSignals(Happened *happened);

    Descriptor all_;
    Descriptor signals_;
    Descriptor network_;
    Descriptor alarm_;
};

} // namespace zynlinux

#endif
