#include "cli/values.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <algorithm>
#include <charconv>

#include "client/text.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using cpudefend::Attribute;
using cpudefend::Choice;
using cpudefend::Kind;
using cpudefend::printable;
using cpudefend::Value;

namespace
{

std::vector<uint32_t> numbersOf(const std::string &bytes)
{
    std::vector<uint32_t> numbers;
    for (const char byte : bytes)
        numbers.push_back(static_cast<unsigned char>(byte));
    return numbers;
}

std::span<const uint8_t> bytesOf(const std::string &octets)
{
    return {reinterpret_cast<const uint8_t *>(octets.data()), octets.size()};
}

std::string hex(std::span<const uint8_t> bytes, std::string_view between)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        if (!text.empty())
            text += between;
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

/** A packet is never all zero: its sender has an address. */
std::string packetText(const std::string &bytes)
{
    const bool kept = bytes.find_first_not_of('\0') != std::string::npos;
    return kept ? hex(bytesOf(bytes), "") : "";
}

Cell cellOf(const Attribute &attribute, const Value &value)
{
    switch (attribute.kind) {
    case Kind::Number: return std::get<uint32_t>(value);
    case Kind::Switch: return std::get<uint32_t>(value) == CPUDEFEND_ENABLE;
    case Kind::Text:
    case Kind::Policy: return std::get<std::string>(value);
    case Kind::Ip4: return ip4Text(bytesOf(std::get<std::string>(value)));
    case Kind::Packet: return packetText(std::get<std::string>(value));
    case Kind::Numbers: return numbersOf(std::get<std::string>(value));
    case Kind::Choice:
    case Kind::Word: break;
    }
    return wordOf(attribute, std::get<uint32_t>(value));
}

} // namespace

uint32_t parsePktType(const std::string &word)
{
    const auto type = cpudefend::findPktType(word);
    if (!type)
        throw BadValue("there is no packet type '" + printable(word) + "'");
    return *type;
}

uint32_t parseRuleIndex(const std::string &word)
{
    const auto index = cpudefend::parseNumber(word);
    if (!index || *index > UINT8_MAX)
        throw BadValue("a rule has a number from 1 to 255");
    return *index;
}

cpudefend::SlotIndex parseSlot(const std::string &word)
{
    const std::size_t slash = std::min(word.find('/'), word.size());
    const auto system = cpudefend::parseNumber(word.substr(0, slash));
    const auto slot = cpudefend::parseNumber(word.substr(std::min(slash + 1, word.size())));
    if (!system || !slot || *system > UINT8_MAX || *slot > UINT8_MAX)
        throw BadValue("a slot is written SYS/SLOT, both of them numbers from 0 to 255");
    return {*system, *slot};
}

uint32_t parseInterface(const std::string &word)
{
    if (const auto number = cpudefend::parseNumber(word))
        return *number;
    const unsigned named = if_nametoindex(word.c_str());
    if (named == 0)
        throw BadValue("there is no interface '" + printable(word) + "'");
    return named;
}

std::array<uint8_t, 4> parseIp4(const std::string &word)
{
    std::array<uint8_t, 4> ip;
    if (inet_pton(AF_INET, word.c_str(), ip.data()) != 1)
        throw BadValue("'" + printable(word) + "' is not an IPv4 address");
    return ip;
}

std::array<uint8_t, 6> parseMac(const std::string &word)
{
    constexpr std::size_t kDigits = 2, kStep = 3; // "02:"
    std::array<uint8_t, 6> mac;
    bool good = word.size() == mac.size() * kStep - 1;
    for (std::size_t i = 0; good && i < mac.size(); ++i) {
        const char *digits = word.data() + i * kStep;
        const auto [stop, error] = std::from_chars(digits, digits + kDigits, mac[i], 16);
        good = error == std::errc() && stop == digits + kDigits && (i == 0 || digits[-1] == ':');
    }
    if (!good)
        throw BadValue("'" + printable(word) + "' is not a MAC address such as 02:00:5e:00:53:01");
    return mac;
}

std::string slotText(const cpudefend::SlotIndex &slot)
{
    return std::to_string(slot.system) + "/" + std::to_string(slot.slot);
}

std::string ip4Text(std::span<const uint8_t> ip)
{
    std::string text;
    for (const uint8_t byte : ip)
        text += (text.empty() ? "" : ".") + std::to_string(byte);
    return text;
}

std::string macText(std::span<const uint8_t> mac)
{
    return hex(mac, ":");
}

std::string interfaceName(uint32_t interface)
{
    char name[IF_NAMESIZE];
    return if_indextoname(interface, name) ? name : "";
}

Field fieldOf(const Attribute &attribute, const Value &value)
{
    return {attribute.name, cellOf(attribute, value), attribute.unit};
}

} // namespace ctl
