#include "client/values.h"

#include <algorithm>

#include "client/text.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

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
    const auto number = parseNumber(word);
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

Setting parseSetting(std::span<const Attribute> attributes, const std::string &word)
{
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos)
        throw BadValue("'" + printable(word) + "' is not of the form KEY=VALUE");
    const std::string key = word.substr(0, equals);
    const Attribute *attribute = findAttribute(attributes, key);
    if (!attribute)
        throw BadValue("there is no setting '" + printable(key) + "'");
    if (attribute->access == Access::ByCommand)
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

std::string wordOf(const Attribute &attribute, uint32_t number)
{
    const auto found = std::ranges::find(attribute.choices, number, &Choice::number);
    if (found != attribute.choices.end())
        return std::string(found->word);
    return attribute.kind == Kind::Word ? std::to_string(number)
                                        : std::string(attribute.choices.back().word);
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

} // namespace cpudefend
