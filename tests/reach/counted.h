/**
 * What the data plane counted, of whatever type: docs/platform.md, "Counters". The fields are found
 * by their names, as any program finds them that knows nothing of the data plane but these.
 */
#ifndef REACH_COUNTED_H
#define REACH_COUNTED_H

#include <cstdint>
#include <string>
#include <vector>

#include "base/descriptor.h"

class Counted
{
public:
    struct Totals {
        uint64_t passed;
        uint64_t dropped;
    };

    /** @throw std::runtime_error when no data plane with counters is on the port */
    explicit Counted(const std::string &port);

    /** Packets so far, at all places and of all types. */
    Totals read();

private:
    zynlinux::Descriptor map_;
    uint32_t elements_;
    size_t size_;             /**< octets of an element of one CPU */
    size_t passed_, dropped_; /**< where in it they are counted */
    std::vector<uint32_t> keys_;
    std::vector<uint8_t> values_;
};

#endif
