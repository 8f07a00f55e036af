#include "cli/commands.h"

#include "cli/act.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

const Arg kNewPolicy{ArgKind::NewPolicy, "NAME", "name of the policy, 1 to 32 bytes"};
const Arg kPolicy{ArgKind::Policy, "POLICY", "name of the policy"};
const Arg kAnyPolicy{ArgKind::Policy, "POLICY", "name of the policy; all without it", false};
const Arg kPktType{ArgKind::PktType, "TYPE", "packet type, by name or number"};
const Arg kRule{ArgKind::Rule, "INDEX", "number of the rule, 1 to 255"};
const Arg kSlotArg{ArgKind::Slot, "SYS/SLOT", "system number and slot number"};
const Arg kInterface{ArgKind::Interface, "INTERFACE", "interface, by number or name"};
const Arg kIp{ArgKind::Ip4, "IP", "IPv4 address of the source"};
const Arg kMac{ArgKind::Mac, "MAC", "MAC address of the source"};
const Arg kOnOff{ArgKind::OnOff, "on|off", "what to switch to"};
const Arg kPolicySettings{ArgKind::PolicySettings, "KEY=VALUE", "settings, in any order"};
const Arg kFirstSettings{ArgKind::PolicySettings, "KEY=VALUE", "settings, in any order", false};
const Arg kCarSettings{ArgKind::CarSettings, "KEY=VALUE", "settings, sent in this order"};
const Arg kRuleSettings{ArgKind::RuleSettings, "KEY=VALUE", "settings, in any order"};
const Arg kFirstRuleSettings{ArgKind::RuleSettings, "KEY=VALUE", "settings, in any order", false};
const Arg kSlotSettings{ArgKind::SlotSettings, "KEY=VALUE", "settings, in any order"};
const Arg kSystemSettings{ArgKind::SystemSettings, "KEY=VALUE", "settings, in any order"};

const Option kAtSlot{ArgKind::Slot, "--slot", "SYS/SLOT", "a slot in place of the system"};
const Option kOfSlot{ArgKind::Slot, "--slot", "SYS/SLOT", "only those of a slot"};
const Option kWithInterface{ArgKind::Interface, "--interface", "INTERFACE",
                            "only those of an interface"};
const Option kWithIp{ArgKind::Ip4, "--ip", "IP", "only those of an IPv4 address"};
const Option kWithType{ArgKind::PktType, "--type", "TYPE", "only those of a packet type"};
const Option kWithMac{ArgKind::Mac, "--mac", "MAC", "only those of a MAC address"};

constexpr Object kObjects[] = {
    {"policy", "Named sets of limits"},
    {"car", "Limits of a policy for a packet type"},
    {"rule", "Limits of a policy for what an ACL selects"},
    {"slot", "Line cards with a policy of their own"},
    {"source", "Who sent the packets of a flood"},
};

const Command kCommands[] = {
    {"policy", "add", "Create a policy", {kNewPolicy, kFirstSettings}, run::policyAdd},
    {"policy", "set", "Change settings of a policy", {kPolicy, kPolicySettings}, run::policySet},
    {"policy", "show", "Show all of a policy", {kPolicy}, run::policyShow},
    {"policy", "list", "List the policies", {}, run::policyList},
    {"policy", "del", "Delete a policy", {kPolicy}, run::policyDel},
    {"car", "set", "Change a limit", {kPolicy, kPktType, kCarSettings}, run::carSet},
    {"car", "show", "Show all of a limit", {kPolicy, kPktType}, run::carShow},
    {"car", "list", "List the limits", {kAnyPolicy}, run::carList},
    {"rule", "add", "Create a rule", {kPolicy, kRule, kFirstRuleSettings}, run::ruleAdd},
    {"rule", "set", "Change a rule", {kPolicy, kRule, kRuleSettings}, run::ruleSet},
    {"rule", "show", "Show all of a rule", {kPolicy, kRule}, run::ruleShow},
    {"rule", "list", "List the rules", {kAnyPolicy}, run::ruleList},
    {"rule", "del", "Delete a rule", {kPolicy, kRule}, run::ruleDel},
    {"slot", "set", "Change settings of a slot", {kSlotArg, kSlotSettings}, run::slotSet},
    {"slot", "show", "Show all of a slot", {kSlotArg}, run::slotShow},
    {"slot", "list", "List the slots", {}, run::slotList},
    {"source",
     "show",
     "Show all of a traced source",
     {kInterface, kIp, kPktType, kMac},
     run::sourceShow},
    {"source",
     "list",
     "List the traced sources",
     {},
     run::sourceList,
     {kWithInterface, kWithIp, kWithType, kWithMac}},
    {"source", "reset", "Forget the traced sources", {}, run::sourceReset, {kOfSlot}},
    {"", "bind", "Bind a policy to the system or a slot", {kPolicy}, run::bindPolicy, {kAtSlot}},
    {"",
     "unbind",
     "Take the bound policy off the system or a slot",
     {},
     run::unbindPolicy,
     {kAtSlot}},
    {"", "set", "Change the mode and the levels of the system", {kSystemSettings}, run::setSystem},
    {"", "show", "Show the state of the system", {}, run::showSystem},
    {"", "debug", "Switch the daemon's diagnostics", {kOnOff}, run::setDebug},
};

} // namespace

std::span<const Attribute> Arg::attributes() const
{
    switch (kind) {
    case ArgKind::PolicySettings: return policyAttributes();
    case ArgKind::CarSettings: return carPktAttributes();
    case ArgKind::RuleSettings: return ruleAttributes();
    case ArgKind::SlotSettings: return slotAttributes();
    case ArgKind::SystemSettings: return globalAttributes();
    default: return {};
    }
}

std::span<const Object> objects()
{
    return kObjects;
}

std::span<const Command> commands()
{
    return kCommands;
}

} // namespace ctl
