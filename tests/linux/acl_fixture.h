/**
 * Access lists for tests: what they mean, told rule by rule, and random ones.
 */
#ifndef ACL_FIXTURE_H
#define ACL_FIXTURE_H

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "acl/acl.h"
#include "acl/acl_compiler.h"

namespace zynlinux
{

inline AclList aclList(AclFamily family, const std::vector<std::string> &rules)
{
    AclList list{1, family, {}};
    for (const std::string &rule : rules)
        list.rules.push_back(parseAclRule(rule, family));
    return list;
}

using BoundAcls = std::vector<AclList>;

inline std::vector<const AclList *> pointers(const BoundAcls &lists)
{
    std::vector<const AclList *> result;
    for (const AclList &list : lists)
        result.push_back(&list);
    return result;
}

/** Tables that a test compiles. */
class CompiledAcls
{
public:
    explicit CompiledAcls(const BoundAcls &lists) : tables_(std::make_unique<cpd_tables>())
    {
        cells_ = compileAcls(pointers(lists), *tables_);
    }

    bool fits() const { return cells_ != 0; }
    size_t cells() const { return cells_; }
    const cpd_tables &tables() const { return *tables_; }
    uint32_t decide(const cpd_acl_key &key) const { return cpd_acl_decide(tables_.get(), &key); }

private:
    std::unique_ptr<cpd_tables> tables_;
    size_t cells_;
};

inline bool aclMatches(const AclPrefix &prefix, const uint32_t *address)
{
    for (int bit = 0; bit < prefix.length; bit++)
        if ((address[bit / 32] ^ prefix.address[static_cast<size_t>(bit / 32)]) >> (31 - bit % 32) &
            1)
            return false;
    return true;
}

inline bool aclMatches(const std::optional<AclPorts> &ports, uint32_t port)
{
    return !ports || (port != CPD_ACL_NO_PORT && port >= ports->low && port <= ports->high);
}

inline bool aclMatches(const AclRule &rule, const cpd_acl_key &key)
{
    bool hasExtra = key.extra < CPD_ACL_NO_EXTRA;
    if (rule.protocol && *rule.protocol != key.protocol)
        return false;
    if (rule.fragments && key.extra != CPD_ACL_FRAGMENT)
        return false;
    if (rule.type && (!hasExtra || key.extra != *rule.type))
        return false;
    if ((rule.flagsSet || rule.flagsClear) &&
        (!hasExtra || (key.extra & rule.flagsSet) != rule.flagsSet || key.extra & rule.flagsClear))
        return false;
    return aclMatches(rule.source, key.source) && aclMatches(rule.destination, key.destination) &&
           aclMatches(rule.sourcePorts, key.source_port) &&
           aclMatches(rule.destinationPorts, key.destination_port);
}

/** What the tables must say: the lists walked rule by rule. */
inline uint32_t walkAcls(const BoundAcls &lists, const cpd_acl_key &key)
{
    for (uint32_t entry = 0; entry < lists.size(); entry++) {
        if ((lists[entry].family == AclFamily::Ipv6) != (key.v6 != 0))
            continue;
        for (const AclRule &rule : lists[entry].rules) {
            if (!aclMatches(rule, key))
                continue;
            if (rule.permit)
                return entry + 1;
            break;
        }
    }
    return 0;
}

/** Rules and packets at random, from few values, so that they meet. */
class AclDice
{
public:
    explicit AclDice(uint32_t seed) : random_(seed) {}

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    bool oneIn(uint32_t chance) { return below(chance) == 0; }

    AclPrefix prefix(AclFamily family)
    {
        AclPrefix prefix;
        if (oneIn(3))
            return prefix;
        unsigned bits = family == AclFamily::Ipv6 ? 128 : 32;
        prefix.length = static_cast<uint8_t>(oneIn(2) ? bits : below(bits + 1));
        address(prefix.address.data());
        for (unsigned bit = prefix.length; bit < 128; bit++)
            prefix.address[bit / 32] &= ~(0x80000000u >> bit % 32);
        return prefix;
    }

    /** Words that differ in few bits, at either end. */
    void address(uint32_t *words)
    {
        for (int i = 0; i < 4; i++)
            words[i] = below(spread_) << 29 | below(2) << 16 | below(spread_);
        if (oneIn(16))
            words[below(4)] = oneIn(2) ? UINT32_MAX : 0;
    }

    uint16_t port() { return static_cast<uint16_t>(oneIn(8) ? 65535 : below(4 + spread_)); }

    std::optional<AclPorts> ports()
    {
        if (oneIn(2))
            return std::nullopt;
        uint16_t a = port(), b = oneIn(2) ? a : port();
        return AclPorts{std::min(a, b), std::max(a, b)};
    }

    AclRule rule(AclFamily family)
    {
        static constexpr uint8_t protocols[] = {6, 17, 1, 58, 47};
        AclRule rule;
        rule.permit = !oneIn(3);
        rule.source = prefix(family);
        rule.destination = prefix(family);
        if (oneIn(5))
            rule.fragments = oneIn(2);
        else
            rule.protocol = protocols[below(5)];
        if (rule.protocol == 6 || rule.protocol == 17) {
            rule.sourcePorts = ports();
            rule.destinationPorts = ports();
        }
        if ((rule.protocol == 1 || rule.protocol == 58) && !oneIn(3))
            rule.type = static_cast<uint8_t>(below(4));
        if (rule.protocol == 6 && oneIn(2)) {
            rule.flagsSet = static_cast<uint8_t>(below(256) & below(256));
            rule.flagsClear = static_cast<uint8_t>(below(256) & below(256) & ~rule.flagsSet);
        }
        return rule;
    }

    BoundAcls lists(uint32_t count, uint32_t rules)
    {
        spread_ = 2 + below(7);
        BoundAcls lists;
        for (uint32_t i = 0; i < count; i++) {
            AclFamily family = oneIn(2) ? AclFamily::Ipv4 : AclFamily::Ipv6;
            lists.push_back({static_cast<uint16_t>(i + 1), family, {}});
            for (uint32_t left = 1 + below(rules); left > 0; left--)
                lists.back().rules.push_back(rule(family));
        }
        return lists;
    }

    cpd_acl_key packet()
    {
        static constexpr uint8_t protocols[] = {6, 17, 1, 58, 47, 89};
        cpd_acl_key key{};
        key.v6 = static_cast<uint8_t>(below(2));
        key.protocol = protocols[below(6)];
        address(key.source);
        address(key.destination);
        bool ported = key.protocol == 6 || key.protocol == 17;
        key.source_port = ported ? port() : CPD_ACL_NO_PORT;
        key.destination_port = ported ? port() : CPD_ACL_NO_PORT;
        key.extra = key.protocol == 6                         ? below(256)
                    : key.protocol == 1 || key.protocol == 58 ? below(4)
                                                              : CPD_ACL_NO_EXTRA;
        cutOff(key);
        return key;
    }

    /** A packet at the edge of what a rule matches. */
    cpd_acl_key packetNear(const AclList &list)
    {
        const AclRule &rule = list.rules[below(static_cast<uint32_t>(list.rules.size()))];
        cpd_acl_key key = packet();
        key.v6 = list.family == AclFamily::Ipv6;
        key.protocol = rule.protocol.value_or(key.protocol);
        near(rule.source, list.family, key.source);
        near(rule.destination, list.family, key.destination);
        near(rule.sourcePorts, key.source_port);
        near(rule.destinationPorts, key.destination_port);
        if (rule.type)
            key.extra = static_cast<uint8_t>(*rule.type + below(3) - 1);
        if (rule.flagsSet || rule.flagsClear)
            key.extra = ((below(256) | rule.flagsSet) & ~rule.flagsClear & 255) ^
                        (oneIn(3) ? 1u << below(8) : 0);
        if (rule.fragments)
            key.extra = CPD_ACL_FRAGMENT;
        cutOff(key);
        return key;
    }

private:
    void cutOff(cpd_acl_key &key)
    {
        if (oneIn(12))
            key.extra = CPD_ACL_FRAGMENT;
        else if (oneIn(12))
            key.extra = CPD_ACL_NO_EXTRA;
        if (key.extra == CPD_ACL_FRAGMENT || (key.extra == CPD_ACL_NO_EXTRA && oneIn(4)))
            key.source_port = key.destination_port = CPD_ACL_NO_PORT;
    }

    void near(const std::optional<AclPorts> &ports, uint32_t &port)
    {
        if (ports && port != CPD_ACL_NO_PORT)
            port = static_cast<uint16_t>((oneIn(2) ? ports->low : ports->high) + below(3) - 1);
    }

    /** The first or last address of a prefix, or the one before or behind. */
    void near(const AclPrefix &prefix, AclFamily family, uint32_t *address)
    {
        if (prefix.length == 0)
            return;
        bool last = oneIn(2);
        unsigned bits = family == AclFamily::Ipv6 ? 128 : 32;
        for (unsigned bit = 0; bit < bits; bit++) {
            uint32_t mask = 0x80000000u >> bit % 32;
            uint32_t set = bit < prefix.length ? prefix.address[bit / 32] & mask : last ? mask : 0;
            address[bit / 32] = (address[bit / 32] & ~mask) | set;
        }
        uint32_t step = oneIn(3) ? (last ? 1 : UINT32_MAX) : 0;
        for (unsigned word = bits / 32; step && word-- > 0;) {
            address[word] += step;
            if (address[word] != (last ? 0 : UINT32_MAX))
                break;
        }
    }

    std::mt19937 random_;
    uint32_t spread_ = 8;
};

inline void PrintTo(const AclPrefix &prefix, std::ostream *out)
{
    char text[64];
    std::snprintf(text, sizeof text, "%08x:%08x:%08x:%08x/%u", prefix.address[0], prefix.address[1],
                  prefix.address[2], prefix.address[3], prefix.length);
    *out << text;
}

} // namespace zynlinux

#endif
