/**
 * Values as operators write and read them.
 */
#ifndef CPUDEFENDCTL_VALUES_H
#define CPUDEFENDCTL_VALUES_H

#include <array>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "cli/output.h"
#include "client/client.h"

namespace ctl
{

/** The command line asks for what cannot be. what() gives the reason. */
class BadValue : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/** An attribute and the value it is to get. */
struct Setting {
    const cpudefend::Attribute *attribute;
    cpudefend::Value value;
    std::string word; /**< the value as it was written */
};

/** Read a value for an attribute. Throws BadValue. */
cpudefend::Value parseValue(const cpudefend::Attribute &attribute, std::string_view word);

/** Read KEY=VALUE words, each for a settable attribute that comes once. Throws BadValue. */
std::vector<Setting> parseSettings(std::span<const cpudefend::Attribute> attributes,
                                   std::span<const std::string> words);

/** A policy name that the daemon can hold. Throws BadValue. */
const std::string &checkedName(const std::string &name);

// These throw BadValue, too.
uint32_t parsePktType(const std::string &word);
uint32_t parseRuleIndex(const std::string &word);        /**< 0 to 255 */
cpudefend::SlotIndex parseSlot(const std::string &word); /**< SYS/SLOT */
uint32_t parseInterface(const std::string &word);        /**< a number, or a name of this system */
std::array<uint8_t, 4> parseIp4(const std::string &word);
std::array<uint8_t, 6> parseMac(const std::string &word);

std::string slotText(const cpudefend::SlotIndex &slot);
std::string ip4Text(std::span<const uint8_t> ip);
std::string macText(std::span<const uint8_t> mac);

/** @return the name of the interface of that number in this system; empty without one */
std::string interfaceName(uint32_t interface);

Field fieldOf(const cpudefend::Attribute &attribute, const cpudefend::Value &value);

/** What may stand behind KEY=, for help: words, or a range. */
std::string describeValues(const cpudefend::Attribute &attribute);

} // namespace ctl

#endif
