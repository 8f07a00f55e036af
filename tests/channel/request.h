/**
 * Requests of the management channel, built byte by byte: the tests' own idea of the wire
 * format, sharing nothing with the daemon's.
 */
#ifndef CHANNEL_REQUEST_H
#define CHANNEL_REQUEST_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace channel
{

using Bytes = std::vector<uint8_t>;

constexpr size_t FUNC_AT = 0;
constexpr size_t CODE_AT = 12; /**< return code */
constexpr size_t MARKER_AT = 20;
constexpr size_t COUNT_AT = 21;
constexpr size_t ITEMS_AT = 22;

constexpr uint32_t REQUEST_ID = 0x11223344;
constexpr uint32_t RESERVED = 0x55667788;
constexpr uint32_t CODE_AS_SENT = 0x99AABBCC; /**< what a request carries as its return code */

inline Bytes be16(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

inline Bytes be32(uint32_t value)
{
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

inline Bytes operator+(Bytes left, const Bytes &right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes bytes(const std::string &text)
{
    return Bytes(text.begin(), text.end());
}

/** An item: type, 2-byte length, data. */
inline Bytes item(uint8_t type, const Bytes &data)
{
    return Bytes{type} + be16(static_cast<uint32_t>(data.size())) + data;
}

inline Bytes numberItem(uint32_t value)
{
    return item(2, be32(value));
}

inline Bytes counterItem(uint32_t high, uint32_t low)
{
    return item(4, be32(high) + be32(low));
}

inline Bytes octetsItem(const std::string &text)
{
    return item(0, bytes(text));
}

/** The index section behind its marker. */
struct Index {
    uint8_t count;
    Bytes items;
};

/** The global table has no index, yet its unit travels. */
inline Index globalIndex(uint32_t unit = 0)
{
    return {0, numberItem(unit)};
}

inline Index slotIndex(uint32_t sysId, uint32_t slotId)
{
    return {2, numberItem(sysId) + numberItem(slotId)};
}

inline Index policyIndex(const std::string &name)
{
    return {2, numberItem(static_cast<uint32_t>(name.size())) + octetsItem(name)};
}

/** Rules and CAR entries: a policy's name and a number within it. */
inline Index childIndex(const std::string &policy, uint32_t number)
{
    return {3, policyIndex(policy).items + numberItem(number)};
}

inline Index srcTraceIndex(uint32_t ifUnit, const Bytes &srcIp, uint8_t pktType,
                           const Bytes &srcMac, uint8_t searchBit)
{
    return {5, numberItem(ifUnit) + item(0, srcIp) + item(0, {pktType}) + item(0, srcMac) +
                   item(0, {searchBit})};
}

/** A usable index of the table that a function code speaks of. */
inline Index anyIndex(uint32_t code)
{
    if (code <= 3)
        return globalIndex();
    if (code <= 8)
        return slotIndex(1, 2);
    if (code <= 13)
        return policyIndex("default");
    if (code <= 23)
        return childIndex("default", 1);
    return srcTraceIndex(7, {10, 0, 0, 1}, 1, {2, 0, 0, 0, 0, 1}, 0);
}

/** The value section behind its marker; the length may lie. */
struct Value {
    uint8_t type;
    uint16_t length;
    Bytes data;
};

inline Value number(uint32_t value)
{
    return {2, 4, be32(value)};
}

inline Value counter(uint32_t high, uint32_t low)
{
    return {4, 8, be32(high) + be32(low)};
}

inline Value octets(const std::string &text)
{
    return {0, static_cast<uint16_t>(text.size()), bytes(text)};
}

/** A value of a type that the channel does not know. */
inline Value unknown(uint8_t type = 9)
{
    return {type, 0, {}};
}

/** Offset of the value section, where the answer is written too. */
inline size_t valueAt(const Index &index)
{
    return ITEMS_AT + index.items.size();
}

/** A request's body; @a room bytes of 0xAA follow the value for a longer answer. */
inline Bytes request(uint32_t code, uint32_t attribute, const Index &index, const Value &value,
                     size_t room = 0)
{
    return be32(code) + be32(REQUEST_ID) + be32(RESERVED) + be32(CODE_AS_SENT) + be32(attribute) +
           Bytes{1, index.count} + index.items + Bytes{3, value.type} + be16(value.length) +
           value.data + Bytes(room, 0xAA);
}

/** @a body with @a data over its bytes from @a at on; what would stand past its end is dropped. */
inline Bytes over(Bytes body, size_t at, const Bytes &data)
{
    for (size_t i = 0; i < data.size() && at + i < body.size(); ++i)
        body[at + i] = data[i];
    return body;
}

/** The reply that differs from @a body in the return code alone. */
inline Bytes withCode(const Bytes &body, int32_t code)
{
    return over(body, CODE_AT, be32(static_cast<uint32_t>(code)));
}

/** The reply with code 0 and @a answer at the value's place, cut off at the end. */
inline Bytes answered(const Bytes &body, const Index &index, const Bytes &answer)
{
    return over(withCode(body, 0), valueAt(index), answer);
}

} // namespace channel

#endif
