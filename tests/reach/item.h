/**
 * What is sent at once: a frame, or the fragments of one packet in a frame each.
 */
#ifndef REACH_ITEM_H
#define REACH_ITEM_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "octets.h"

/** What was done to a frame that is worth telling. */
struct Note {
    static constexpr uint32_t noValue = UINT32_MAX;

    const char *what; /**< of static storage */
    uint32_t value = noValue;
};

/** A super-frame, and what the kernel needs to cut it up. */
struct Offload {
    enum Kind { None, Udp, Tcp4, Tcp6 } kind = None;
    uint16_t segment = 0;        /**< octets of payload in each */
    uint16_t headers = 0;        /**< octets before the payload */
    uint16_t checksumStart = 0;  /**< of what a checksum covers, from the start of the frame */
    uint16_t checksumOffset = 0; /**< of the checksum, from there */
};

struct Shot {
    Octets frame;
    Offload offload;
};

struct Item {
    uint32_t id = 0;
    std::vector<uint32_t> choices;
    std::vector<Note> notes;
    std::vector<Shot> shots;

    /** What it was made of, in words. */
    std::string story() const;

    /** Each frame in hexadecimal digits, a line each. */
    std::string hex() const;

    size_t longest() const;  /**< octets of its longest frame */
    size_t shortest() const; /**< octets of its shortest frame */
};

/**
 * Make one, of IP and of other protocols, and wrong in any way that a grammar of frames knows.
 * Wherever there is room it carries its number.
 * @param superFrames whether it may be one that is cut up behind the port
 */
Item makeItem(uint64_t seed, uint32_t id, bool superFrames);
Item makeItem(const std::vector<uint32_t> &choices, uint32_t id, bool superFrames);

/** The number that a frame carries as its source address: it is lost last. */
std::optional<uint32_t> idOfFrame(const uint8_t *frame, size_t length);

/** The number that a payload carries somewhere. */
std::optional<uint32_t> idOfPayload(const uint8_t *data, size_t length);

/** The number in an address like the source addresses of frames. @param mac has 6 octets */
std::optional<uint32_t> idOfMac(const uint8_t *mac);

#endif
