#include "client/tables.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "cpuDefend_nm.h"

namespace cpudefend
{

namespace
{

constexpr auto ReadOnly = Access::ReadOnly;
constexpr auto ByCommand = Access::ByCommand;
constexpr auto Settable = Access::Settable;
constexpr uint32_t kMax8 = UINT8_MAX;
constexpr uint32_t kMax16 = UINT16_MAX;
constexpr uint32_t kMax32 = UINT32_MAX;

constexpr std::string_view kKbits = "kbit/s";
constexpr std::string_view kBytes = "bytes";
constexpr std::string_view kPps = "packets/s";
constexpr std::string_view kPackets = "packets";
constexpr std::string_view kPercent = "percent";

constexpr uint32_t kAnyUse = 101; // a threshold above every CPU use
constexpr uint32_t kIp4Length = 4;

constexpr std::array kOnOff{Choice{"on", CPUDEFEND_ENABLE}, Choice{"off", CPUDEFEND_DISABLE}};
constexpr std::array kActions{Choice{"deny", CPUDEFEND_ENABLE},
                              Choice{"permit", CPUDEFEND_DISABLE}};
// Of a rule, unlike a CAR entry, every number but 0 denies.
constexpr std::array kRuleActions{Choice{"permit", 0}, Choice{"deny", CPUDEFEND_ENABLE}};
constexpr std::array kCarModes{Choice{"default", CPUDEFEND_CARPKTMODE_DEFAULT},
                               Choice{"pps", CPUDEFEND_CARPKTMODE_PPS},
                               Choice{"cir", CPUDEFEND_CARPKTMODE_CIR}};
constexpr std::array kPolicyModes{Choice{"cpu-rate", CPUDEFEND_CPURAT_CONTROL},
                                  Choice{"fixed", CPUDEFEND_FIXED}};
constexpr std::array kStatuses{Choice{"active", CPUDEFEND_STATUS_ACTIVE},
                               Choice{"created", CPUDEFEND_STATUS_CREATED}};

constexpr Attribute number(std::string_view name, uint32_t id, Access access, uint32_t max,
                           std::string_view unit, std::string_view help)
{
    return {name, id, Kind::Number, access, 0, max, unit, help, {}};
}

constexpr Attribute onOff(std::string_view name, uint32_t id, std::string_view help)
{
    return {name, id, Kind::Switch, Settable, 0, 0, "", help, kOnOff};
}

constexpr Attribute policyName(std::string_view name, uint32_t id, Access access,
                               std::string_view help)
{
    return {name, id, Kind::Policy, access, 0, CPUDEFEND_NAME_MAXLEN, "", help, {}};
}

constexpr Attribute policyMode(uint32_t id)
{
    return {"mode",      id, Kind::Choice, Settable,
            0,           0,  "",           "fixed: the bound policy; cpu-rate: chosen by CPU use",
            kPolicyModes};
}

constexpr std::string_view kSystemThreshold = "the level is for a CPU use above this";
constexpr std::string_view kSlotThreshold = "the level is for a CPU use below this; 101 is any";
constexpr std::string_view kLevelPolicy = "policy of the level; nothing for none";

constexpr std::array kGlobal{
    policyName("policy", CPUDEFEND_GLOBAL_POLICY, ByCommand, "policy bound to the system"),
    policyMode(CPUDEFEND_GLOBAL_POLICYMODE),
    number("l1-threshold", CPUDEFEND_GLOBAL_L1CPURAT, Settable, 100, kPercent, kSystemThreshold),
    policyName("l1-policy", CPUDEFEND_GLOBAL_L1POLICYNAME, Settable, kLevelPolicy),
    number("l2-threshold", CPUDEFEND_GLOBAL_L2CPURAT, Settable, 100, kPercent, kSystemThreshold),
    policyName("l2-policy", CPUDEFEND_GLOBAL_L2POLICYNAME, Settable, kLevelPolicy),
    number("l3-threshold", CPUDEFEND_GLOBAL_L3CPURAT, Settable, 100, kPercent, kSystemThreshold),
    policyName("l3-policy", CPUDEFEND_GLOBAL_L3POLICYNAME, Settable, kLevelPolicy),
    Attribute{"debug", CPUDEFEND_GLOBAL_DEBUG, Kind::Switch, ByCommand, 0, 0, "",
              "the daemon prints diagnostics", kOnOff},
    number("policies-max", CPUDEFEND_GLOBAL_MAXPOLICYNUM, ReadOnly, kMax32, "",
           "policies there is room for"),
    number("policies-used", CPUDEFEND_GLOBAL_USEPOLICYNUM, ReadOnly, kMax32, "",
           "policies there are"),
    number("rules-max", CPUDEFEND_GLOBAL_MAXUSERDEFINEDNUM, ReadOnly, kMax32, "",
           "user-defined rules there is room for"),
    number("rules-used", CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM, ReadOnly, kMax32, "",
           "user-defined rules added and deleted so far"),
    number("car-entries-max", CPUDEFEND_GLOBAL_MAXCARPKTNUM, ReadOnly, kMax32, "",
           "CAR entries there is room for"),
    number("car-entries-used", CPUDEFEND_GLOBAL_USECARPKTNUM, ReadOnly, kMax32, "",
           "CAR entries in use, those of destroyed policies too"),
    number("sources-max", CPUDEFEND_GLOBAL_MAXSRCTRACENUM, ReadOnly, kMax32, "",
           "traced sources there is room for"),
    number("sources-used", CPUDEFEND_GLOBAL_USESRCTRACENUM, ReadOnly, kMax32, "",
           "traced sources there are"),
    number("slots-max", CPUDEFEND_GLOBAL_MAXSLOTNUM, ReadOnly, kMax32, "",
           "slots there is room for"),
    number("slots-used", CPUDEFEND_GLOBAL_USESLOTNUM, ReadOnly, kMax32, "", "slots there are"),
};

constexpr std::array kPolicy{
    Attribute{"status", CPUDEFEND_POLICY_ENTRYSTATUS, Kind::Word, ReadOnly, 0, 0, "",
              "active, or created and not yet active", kStatuses},
    Attribute{"description", CPUDEFEND_POLICY_DESCRIPTION, Kind::Text, Settable, 0,
              CPUDEFEND_DESCRIPTION_MAXLEN, "", "free text"},
    Attribute{"priority", CPUDEFEND_POLICY_PRIORITY, Kind::Numbers, Settable,
              CPUDEFEND_PRIORITY_LEN, CPUDEFEND_PRIORITY_LEN, "", "three numbers"},
    onOff("white-list", CPUDEFEND_POLICY_WHITELISTENABLE, "the white list is in force"),
    number("white-list-ip4-acl", CPUDEFEND_POLICY_WHITELISTIP4ACL, Settable, kMax16, "",
           "ACL of the IPv4 white list, 0 for none"),
    number("white-list-ip6-acl", CPUDEFEND_POLICY_WHITELISTIP6ACL, Settable, kMax16, "",
           "ACL of the IPv6 white list, 0 for none"),
    number("white-list-ip4-cir", CPUDEFEND_POLICY_WHITELISTIP4CIR, Settable, kMax32, kKbits,
           "rate of the IPv4 white list"),
    number("white-list-ip4-cbs", CPUDEFEND_POLICY_WHITELISTIP4CBS, Settable, kMax32, kBytes,
           "burst of the IPv4 white list"),
    number("white-list-ip6-cir", CPUDEFEND_POLICY_WHITELISTIP6CIR, Settable, kMax32, kKbits,
           "rate of the IPv6 white list"),
    number("white-list-ip6-cbs", CPUDEFEND_POLICY_WHITELISTIP6CBS, Settable, kMax32, kBytes,
           "burst of the IPv6 white list"),
    onOff("black-list", CPUDEFEND_POLICY_BLACKLISTENABLE, "the black list is in force"),
    number("black-list-ip4-acl", CPUDEFEND_POLICY_BLACKLISTIP4ACL, Settable, kMax16, "",
           "ACL of the IPv4 black list, 0 for none"),
    number("black-list-ip6-acl", CPUDEFEND_POLICY_BLACKLISTIP6ACL, Settable, kMax16, "",
           "ACL of the IPv6 black list, 0 for none"),
    onOff("source-trace", CPUDEFEND_POLICY_SRCTRACEENABLE, "sources of a flood are recorded"),
    onOff("source-trace-data", CPUDEFEND_POLICY_SRCTRACEPKTDATAENABLE,
          "a packet of each source is kept"),
    onOff("source-trace-alarm", CPUDEFEND_POLICY_SRCTRACEALARMENABLE, "stored; no alarm is sent"),
    number("source-trace-threshold", CPUDEFEND_POLICY_SRCTRACETHRESHOLD, Settable, kMax16, kPackets,
           "count in 100 ms from which sources are recorded"),
    number("source-trace-alarm-threshold", CPUDEFEND_POLICY_SRCTRACEALARMTHRESHOLD, Settable,
           kMax16, kPackets, "the same: the lower one is in force"),
    number("bindings", CPUDEFEND_POLICY_REFCOUNT, ReadOnly, kMax32, "",
           "places where the policy is programmed"),
};

constexpr std::array kCarPkt{
    Attribute{"mode", CPUDEFEND_CARPKT_MODE, Kind::Word, Settable, 0, 0, "",
              "the limit in force: packets (pps), bytes (cir) or the platform's own (default)",
              kCarModes},
    number("pps", CPUDEFEND_CARPKT_PPS, Settable, kMax32, kPps, "packet rate, for mode pps"),
    number("cir", CPUDEFEND_CARPKT_CIR, Settable, kMax32, kKbits, "byte rate, for mode cir"),
    number("cbs", CPUDEFEND_CARPKT_CBS, Settable, kMax32, kBytes, "burst, for mode cir"),
    Attribute{"action", CPUDEFEND_CARPKT_DENY, Kind::Choice, Settable, 0, 0, "",
              "permit within the limit, or deny", kActions},
    number("queue", CPUDEFEND_CARPKT_QUEUE, Settable, kMax8, "", "queue towards the CPU"),
    number("priority", CPUDEFEND_CARPKT_PRIORITY, Settable, kMax8, "", "priority in the queue"),
    number("passed", CPUDEFEND_CARPKT_PASSNUM, ReadOnly, kMax32, kPackets, "packets let through"),
    number("dropped", CPUDEFEND_CARPKT_DROPNUM, ReadOnly, kMax32, kPackets, "packets dropped"),
    number("total-pps", CPUDEFEND_CARPKT_TOTALPKTPPS, Settable, kMax32, kPps,
           "packet rate of the type, a statistic"),
    number("total-bps", CPUDEFEND_CARPKT_TOTALPKTBPS, Settable, kMax32, "bytes/s",
           "byte rate of the type, a statistic"),
};

constexpr std::array kRule{
    Attribute{"status", CPUDEFEND_USERDEFINED_ENTRYSTATUS, Kind::Word, ReadOnly, 0, 0, "", "active",
              kStatuses},
    Attribute{"action", CPUDEFEND_USERDEFINED_DENY, Kind::Choice, Settable, 0, 0, "",
              "permit within the rate, or deny", kRuleActions},
    number("ip4-acl", CPUDEFEND_USERDEFINED_IP4ACL, Settable, kMax16, "",
           "ACL of the IPv4 packets, 0 for none"),
    number("ip6-acl", CPUDEFEND_USERDEFINED_IP6ACL, Settable, kMax16, "",
           "ACL of the IPv6 packets, 0 for none"),
    number("cir", CPUDEFEND_USERDEFINED_CIR, Settable, kMax32, kKbits, "rate that is permitted"),
    number("cbs", CPUDEFEND_USERDEFINEDT_CBS, Settable, kMax32, kBytes, "its burst"),
};

constexpr std::array kSlot{
    policyName("policy", CPUDEFEND_SLOT_POLICY, ByCommand, "policy bound to the slot"),
    policyMode(CPUDEFEND_SLOT_POLICYMODE),
    number("l1-threshold", CPUDEFEND_SLOT_L1CPURAT, Settable, kAnyUse, kPercent, kSlotThreshold),
    policyName("l1-policy", CPUDEFEND_SLOT_L1POLICYNAME, Settable, kLevelPolicy),
    number("l2-threshold", CPUDEFEND_SLOT_L2CPURAT, Settable, kAnyUse, kPercent, kSlotThreshold),
    policyName("l2-policy", CPUDEFEND_SLOT_L2POLICYNAME, Settable, kLevelPolicy),
    number("l3-threshold", CPUDEFEND_SLOT_L3CPURAT, Settable, kAnyUse, kPercent, kSlotThreshold),
    policyName("l3-policy", CPUDEFEND_SLOT_L3POLICYNAME, Settable, kLevelPolicy),
};

constexpr std::array kSource{
    number("outer-vlan", CPUDEFEND_SRCTRACE_OUTERVLAN, ReadOnly, kMax16, "",
           "outer VLAN of the last packet, 0 for none"),
    number("inner-vlan", CPUDEFEND_SRCTRACE_INNERVLAN, ReadOnly, kMax16, "",
           "inner VLAN of the last packet, 0 for none"),
    Attribute{"destination", CPUDEFEND_SRCTRACE_DSTIP, Kind::Ip4, ReadOnly, kIp4Length, kIp4Length,
              "", "where the last packet went"},
    number("total", CPUDEFEND_SRCTRACE_TOTALNUM, ReadOnly, kMax32, kPackets,
           "packets of the type, from all sources, up to the last one"),
    Attribute{"data", CPUDEFEND_SRCTRACE_PTKDATA, Kind::Packet, ReadOnly, 0, CPUDEFEND_PKTDATA_LEN,
              "", "first bytes of the last packet"},
};

constexpr std::array kPktTypes{
#define WORD(number, name, word, frames) std::string_view(word),
    ZYN_PKT_TYPES(WORD)
#undef WORD
};

} // namespace

std::span<const Attribute> globalAttributes()
{
    return kGlobal;
}

std::span<const Attribute> policyAttributes()
{
    return kPolicy;
}

std::span<const Attribute> carPktAttributes()
{
    return kCarPkt;
}

std::span<const Attribute> ruleAttributes()
{
    return kRule;
}

std::span<const Attribute> slotAttributes()
{
    return kSlot;
}

std::span<const Attribute> sourceAttributes()
{
    return kSource;
}

const Attribute *findAttribute(std::span<const Attribute> attributes, std::string_view name)
{
    const auto found = std::ranges::find(attributes, name, &Attribute::name);
    return found == attributes.end() ? nullptr : &*found;
}

const Attribute &attribute(std::span<const Attribute> attributes, uint32_t id)
{
    return *std::ranges::find(attributes, id, &Attribute::id);
}

std::span<const std::string_view> pktTypeNames()
{
    return kPktTypes;
}

std::string pktTypeName(uint32_t pktType)
{
    return pktType < kPktTypes.size() ? std::string(kPktTypes[pktType]) : std::to_string(pktType);
}

std::optional<uint32_t> findPktType(std::string_view text)
{
    const auto named = std::ranges::find(kPktTypes, text);
    if (named != kPktTypes.end())
        return static_cast<uint32_t>(named - kPktTypes.begin());
    const auto number = parseNumber(text);
    return number && *number < kPktTypes.size() ? number : std::nullopt;
}

std::optional<uint32_t> parseNumber(std::string_view text)
{
    uint32_t number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

} // namespace cpudefend
