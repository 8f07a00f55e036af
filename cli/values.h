/**
 * Values as operators write and read them.
 */
#ifndef CPUDEFENDCTL_VALUES_H
#define CPUDEFENDCTL_VALUES_H

#include <array>
#include <span>
#include <string>
#include <string_view>

#include "cli/output.h"
#include "client/client.h"
#include "client/values.h"

namespace ctl
{

using cpudefend::BadValue;
using cpudefend::Setting;

// These throw BadValue.
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

} // namespace ctl

#endif
