#include "acl/acl.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <string>

namespace zynlinux
{

namespace
{

constexpr uint8_t protocolIcmp = 1;
constexpr uint8_t protocolTcp = 6;
constexpr uint8_t protocolUdp = 17;
constexpr uint8_t protocolIcmp6 = 58;
constexpr uint8_t protocolSctp = 132;

struct Protocol {
    const char *name;
    uint8_t number;
    bool v4;
    bool v6;
};

constexpr Protocol protocols[] = {
    {"icmp", protocolIcmp, true, false},
    {"igmp", 2, true, false},
    {"tcp", protocolTcp, true, true},
    {"udp", protocolUdp, true, true},
    {"gre", 47, true, true},
    {"esp", 50, true, true},
    {"ah", 51, true, true},
    {"icmp6", protocolIcmp6, false, true},
    {"icmpv6", protocolIcmp6, false, true},
    {"ospf", 89, true, true},
    {"pim", 103, true, true},
    {"vrrp", 112, true, true},
    {"sctp", protocolSctp, true, true},
};

/** Headers that others follow: no packet is of these, as its protocol is what stands behind them.
 */
constexpr uint8_t extensionHeaders[] = {0, 43, 44, 51, 60};

/** RFC 9293, 3.1, from the lowest bit. */
constexpr const char *flagNames[] = {"fin", "syn", "rst", "psh", "ack", "urg", "ece", "cwr"};

std::string quoted(std::string_view text)
{
    return '"' + std::string(text) + '"';
}

std::optional<uint32_t> number(std::string_view text, uint32_t max)
{
    uint32_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value > max)
        return std::nullopt;
    return value;
}

uint32_t prefixMask(int bits)
{
    return bits <= 0 ? 0 : bits >= 32 ? UINT32_MAX : ~(UINT32_MAX >> bits);
}

class RuleReader
{
public:
    RuleReader(std::string_view text, AclFamily family) : text_(text), family_(family) {}

    AclRule read();

private:
    std::string_view peek();
    std::string_view next(const char *expected);
    bool take(std::string_view word);

    void readAction();
    void readProtocol();
    uint8_t protocolNamed(std::string_view word) const;
    AclPrefix readAddress(const char *what);
    void readPrefixLength(AclPrefix &prefix, std::string_view word, std::string_view length) const;
    std::optional<AclPorts> readPorts();
    uint16_t port(std::string_view text) const;
    void readFragments();
    void readOption(std::string_view word);
    void readType();
    void readFlags();
    void readFlag(std::string_view flag);
    void check() const;

    bool v6() const { return family_ == AclFamily::Ipv6; }
    const char *familyName() const { return v6() ? "IPv6" : "IPv4"; }
    uint8_t addressBits() const { return v6() ? 128 : 32; }

    std::string_view text_;
    AclFamily family_;
    AclRule rule_;
};

/** The next word, which stays; empty at the end. */
std::string_view RuleReader::peek()
{
    constexpr const char *space = " \t";
    text_.remove_prefix(std::min(text_.find_first_not_of(space), text_.size()));
    return text_.substr(0, text_.find_first_of(space));
}

std::string_view RuleReader::next(const char *expected)
{
    std::string_view word = peek();
    if (word.empty())
        throw AclError(std::string("the rule ends where ") + expected + " is expected");
    text_.remove_prefix(word.size());
    return word;
}

bool RuleReader::take(std::string_view word)
{
    if (peek() != word)
        return false;
    text_.remove_prefix(word.size());
    return true;
}

void RuleReader::readAction()
{
    std::string_view word = next("\"permit\" or \"deny\"");
    if (word != "permit" && word != "deny")
        throw AclError("action " + quoted(word) + " is not \"permit\" or \"deny\"");
    rule_.permit = word == "permit";
}

uint8_t RuleReader::protocolNamed(std::string_view word) const
{
    for (const Protocol &each : protocols) {
        if (word != each.name)
            continue;
        if (v6() ? each.v6 : each.v4)
            return each.number;
        throw AclError("protocol " + quoted(word) + " is none of " + familyName());
    }
    if (auto value = number(word, 255))
        return static_cast<uint8_t>(*value);
    throw AclError("protocol " + quoted(word) + " is no known name and no number from 0 to 255");
}

void RuleReader::readProtocol()
{
    std::string_view word = next("a protocol");
    if (word == "ip")
        return;
    rule_.protocol = protocolNamed(word);
    if (v6() && std::ranges::count(extensionHeaders, *rule_.protocol))
        throw AclError("protocol " + quoted(word) +
                       " is an extension header of IPv6: what follows it is the protocol");
}

void RuleReader::readPrefixLength(AclPrefix &prefix, std::string_view word,
                                  std::string_view length) const
{
    auto bits = number(length, addressBits());
    if (!bits)
        throw AclError("prefix length of " + quoted(word) + " is not 0 to " +
                       std::to_string(addressBits()));
    prefix.length = static_cast<uint8_t>(*bits);
    for (int i = 0; i < 4; i++)
        if (prefix.address[static_cast<size_t>(i)] & ~prefixMask(prefix.length - 32 * i))
            throw AclError(quoted(word) + " has bits set behind its prefix length");
}

AclPrefix RuleReader::readAddress(const char *what)
{
    std::string_view word = next(what);
    AclPrefix prefix;
    if (word == "any")
        return prefix;
    size_t slash = word.find('/');
    std::string address(word.substr(0, slash));
    // An embedded null would cut the string short there.
    if (address.find('\0') != std::string::npos ||
        inet_pton(v6() ? AF_INET6 : AF_INET, address.c_str(), prefix.address.data()) != 1)
        throw AclError(std::string(what) + ' ' + quoted(word) + " is not \"any\", an " +
                       familyName() + " address or a prefix");
    for (uint32_t &each : prefix.address)
        each = ntohl(each);
    prefix.length = addressBits();
    if (slash != word.npos)
        readPrefixLength(prefix, word, word.substr(slash + 1));
    return prefix;
}

uint16_t RuleReader::port(std::string_view text) const
{
    if (auto value = number(text, UINT16_MAX))
        return static_cast<uint16_t>(*value);
    throw AclError("port " + std::string(text) + " is not 0 to 65535");
}

std::optional<AclPorts> RuleReader::readPorts()
{
    if (!take("port"))
        return std::nullopt;
    std::string_view word = next("a port");
    size_t dash = word.find('-');
    AclPorts ports{port(word.substr(0, dash)), 0};
    ports.high = dash == word.npos ? ports.low : port(word.substr(dash + 1));
    if (ports.high < ports.low)
        throw AclError("ports " + std::string(word) + " end before they begin");
    return ports;
}

void RuleReader::readType()
{
    if (rule_.type)
        throw AclError("type stands there twice");
    std::string_view word = next("a type");
    auto value = number(word, 255);
    if (!value)
        throw AclError("type " + std::string(word) + " is not 0 to 255");
    rule_.type = static_cast<uint8_t>(*value);
}

void RuleReader::readFlag(std::string_view flag)
{
    bool clear = flag.starts_with('!');
    auto name = std::ranges::find(flagNames, flag.substr(clear ? 1 : 0));
    if (name == std::end(flagNames))
        throw AclError("flag " + quoted(flag) + " is not known");
    auto bit = static_cast<uint8_t>(1 << (name - flagNames));
    if ((rule_.flagsSet | rule_.flagsClear) & bit)
        throw AclError(std::string("flag ") + *name + " stands there twice");
    (clear ? rule_.flagsClear : rule_.flagsSet) |= bit;
}

void RuleReader::readFlags()
{
    if (rule_.flagsSet | rule_.flagsClear)
        throw AclError("flags stands there twice");
    std::string_view list = next("a list of flags");
    for (size_t comma; (comma = list.find(',')) != list.npos; list.remove_prefix(comma + 1))
        readFlag(list.substr(0, comma));
    readFlag(list);
}

void RuleReader::readFragments()
{
    if (rule_.fragments)
        throw AclError("fragments stands there twice");
    rule_.fragments = true;
}

void RuleReader::readOption(std::string_view word)
{
    if (word == "type")
        readType();
    else if (word == "flags")
        readFlags();
    else if (word == "fragments")
        readFragments();
    else
        throw AclError("unknown word " + quoted(word));
}

void RuleReader::check() const
{
    uint8_t protocol = rule_.protocol.value_or(0);
    bool ports = rule_.sourcePorts || rule_.destinationPorts;
    bool flags = rule_.flagsSet | rule_.flagsClear;
    if (ports && protocol != protocolTcp && protocol != protocolUdp && protocol != protocolSctp)
        throw AclError("port needs protocol tcp, udp or sctp");
    if (rule_.type && protocol != (v6() ? protocolIcmp6 : protocolIcmp))
        throw AclError(std::string("type needs protocol ") + (v6() ? "icmp6" : "icmp"));
    if (flags && protocol != protocolTcp)
        throw AclError("flags needs protocol tcp");
    if (rule_.fragments && (ports || rule_.type || flags))
        throw AclError("fragments stands with neither port, type nor flags: they are not in there");
}

AclRule RuleReader::read()
{
    readAction();
    readProtocol();
    rule_.source = readAddress("source");
    rule_.sourcePorts = readPorts();
    rule_.destination = readAddress("destination");
    rule_.destinationPorts = readPorts();
    while (!peek().empty())
        readOption(next("an option"));
    check();
    return rule_;
}

} // namespace

AclRule parseAclRule(std::string_view text, AclFamily family)
{
    return RuleReader(text, family).read();
}

} // namespace zynlinux
