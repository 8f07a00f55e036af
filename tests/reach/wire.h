/**
 * The wire to the protected port: what sends into it, and what the host sends back.
 */
#ifndef REACH_WIRE_H
#define REACH_WIRE_H

#include <memory>
#include <span>
#include <string>

#include "base/descriptor.h"
#include "item.h"

/** A kind of port, and what is on it. */
struct PortKind {
    const char *name;
    bool isTap;       /**< otherwise a veth */
    const char *mode; /**< of the platform file */
    bool isBridged;   /**< a port of a bridge, which has the addresses then */
};

class Wire
{
public:
    virtual ~Wire() = default;

    /** Whether it carries super-frames. */
    virtual bool takesSuperFrames() const = 0;

    /** Send them all, in order. @throw std::runtime_error when the port does not take one */
    virtual void send(std::span<const Shot *const> shots) = 0;

    /**
     * Take a frame that the host sent. It never waits.
     * @return its octets (all of them, though the buffer may be shorter); 0 when there is none
     */
    virtual size_t receive(std::span<uint8_t> buffer) = 0;
};

/**
 * Make the port in the caller's network name space, and its other end in a new one; both are up.
 * @throw std::runtime_error
 */
std::unique_ptr<Wire> makeWire(const PortKind &kind);

#endif
