/**
 * A modelled hardware layer behind the scripted one: it keeps what is programmed where, as a real
 * one does, logs every call, and fails the nth.
 */
#ifndef CHASSIS_HARDWARE_H
#define CHASSIS_HARDWARE_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "scripted_hw.h"

namespace chassis
{

/** (system number, slot number) of a slot; nothing for the system as a whole. */
using Place = std::optional<std::pair<uint32_t, uint32_t>>;

/** What can be programmed: a CAR entry, or an ACL with what it does. */
struct Item {
    bool acl = false;
    uint32_t number = 0; /**< packet type or ACL number */
    uint32_t op = 0, cir = 0, cbs = 0;
    uint32_t pps = 0, queue = 0, priority = 0, bits = 0; /**< CAR entries only */

    bool operator==(const Item &) const = default;
};

enum class Kind { Role, Cpu, ScalarSync, SlotSync, Add, Del };

struct Call {
    Kind kind;
    Place place;
    uint32_t id = 0;   /**< role, CPU usage selector or scalar id */
    uint32_t flag = 0; /**< synchronisation */
    std::string value; /**< synchronisation: the bytes, or "#" and the number */
    Item item;         /**< Add and Del */
    int32_t result = 0;

    std::string text() const;
    /** The same call, whatever it was answered with. */
    bool sameAs(const Call &other) const;
};

struct Hardware {
    std::map<Place, std::vector<Item>> held; /**< oldest first */
    std::vector<Call> log;
    std::vector<std::string> complaints; /**< calls that no hardware would accept */

    uint32_t percent = 0;    /**< CPU usage */
    uint32_t hundredths = 0; /**< what selector 1 adds to it */

    /** ACLs that a place has room for. Those beyond are dropped at the end of a change. */
    size_t aclRoom = SIZE_MAX;
    bool anyDropped = false; /**< at the end of the last one */

    /** Calls that can fail, so far: all but role queries. */
    size_t failable = 0;
    std::optional<size_t> failAt; /**< the one that does */

    /** Copies of a CAR entry with that rate, everywhere. */
    uint32_t copies(uint32_t cir) const;
};

constexpr int32_t HARDWARE_FAILURE = 5;
constexpr int32_t HARDWARE_FULL = 28;

/** Of what is programmed at a place, what there is room for. */
std::vector<Item> fitting(const std::vector<Item> &items);

extern Hardware hardware;

/** Start over with nothing programmed, and answer the scripted layer's calls from now on. */
void startHardware();

/** The value of a synchronisation call, for Call::value. */
std::string numberValue(uint32_t number);

} // namespace chassis

#endif
