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

std::string range(uint32_t min, uint32_t max)
{
    return std::to_string(min) + " to " + std::to_string(max);
}

std::string wordsOf(const Attribute &attribute)
{
    std::string words;
    for (const Choice &choice : attribute.choices)
        words += (words.empty() ? "" : "|") + std::string(choice.word);
    return words;
}

uint32_t parseBounded(std::string_view word, uint32_t min, uint32_t max)
{
    const auto number = cpudefend::parseNumber(word);
    if (!number || *number < min || *number > max)
        throw BadValue("it is not a number from " + range(min, max));
    return *number;
}

uint32_t parseWord(const Attribute &attribute, std::string_view word)
{
    const auto found = std::ranges::find(attribute.choices, word, &Choice::word);
    if (found == attribute.choices.end())
        throw BadValue("it is not one of " + wordsOf(attribute));
    return found->number;
}

std::string parseText(const Attribute &attribute, std::string_view word)
{
    if (word.size() > attribute.max)
        throw BadValue("it is longer than " + std::to_string(attribute.max) + " bytes");
    return std::string(word);
}

std::string parseNumbers(const Attribute &attribute, std::string_view word)
{
    std::string bytes;
    for (std::size_t at = 0; at <= word.size();) {
        const std::size_t comma = std::min(word.find(',', at), word.size());
        bytes += static_cast<char>(parseBounded(word.substr(at, comma - at), 0, UINT8_MAX));
        at = comma + 1;
    }
    if (bytes.size() < attribute.min || bytes.size() > attribute.max)
        throw BadValue("it has not " + std::to_string(attribute.max) + " numbers");
    return bytes;
}

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

std::string wordOf(const Attribute &attribute, uint32_t number)
{
    const auto found = std::ranges::find(attribute.choices, number, &Choice::number);
    if (found != attribute.choices.end())
        return std::string(found->word);
    return attribute.kind == Kind::Word ? std::to_string(number)
                                        : std::string(attribute.choices.back().word);
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

Setting parseSetting(std::span<const Attribute> attributes, const std::string &word)
{
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos)
        throw BadValue("'" + printable(word) + "' is not of the form KEY=VALUE");
    const std::string key = word.substr(0, equals);
    const Attribute *attribute = findAttribute(attributes, key);
    if (!attribute)
        throw BadValue("there is no setting '" + printable(key) + "'");
    if (attribute->access == cpudefend::Access::ByCommand)
        throw BadValue(key + " is no setting: a command of its own changes it");
    if (!attribute->isSettable())
        throw BadValue(key + " can only be read");
    std::string value = word.substr(equals + 1);
    try {
        return {attribute, parseValue(*attribute, value), value};
    } catch (const BadValue &bad) {
        throw BadValue(key + " cannot be '" + printable(value) + "': " + bad.what());
    }
}

} // namespace

Value parseValue(const Attribute &attribute, std::string_view word)
{
    switch (attribute.kind) {
    case Kind::Number: return parseBounded(word, attribute.min, attribute.max);
    case Kind::Text:
    case Kind::Policy: return parseText(attribute, word);
    case Kind::Numbers: return parseNumbers(attribute, word);
    case Kind::Ip4:
    case Kind::Packet: throw BadValue("it can only be read");
    case Kind::Choice:
    case Kind::Switch:
    case Kind::Word: break;
    }
    return parseWord(attribute, word);
}

std::vector<Setting> parseSettings(std::span<const Attribute> attributes,
                                   std::span<const std::string> words)
{
    std::vector<Setting> settings;
    for (const std::string &word : words) {
        Setting setting = parseSetting(attributes, word);
        if (std::ranges::count(settings, setting.attribute, &Setting::attribute) != 0)
            throw BadValue(std::string(setting.attribute->name) + " is given twice");
        settings.push_back(std::move(setting));
    }
    return settings;
}

const std::string &checkedName(const std::string &name)
{
    if (name.empty() || name.size() > CPUDEFEND_NAME_MAXLEN)
        throw BadValue("a policy name has 1 to " + std::to_string(CPUDEFEND_NAME_MAXLEN) +
                       " bytes");
    return name;
}

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

std::string describeValues(const Attribute &attribute)
{
    switch (attribute.kind) {
    case Kind::Number: return range(attribute.min, attribute.max);
    case Kind::Policy: return "name of a policy, or nothing";
    case Kind::Text: return "text, at most " + std::to_string(attribute.max) + " bytes";
    case Kind::Numbers: return "N,N,N with N from 0 to 255";
    case Kind::Ip4:
    case Kind::Packet: return ""; // only read
    case Kind::Choice:
    case Kind::Switch:
    case Kind::Word: break;
    }
    return wordsOf(attribute);
}

} // namespace ctl
