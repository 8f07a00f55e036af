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

uint32_t bounded(std::optional<uint32_t> number, uint32_t min, uint32_t max)
{
    if (!number || *number < min || *number > max)
        throw BadValue("it is not a number from " + range(min, max));
    return *number;
}

template <class T> uint32_t choice(const Attribute &attribute, T Choice::*by, const T &wanted)
{
    const auto found = std::ranges::find(attribute.choices, wanted, by);
    if (found == attribute.choices.end())
        throw BadValue("it is not one of " + wordsOf(attribute));
    return found->number;
}

/** @return the bytes, which must be as many as the attribute may have */
std::string fitting(const Attribute &attribute, std::string octets)
{
    if (octets.size() >= attribute.min && octets.size() <= attribute.max)
        return octets;
    const std::string most = std::to_string(attribute.max);
    throw BadValue(attribute.kind == Kind::Numbers ? "it has not " + most + " numbers"
                                                   : "it is longer than " + most + " bytes");
}

std::string parseNumbers(const Attribute &attribute, std::string_view word)
{
    std::string bytes;
    for (std::size_t at = 0; at <= word.size();) {
        const std::size_t comma = std::min(word.find(',', at), word.size());
        bytes += static_cast<char>(bounded(parseNumber(word.substr(at, comma - at)), 0, UINT8_MAX));
        at = comma + 1;
    }
    return fitting(attribute, bytes);
}

const Attribute &settable(std::span<const Attribute> attributes, const std::string &key)
{
    const Attribute *attribute = findAttribute(attributes, key);
    if (!attribute)
        throw BadValue("there is no setting '" + printable(key) + "'");
    if (attribute->access == Access::ByCommand)
        throw BadValue(key + " is no setting: a command of its own changes it");
    if (!attribute->isSettable())
        throw BadValue(key + " can only be read");
    return *attribute;
}

/** Read or check a value; what is wrong with it is said of the setting. */
template <class Action>
auto ofSetting(const Attribute &attribute, const std::string &text, Action action)
{
    try {
        return action();
    } catch (const BadValue &bad) {
        throw BadValue(std::string(attribute.name) + " cannot be '" + text + "': " + bad.what());
    }
}

Setting parseSetting(std::span<const Attribute> attributes, const std::string &word)
{
    const std::size_t equals = word.find('=');
    if (equals == std::string::npos)
        throw BadValue("'" + printable(word) + "' is not of the form KEY=VALUE");
    const Attribute &attribute = settable(attributes, word.substr(0, equals));
    const std::string value = word.substr(equals + 1);
    return ofSetting(attribute, printable(value), [&] {
        return Setting{&attribute, parseValue(attribute, value), value};
    });
}

void checkValue(const Attribute &attribute, const Value &value)
{
    if (attribute.isOctets() != std::holds_alternative<std::string>(value))
        throw BadValue(attribute.isOctets() ? "it is not bytes" : "it is not an integer");
    if (attribute.isOctets())
        fitting(attribute, std::get<std::string>(value));
    else if (attribute.kind == Kind::Number)
        bounded(std::get<uint32_t>(value), attribute.min, attribute.max);
    else
        choice(attribute, &Choice::number, std::get<uint32_t>(value));
}

void checkOnce(std::span<const Setting> before, const Setting &setting)
{
    if (std::ranges::count(before, setting.attribute, &Setting::attribute) != 0)
        throw BadValue(std::string(setting.attribute->name) + " is given twice");
}

std::string textOf(const Setting &setting)
{
    const auto *number = std::get_if<uint32_t>(&setting.value);
    if (!setting.word.empty() || !number)
        return printable(setting.word.empty() ? std::get<std::string>(setting.value)
                                              : setting.word);
    const auto found = std::ranges::find(setting.attribute->choices, *number, &Choice::number);
    return found == setting.attribute->choices.end() ? std::to_string(*number)
                                                     : std::string(found->word);
}

} // namespace

Setting setting(std::span<const Attribute> attributes, uint32_t id, Value value)
{
    return {&attribute(attributes, id), std::move(value)};
}

std::string labelOf(const Setting &setting)
{
    return std::string(setting.attribute->name) + "=" + textOf(setting);
}

void check(std::span<const Attribute> attributes, std::span<const Setting> settings)
{
    for (std::size_t i = 0; i < settings.size(); ++i) {
        const Attribute &own = settable(attributes, std::string(settings[i].attribute->name));
        if (&own != settings[i].attribute)
            throw BadValue(std::string(own.name) + " is that of another table");
        ofSetting(own, textOf(settings[i]), [&] { checkValue(own, settings[i].value); });
        checkOnce(settings.first(i), settings[i]);
    }
}

Value parseValue(const Attribute &attribute, std::string_view word)
{
    switch (attribute.kind) {
    case Kind::Number: return bounded(parseNumber(word), attribute.min, attribute.max);
    case Kind::Text:
    case Kind::Policy: return fitting(attribute, std::string(word));
    case Kind::Numbers: return parseNumbers(attribute, word);
    case Kind::Ip4:
    case Kind::Packet: throw BadValue("it can only be read");
    case Kind::Choice:
    case Kind::Switch:
    case Kind::Word: break;
    }
    return choice(attribute, &Choice::word, word);
}

std::vector<Setting> parseSettings(std::span<const Attribute> attributes,
                                   std::span<const std::string> words)
{
    std::vector<Setting> settings;
    for (const std::string &word : words) {
        Setting setting = parseSetting(attributes, word);
        checkOnce(settings, setting);
        settings.push_back(std::move(setting));
    }
    return settings;
}

std::string checkedName(std::string name)
{
    if (name.empty() || name.size() > CPUDEFEND_NAME_MAXLEN)
        throw BadValue("a policy name has 1 to " + std::to_string(CPUDEFEND_NAME_MAXLEN) +
                       " bytes");
    return name;
}

uint32_t checkedRule(uint32_t number)
{
    if (number == 0)
        throw BadValue("the daemon keeps a rule 0, but never programs it");
    if (number > UINT8_MAX)
        throw BadValue("a rule has a number from 1 to 255");
    return number;
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
