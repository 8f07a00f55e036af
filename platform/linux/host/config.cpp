#include "host/config.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <net/if.h>
#include <sys/stat.h>
#include <utility>

#include <toml++/toml.h>

#include "base/descriptor.h"
#include "base/failure.h"

namespace zynlinux
{

namespace
{

constexpr std::array<std::pair<const char *, Mode>, 3> modes = {
    {{"auto", Mode::Auto}, {"native", Mode::Native}, {"generic", Mode::Generic}}};
constexpr std::array<std::pair<const char *, Role>, 2> roles = {
    {{"master", Role::Master}, {"slave", Role::Slave}}};
constexpr std::array<std::pair<const char *, OnStop>, 2> stops = {
    {{"remove", OnStop::Remove}, {"leave", OnStop::Leave}}};
constexpr std::array<std::pair<const char *, AclFamily>, 2> families = {
    {{"ipv4", AclFamily::Ipv4}, {"ipv6", AclFamily::Ipv6}}};

/** One file being read: knows its name for the messages. */
class Reader
{
public:
    explicit Reader(const std::string &file) : file_(file) {}

    Config read(std::string_view text) const;

    [[noreturn]] void fail(const toml::source_region &at, const std::string &reason) const
    {
        throw Failure("read platform file " + file_,
                      "line " + std::to_string(at.begin.line) + ": " + reason);
    }

private:
    void readKey(Config &config, const toml::key &key, const toml::node &value) const;
    std::string readString(const std::string &key, const toml::node &value) const;
    uint32_t readNumber(const std::string &key, const toml::node &value, uint32_t low,
                        uint32_t high) const;
    std::string readPin(const toml::node &value) const;
    void readPorts(Config &config, const PortConfig &place, const toml::node &value) const;
    void checkPort(const Config &config, const std::string &port, const toml::node &at) const;
    void readSlots(Config &config, const toml::node &value) const;
    void readSlot(Config &config, const toml::table &slot) const;
    void checkSlot(const Config &config, const PortConfig &place, const toml::table &slot) const;
    void readAcls(Config &config, const toml::node &value) const;
    AclList readAcl(const toml::table &table) const;
    std::vector<AclRule> readRules(AclFamily family, const toml::node &value) const;
    AclRule readRule(AclFamily family, const toml::node &value) const;
    const toml::node &need(const toml::table &table, const char *key) const;
    [[noreturn]] void failUnknown(const toml::key &key) const;

    template <class Table>
    auto readChoice(const std::string &key, const toml::node &value, const Table &table) const
    {
        std::string word = readString(key, value);
        std::string allowed;
        for (const auto &[name, choice] : table) {
            if (word == name)
                return choice;
            allowed += (allowed.empty() ? "\"" : ", \"") + std::string(name) + '"';
        }
        fail(value.source(), key + " is \"" + word + "\", not one of " + allowed);
    }

    const std::string &file_;
};

std::string Reader::readString(const std::string &key, const toml::node &value) const
{
    if (auto text = value.value_exact<std::string>())
        return *text;
    fail(value.source(), key + " is not a string");
}

uint32_t Reader::readNumber(const std::string &key, const toml::node &value, uint32_t low,
                            uint32_t high) const
{
    auto number = value.value_exact<int64_t>();
    if (number && *number >= low && *number <= high)
        return static_cast<uint32_t>(*number);
    fail(value.source(),
         key + " is not a number from " + std::to_string(low) + " to " + std::to_string(high));
}

std::string Reader::readPin(const toml::node &value) const
{
    std::string folder = readString("pin", value);
    if (folder == "none")
        return {};
    if (!folder.starts_with('/') || folder.find('\0') != std::string::npos)
        fail(value.source(), "pin is \"" + folder + "\", not a folder from / on or \"none\"");
    return folder;
}

void Reader::checkPort(const Config &config, const std::string &port, const toml::node &at) const
{
    if (port.empty() || port.size() >= IFNAMSIZ || port.find('\0') != std::string::npos)
        fail(at.source(), "\"" + port + "\" cannot be the name of a port");
    for (const PortConfig &before : config.ports)
        if (before.name == port)
            fail(at.source(), "port \"" + port + "\" stands there twice");
    if (config.ports.size() == portsMax)
        fail(at.source(), "more than " + std::to_string(portsMax) + " ports");
}

/** @param place where the ports are; its name is not looked at */
void Reader::readPorts(Config &config, const PortConfig &place, const toml::node &value) const
{
    const toml::array *array = value.as_array();
    if (!array || array->empty())
        fail(value.source(), "ports is not a list of at least one port name");
    for (const toml::node &element : *array) {
        std::string port = readString("a port", element);
        checkPort(config, port, element);
        config.ports.push_back({std::move(port), place.sys, place.slot});
    }
}

void Reader::checkSlot(const Config &config, const PortConfig &place, const toml::table &slot) const
{
    if (place.sys == 0 && place.slot == 0)
        fail(slot.source(), "slot 0 of system 0 is the system itself, not a slot");
    for (const PortConfig &before : config.ports)
        if (before.sys == place.sys && before.slot == place.slot)
            fail(slot.source(), "slot " + std::to_string(place.slot) + " of system " +
                                    std::to_string(place.sys) + " stands there twice");
}

void Reader::readSlot(Config &config, const toml::table &slot) const
{
    PortConfig place;
    for (const auto &[key, value] : slot) {
        if (key == "sys")
            place.sys = readNumber("sys", value, 0, slotNumberMax);
        else if (key == "slot")
            place.slot = readNumber("slot", value, 0, slotNumberMax);
        else if (key != "ports")
            failUnknown(key);
    }
    checkSlot(config, place, slot);
    readPorts(config, place, need(slot, "ports"));
}

void Reader::readSlots(Config &config, const toml::node &value) const
{
    const toml::array *array = value.as_array();
    if (!array || !array->is_homogeneous<toml::table>())
        fail(value.source(), "slot is not written as [[slot]]");
    if (array->size() > slotsMax)
        fail((*array)[slotsMax].source(), "more than " + std::to_string(slotsMax) + " slots");
    for (const toml::node &element : *array)
        readSlot(config, *element.as_table());
}

AclRule Reader::readRule(AclFamily family, const toml::node &value) const
try {
    return parseAclRule(readString("a rule", value), family);
} catch (const AclError &error) {
    fail(value.source(), error.what());
}

std::vector<AclRule> Reader::readRules(AclFamily family, const toml::node &value) const
{
    const toml::array *array = value.as_array();
    if (!array || array->empty())
        fail(value.source(), "rules is not a list of at least one rule");
    if (array->size() > aclRulesMax)
        fail((*array)[aclRulesMax].source(),
             "more than " + std::to_string(aclRulesMax) + " rules in an ACL");
    std::vector<AclRule> rules;
    for (const toml::node &element : *array)
        rules.push_back(readRule(family, element));
    return rules;
}

const toml::node &Reader::need(const toml::table &table, const char *key) const
{
    if (const toml::node *value = table.get(key))
        return *value;
    fail(table.source(), std::string("no key \"") + key + "\"");
}

AclList Reader::readAcl(const toml::table &table) const
{
    for (const auto &[key, value] : table)
        if (key != "number" && key != "family" && key != "rules")
            failUnknown(key);
    AclList list;
    list.number = static_cast<uint16_t>(readNumber("number", need(table, "number"), 1, UINT16_MAX));
    list.family = readChoice("family", need(table, "family"), families);
    list.rules = readRules(list.family, need(table, "rules"));
    return list;
}

void Reader::readAcls(Config &config, const toml::node &value) const
{
    const toml::array *array = value.as_array();
    if (!array || !array->is_homogeneous<toml::table>())
        fail(value.source(), "acl is not written as [[acl]]");
    for (const toml::node &element : *array) {
        AclList list = readAcl(*element.as_table());
        uint16_t number = list.number;
        if (!config.acls.emplace(number, std::move(list)).second)
            fail(element.source(), "acl " + std::to_string(number) + " stands there twice");
    }
}

void Reader::failUnknown(const toml::key &key) const
{
    fail(key.source(), "unknown key \"" + std::string(key.str()) + "\"");
}

void Reader::readKey(Config &config, const toml::key &key, const toml::node &value) const
{
    if (key == "ports")
        readPorts(config, {}, value);
    else if (key == "slot")
        readSlots(config, value);
    else if (key == "mode")
        config.mode = readChoice("mode", value, modes);
    else if (key == "role")
        config.role = readChoice("role", value, roles);
    else if (key == "pin")
        config.pin = readPin(value);
    else if (key == "grace")
        config.grace = readNumber("grace", value, 0, graceMax);
    else if (key == "on_stop")
        config.onStop = readChoice("on_stop", value, stops);
    else if (key == "unread_pps")
        config.unreadPps = readNumber("unread_pps", value, 0, UINT32_MAX);
    else if (key == "acl")
        readAcls(config, value);
    else
        failUnknown(key);
}

Config Reader::read(std::string_view text) const
try {
    Config config;
    for (const auto &[key, value] : toml::parse(text, file_))
        readKey(config, key, value);
    if (config.ports.empty())
        throw Failure("read platform file " + file_, "no key \"ports\"");
    return config;
} catch (const toml::parse_error &error) {
    fail(error.source(), std::string(error.description()));
}

/** The text of a regular file: another may keep its reader waiting, or never end. */
std::string slurp(const std::string &path)
{
    const std::string what = "read platform file " + path;
    Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (file.get() < 0 || fstat(file.get(), &status) != 0)
        throw Failure(what, errno);
    if (!S_ISREG(status.st_mode))
        throw Failure(what, "it is no regular file");
    std::string text;
    char buffer[4096];
    ssize_t got;
    while ((got = read(file.get(), buffer, sizeof buffer)) > 0)
        text.append(buffer, static_cast<size_t>(got));
    if (got < 0)
        throw Failure(what, errno);
    return text;
}

} // namespace

Config parseConfig(std::string_view text, const std::string &name)
{
    return Reader(name).read(text);
}

Config readConfig(const std::string &path)
{
    return parseConfig(slurp(path), path);
}

const char *modeName(Mode mode)
{
    return std::find_if(modes.begin(), modes.end(), [=](auto &each) { return each.second == mode; })
        ->first;
}

} // namespace zynlinux
