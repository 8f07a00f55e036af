#include "config.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <net/if.h>
#include <optional>
#include <utility>

#include <toml++/toml.h>

#include "failure.h"

namespace zynlinux
{

namespace
{

constexpr std::array<std::pair<const char *, Mode>, 3> modes = {
    {{"auto", Mode::Auto}, {"native", Mode::Native}, {"generic", Mode::Generic}}};
constexpr std::array<std::pair<const char *, Role>, 2> roles = {
    {{"master", Role::Master}, {"slave", Role::Slave}}};

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
    uint32_t readNumber(const std::string &key, const toml::node &value) const;
    void readPorts(Config &config, const PortConfig &place, const toml::node &value) const;
    void checkPort(const Config &config, const std::string &port, const toml::node &at) const;
    void readSlots(Config &config, const toml::node &value) const;
    void readSlot(Config &config, const toml::table &slot) const;
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

uint32_t Reader::readNumber(const std::string &key, const toml::node &value) const
{
    auto number = value.value_exact<int64_t>();
    if (number && *number >= 0 && *number <= UINT32_MAX)
        return static_cast<uint32_t>(*number);
    fail(value.source(), key + " is not a number from 0 to 4294967295");
}

void Reader::checkPort(const Config &config, const std::string &port, const toml::node &at) const
{
    if (port.empty() || port.size() >= IFNAMSIZ || port.find('\0') != std::string::npos)
        fail(at.source(), "\"" + port + "\" cannot be the name of a port");
    for (const PortConfig &before : config.ports)
        if (before.name == port)
            fail(at.source(), "port \"" + port + "\" stands there twice");
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

void Reader::readSlot(Config &config, const toml::table &slot) const
{
    PortConfig place;
    const toml::node *ports = nullptr;
    for (const auto &[key, value] : slot) {
        if (key == "sys")
            place.sys = readNumber("sys", value);
        else if (key == "slot")
            place.slot = readNumber("slot", value);
        else if (key == "ports")
            ports = &value;
        else
            failUnknown(key);
    }
    if (place.sys == 0 && place.slot == 0)
        fail(slot.source(), "slot 0 of system 0 is the system itself, not a slot");
    for (const PortConfig &before : config.ports)
        if (before.sys == place.sys && before.slot == place.slot)
            fail(slot.source(), "slot " + std::to_string(place.slot) + " of system " +
                                    std::to_string(place.sys) + " stands there twice");
    if (!ports)
        fail(slot.source(), "no key \"ports\"");
    readPorts(config, place, *ports);
}

void Reader::readSlots(Config &config, const toml::node &value) const
{
    const toml::array *array = value.as_array();
    if (!array || !array->is_homogeneous<toml::table>())
        fail(value.source(), "slot is not written as [[slot]]");
    for (const toml::node &element : *array)
        readSlot(config, *element.as_table());
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

std::optional<std::string> slurp(std::FILE *file)
{
    std::string text;
    char buffer[4096];
    while (size_t got = std::fread(buffer, 1, sizeof buffer, file))
        text.append(buffer, got);
    return std::ferror(file) ? std::nullopt : std::optional(std::move(text));
}

} // namespace

Config parseConfig(std::string_view text, const std::string &name)
{
    return Reader(name).read(text);
}

Config readConfig(const std::string &path)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen(path.c_str(), "re"),
                                                          std::fclose);
    std::optional<std::string> text;
    if (file)
        text = slurp(file.get());
    if (!text)
        throw Failure("read platform file " + path, errno);
    return parseConfig(*text, path);
}

const char *modeName(Mode mode)
{
    return std::find_if(modes.begin(), modes.end(), [=](auto &each) { return each.second == mode; })
        ->first;
}

} // namespace zynlinux
