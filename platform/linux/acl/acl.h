/**
 * Numbered access lists: the model, and the text of a rule. docs/acl.md describes both.
 */
#ifndef ZYNLINUX_ACL_H
#define ZYNLINUX_ACL_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace zynlinux
{

enum class AclFamily : uint8_t { Ipv4, Ipv6 };

constexpr size_t aclRulesMax = 4096; /**< in a list */

/** The leading bits of an address; with length 0 any address. */
struct AclPrefix {
    std::array<uint32_t, 4> address{}; /**< in host order; an IPv4 address is the first word */
    uint8_t length = 0;
};

struct AclPorts {
    uint16_t low;
    uint16_t high;
};

/** What is not given here matches anything. */
struct AclRule {
    bool permit = false;
    bool fragments = false; /**< later fragments only: those without the upper header */
    std::optional<uint8_t> protocol;
    AclPrefix source;
    AclPrefix destination;
    std::optional<AclPorts> sourcePorts;
    std::optional<AclPorts> destinationPorts;
    std::optional<uint8_t> type; /**< of ICMP */
    uint8_t flagsSet = 0;        /**< flags of TCP that must be set */
    uint8_t flagsClear = 0;      /**< flags of TCP that must be clear */
};

/** The first rule that matches a packet says whether the list selects it; without one it doesn't.
 */
struct AclList {
    uint16_t number = 0; /**< 1 to 65535 */
    AclFamily family = AclFamily::Ipv4;
    std::vector<AclRule> rules;
};

/** What is wrong with the text of a rule. */
struct AclError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/**
 * Read a rule: ACTION PROTOCOL SOURCE [port N|N-M] DESTINATION [port N|N-M] [type N] [flags LIST]
 * [fragments]
 * @throw AclError
 */
AclRule parseAclRule(std::string_view text, AclFamily family);

} // namespace zynlinux

#endif
