/**
 * Values of attributes as operators write and read them.
 */
#ifndef CPUDEFEND_CLIENT_VALUES_H
#define CPUDEFEND_CLIENT_VALUES_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "codec.h"
#include "errors.h"
#include "tables.h"

namespace cpudefend
{

/** An integer or bytes, as the attribute has it. */
using Value = Item;

/** Failure::BadArgument, with the reason that what() gives. */
class BadValue : public Error
{
public:
    explicit BadValue(const std::string &reason) : Error(Failure::BadArgument, reason) {}
};

/** An attribute and the value it is to get. */
struct Setting {
    const Attribute *attribute;
    Value value;
    std::string word = ""; /**< the value as it was written; empty: as the library writes it */
};

/** @param id one of the table's @a attributes */
Setting setting(std::span<const Attribute> attributes, uint32_t id, Value value);

/** "pps=200", fit for a terminal. */
std::string labelOf(const Setting &setting);

/**
 * Settings that the daemon keeps as they are: each of an attribute of the table, settable, given
 * once, and with a value of its type and within its bounds. Throws BadValue.
 */
void check(std::span<const Attribute> attributes, std::span<const Setting> settings);

/** Read a value for an attribute. Throws BadValue. */
Value parseValue(const Attribute &attribute, std::string_view word);

/** Read KEY=VALUE words. Throws BadValue where check() would, too. */
std::vector<Setting> parseSettings(std::span<const Attribute> attributes,
                                   std::span<const std::string> words);

/** A policy name that the daemon can hold. Throws BadValue. */
std::string checkedName(std::string name);

/** The number of a rule to be made: 1 to 255. Throws BadValue. */
uint32_t checkedRule(uint32_t number);

/** The word that a number of an attribute with choices stands for, as its Kind says. */
std::string wordOf(const Attribute &attribute, uint32_t number);

/** What may stand behind KEY=, for help: words, or a range. */
std::string describeValues(const Attribute &attribute);

} // namespace cpudefend

#endif
