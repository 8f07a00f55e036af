/**
 * A frame in the making: what is chosen for it, and what is told of that.
 */
#ifndef REACH_DRAFT_H
#define REACH_DRAFT_H

#include <cstdint>
#include <vector>

#include "choices.h"
#include "item.h"
#include "octets.h"
#include "plan.h"

struct Draft {
    Choices choose;
    uint32_t id;
    bool superFrames;
    bool mayLie =
        false; /**< whether lengths, versions and such may be wrong: in half of all frames */
    unsigned depth = 0; /**< how many packets it is inside of */
    std::vector<Note> notes = {};
    Offload offload = {};

    void note(const char *what, uint32_t value = Note::noValue) { notes.push_back({what, value}); }

    /** Which lie is told: an index by weights, of which 0 is the truth. */
    uint32_t lie(std::initializer_list<uint32_t> weights)
    {
        return mayLie ? choose.weighted(weights) : 0;
    }

    bool liesOnceIn(uint32_t times) { return mayLie && choose.rarely(times); }

    /** One of a table whose entries have a name; the first, which is usual, most of the time. */
    template <class Table> const auto &usually(const Table &table, uint32_t oneIn)
    {
        return table[choose.rarely(oneIn) ? choose.below(static_cast<uint32_t>(std::size(table)))
                                          : 0];
    }
};

/** The number, so that idOfPayload() finds it. */
Octets markOf(uint32_t id);

/** The sender's MAC address, in which the number is, too. */
Mac sourceMac(uint32_t id);

/** What a frame carries behind its addresses and tags. */
struct Content {
    uint16_t type; /**< ethertype; behind a length field there is none */
    bool isLlc = false;
    Mac to; /**< where such a frame goes as a rule */
    std::vector<Octets> packets;
};

Content ipv4(Draft &draft);
Content ipv6(Draft &draft);
Content arp(Draft &draft);

/** What is neither: other ethertypes, and LLC. */
Content otherEthertype(Draft &draft);
Content llc(Draft &draft);

/** What an IP packet carries. */
struct Transport {
    uint8_t protocol;
    Octets octets;
    uint8_t hops = 64;
};

/** Between whom: addresses of 4 or of 16 octets. */
struct Ends {
    Octets source;
    Octets destination;

    bool isSix() const { return source.size() == 16; }
};

Transport transport(Draft &draft, const Ends &ends);

/** A part of what an IP packet carries. */
struct Piece {
    size_t offset; /**< a multiple of 8 */
    size_t length;
    bool more; /**< whether it says that others follow */
};

/** In which pieces it is sent, and in which order: several once in so many times. */
std::vector<Piece> pieces(Draft &draft, size_t length, uint32_t oneIn);

/** The first of the sources has the draft's number in it. */
Ends chooseEnds(Draft &draft, const std::vector<Address> &sources,
                const std::vector<Address> &destinations);

/** One of the addresses that packets go to. */
Octets destination(Draft &draft, const std::vector<Address> &all);

#endif
