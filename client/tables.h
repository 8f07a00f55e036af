/**
 * What the daemon manages, as data: the attributes of each table and the packet types, under the
 * names that operators see.
 */
#ifndef CPUDEFEND_CLIENT_TABLES_H
#define CPUDEFEND_CLIENT_TABLES_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace cpudefend
{

/** What a value means, and so how it is written and read. */
enum class Kind : uint8_t {
    Number,  /**< an integer */
    Choice,  /**< an integer that stands for a word; the last word stands for all other integers */
    Switch,  /**< a Choice of on and off */
    Word,    /**< an integer that stands for a word; other integers stand for themselves */
    Text,    /**< bytes to be read as text; this kind and those below are bytes on the wire */
    Policy,  /**< the name of a policy, empty for none */
    Numbers, /**< bytes, each a number */
    Ip4,     /**< an IPv4 address */
    Packet   /**< the first bytes of a packet; all zero when none was kept */
};

struct Choice {
    std::string_view word;
    uint32_t number;
};

enum class Access : uint8_t {
    ReadOnly,
    ByCommand, /**< has a command of its own that changes it, and is no setting */
    Settable
};

struct Attribute {
    std::string_view name;
    uint32_t id;
    Kind kind;
    Access access;
    uint32_t min; /**< least number, or fewest bytes */
    uint32_t max; /**< greatest number, or most bytes */
    std::string_view unit;
    std::string_view help;
    std::span<const Choice> choices = {};

    bool isOctets() const { return kind >= Kind::Text; }
    bool isSettable() const { return access == Access::Settable; }
};

std::span<const Attribute> globalAttributes();
std::span<const Attribute> policyAttributes();
std::span<const Attribute> carPktAttributes();
std::span<const Attribute> ruleAttributes();
std::span<const Attribute> slotAttributes();
std::span<const Attribute> sourceAttributes();

/** @return the attribute of that name, or null */
const Attribute *findAttribute(std::span<const Attribute> attributes, std::string_view name);

/** @return the attribute of that id, which must be one of the table's */
const Attribute &attribute(std::span<const Attribute> attributes, uint32_t id);

/** Names of the packet types; the place is the number. */
std::span<const std::string_view> pktTypeNames();

/** @return the type's name, or its number where it has none */
std::string pktTypeName(uint32_t pktType);

/** @param text a type's name or number. @return the type, if there is such a one */
std::optional<uint32_t> findPktType(std::string_view text);

/** A decimal number that fits 32 bits, and nothing else. */
std::optional<uint32_t> parseNumber(std::string_view text);

} // namespace cpudefend

#endif
