#include "cli/commands.h"

#include <algorithm>
#include <optional>

#include "cli/values.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

// Packet types 0 to 9: those that a policy is created with.
constexpr uint32_t kLimitsOfAPolicy = 10;

// ---- Failures ---------------------------------------------------------------------------

Exit statusOf(const Error &error)
{
    return error.failure() == Failure::Refused ? kExitRefused : kExitUnreachable;
}

/** "There is no such entry" in the words of what was asked for. */
std::string reasonOf(Context &context, const Error &error, const std::string &policy)
{
    if (error.code() != CPUDEFEND_ENOENTRY)
        return error.what();
    return context.client.policyExists(policy) ? "a policy has no CAR entry of this type"
                                               : "there is no policy of this name";
}

/** Do something; what fails becomes "couldn't @a what: reason". */
template <class Action>
auto attempt(Context &context, const std::string &what, const std::string &policy, Action action)
{
    try {
        return action();
    } catch (const BadValue &bad) {
        throw CommandFailed(kExitUsage, "couldn't " + what + ": " + bad.what());
    } catch (const Error &error) {
        throw CommandFailed(statusOf(error),
                            "couldn't " + what + ": " + reasonOf(context, error, policy));
    }
}

std::string quoted(const std::string &policy)
{
    return "policy " + printable(policy);
}

// ---- Settings ---------------------------------------------------------------------------

/** -1 for what opens the way for other settings, 1 for what closes it. */
int order(const Setting &setting)
{
    if (setting.attribute->kind != Kind::Switch)
        return 0;
    return std::get<uint32_t>(setting.value) == CPUDEFEND_ENABLE ? -1 : 1;
}

/**
 * In the order in which the daemon takes them all: it refuses the numbers of a list that is off,
 * so that switching on comes first and switching off last.
 */
std::vector<Setting> policySteps(std::vector<Setting> settings)
{
    std::ranges::stable_sort(settings, {}, order);
    return settings;
}

/**
 * The daemon adds each mode to those set before, and forgets them with mode 0: the mode asked for
 * is set behind a mode 0, and is then the only one.
 */
std::vector<Setting> carSteps(const std::vector<Setting> &settings)
{
    std::vector<Setting> steps;
    for (const Setting &setting : settings) {
        if (setting.attribute->id == CPUDEFEND_CARPKT_MODE)
            steps.push_back({setting.attribute, uint32_t{CPUDEFEND_CARPKTMODE_DEFAULT}, "default"});
        if (setting.attribute->id != CPUDEFEND_CARPKT_MODE ||
            setting.value != Value{uint32_t{CPUDEFEND_CARPKTMODE_DEFAULT}})
            steps.push_back(setting);
    }
    return steps;
}

std::string label(const Setting &setting)
{
    return std::string(setting.attribute->name) + "=" + printable(setting.word);
}

/** "; set before that: a=1 b=2", or nothing. */
std::string doneBefore(std::span<const Setting> done)
{
    std::string text;
    for (const Setting &setting : done)
        text += (text.empty() ? "; set before that: " : " ") + label(setting);
    return text;
}

void warn(Context &context, const std::string &message)
{
    context.err << "cpudefendctl: warning: " << message << '\n';
}

void warnStoredOnly(Context &context, const std::string &policy)
{
    warn(context, quoted(policy) + " is bound: the change is stored, and takes effect when the "
                                   "policy is unbound and bound again");
}

/** Send the steps one by one; the first failure ends it and says how far it came. */
template <class Index>
void apply(Context &context, const std::string &what, const std::string &policy, const Index &index,
           const std::vector<Setting> &steps)
{
    bool storedOnly = false;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        try {
            const SetResult result =
                context.client.set(index, steps[i].attribute->id, steps[i].value);
            storedOnly |= result == SetResult::StoredOnly;
        } catch (const Error &error) {
            if (storedOnly)
                warnStoredOnly(context, policy);
            throw CommandFailed(statusOf(error), "couldn't set " + label(steps[i]) + " for " +
                                                     what + ": " +
                                                     reasonOf(context, error, policy) +
                                                     doneBefore(std::span(steps).first(i)));
        }
    }
    if (storedOnly)
        warnStoredOnly(context, policy);
}

std::span<const std::string> from(const Words &words, std::size_t first)
{
    return std::span(words).subspan(std::min(first, words.size()));
}

uint32_t globalNumber(Context &context, uint32_t id)
{
    return std::get<uint32_t>(context.client.get(GlobalIndex{}, id, 0));
}

// ---- Policies ---------------------------------------------------------------------------

Record recordOf(Context &context, const PolicyIndex &index, std::span<const uint32_t> ids)
{
    Record record{{"name", index.name}};
    for (const uint32_t id : ids) {
        const Attribute &wanted = attribute(policyAttributes(), id);
        record.push_back(fieldOf(wanted, context.client.get(index, wanted)));
    }
    return record;
}

std::vector<uint32_t> allIds(std::span<const Attribute> attributes)
{
    std::vector<uint32_t> ids(attributes.size());
    std::ranges::transform(attributes, ids.begin(), &Attribute::id);
    return ids;
}

/** The daemon creates a policy even when it has not the entries left for all of its limits. */
void createPolicy(Context &context, const std::string &name)
{
    const uint32_t before = globalNumber(context, CPUDEFEND_GLOBAL_USECARPKTNUM);
    context.client.createPolicy(name);
    const uint32_t got = globalNumber(context, CPUDEFEND_GLOBAL_USECARPKTNUM) - before;
    if (got < kLimitsOfAPolicy)
        warn(context, quoted(name) + " has limits for " + std::to_string(got) + " of " +
                          std::to_string(kLimitsOfAPolicy) +
                          " packet types: the daemon has no CAR entries left");
}

void policyAdd(Context &context, const Words &words)
{
    const std::string &name = words[0];
    const std::string what = "add " + quoted(name);
    const auto steps = attempt(context, what, name, [&] {
        checkedName(name);
        auto parsed = policySteps(parseSettings(policyAttributes(), from(words, 1)));
        if (context.client.policyExists(name))
            throw CommandFailed(kExitRefused, "couldn't " + what + ": it exists already");
        createPolicy(context, name);
        return parsed;
    });
    apply(context, quoted(name), name, PolicyIndex{name}, steps);
    attempt(context, "activate " + quoted(name), name,
            [&] { context.client.activatePolicy(name); });
}

void policySet(Context &context, const Words &words)
{
    const std::string &name = words[0];
    const auto steps = attempt(context, "set up " + quoted(name), name, [&] {
        checkedName(name);
        return policySteps(parseSettings(policyAttributes(), from(words, 1)));
    });
    apply(context, quoted(name), name, PolicyIndex{name}, steps);
}

void policyShow(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt(context, "show " + quoted(name), name, [&] {
        const auto ids = allIds(policyAttributes());
        write(context.out, context.format, Layout::Sheet,
              {recordOf(context, {checkedName(name)}, ids)});
    });
}

void policyList(Context &context, const Words &)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_POLICY_REFCOUNT, CPUDEFEND_POLICY_WHITELISTENABLE,
                                 CPUDEFEND_POLICY_BLACKLISTENABLE, CPUDEFEND_POLICY_SRCTRACEENABLE,
                                 CPUDEFEND_POLICY_DESCRIPTION};
    attempt(context, "list the policies", "", [&] {
        std::vector<Record> records;
        for (const std::string &name : context.client.policyNames())
            records.push_back(recordOf(context, {name}, kIds));
        write(context.out, context.format, Layout::Table, records);
    });
}

void policyDel(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt(context, "delete " + quoted(name), name, [&] {
        if (!context.client.policyExists(checkedName(name)))
            throw Error(CPUDEFEND_ENONAME);
        context.client.destroyPolicy(name);
    });
}

// ---- CAR entries ------------------------------------------------------------------------

std::string entryOf(const std::string &policy, const std::string &type)
{
    return printable(type) + " in " + quoted(policy);
}

Record recordOf(Context &context, const CarPktIndex &index, std::span<const uint32_t> ids)
{
    Record record{{"policy", index.policy}, {"type", pktTypeName(index.pktType)}};
    for (const uint32_t id : ids) {
        const Attribute &wanted = attribute(carPktAttributes(), id);
        record.push_back(fieldOf(wanted, context.client.get(index, wanted)));
    }
    return record;
}

void carSet(Context &context, const Words &words)
{
    const std::string &policy = words[0];
    const std::string what = entryOf(policy, words[1]);
    std::optional<CarPktIndex> index;
    const auto steps = attempt(context, "set " + what, policy, [&] {
        index = CarPktIndex{checkedName(policy), parsePktType(words[1])};
        return carSteps(parseSettings(carPktAttributes(), from(words, 2)));
    });
    apply(context, what, policy, *index, steps);
}

void carShow(Context &context, const Words &words)
{
    const std::string &policy = words[0];
    attempt(context, "show " + entryOf(policy, words[1]), policy, [&] {
        const CarPktIndex index{checkedName(policy), parsePktType(words[1])};
        const auto ids = allIds(carPktAttributes());
        write(context.out, context.format, Layout::Sheet, {recordOf(context, index, ids)});
    });
}

void appendEntries(Context &context, const std::string &policy, std::vector<Record> *records)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_CARPKT_MODE,    CPUDEFEND_CARPKT_PPS,
                                 CPUDEFEND_CARPKT_CIR,     CPUDEFEND_CARPKT_CBS,
                                 CPUDEFEND_CARPKT_DENY,    CPUDEFEND_CARPKT_QUEUE,
                                 CPUDEFEND_CARPKT_PRIORITY};
    for (const uint32_t type : context.client.carPktTypes(policy))
        records->push_back(recordOf(context, CarPktIndex{policy, type}, kIds));
}

void carList(Context &context, const Words &words)
{
    const std::string of = words.empty() ? "" : " of " + quoted(words[0]);
    attempt(context, "list the CAR entries" + of, "", [&] {
        if (!words.empty() && !context.client.policyExists(checkedName(words[0])))
            throw Error(CPUDEFEND_ENONAME);
        std::vector<Record> records;
        for (const std::string &policy : words.empty() ? context.client.policyNames() : words)
            appendEntries(context, policy, &records);
        write(context.out, context.format, Layout::Table, records);
    });
}

// ---- The system -------------------------------------------------------------------------

/**
 * Change the binding. A code that is not the daemon's own comes from the hardware layer: the
 * binding is changed then, and not all of it programmed.
 */
void rebind(Context &context, const std::string &what, const std::string &name)
{
    attempt(context, what, name, [&] {
        try {
            context.client.bind(name);
        } catch (const Error &error) {
            if (error.failure() != Failure::Refused || error.code() == CPUDEFEND_ENONAME ||
                context.client.boundPolicy() != name)
                throw;
            throw CommandFailed(kExitRefused, "couldn't " + what +
                                                  " in full: the hardware layer "
                                                  "refused part of it (code " +
                                                  std::to_string(error.code()) + "); " +
                                                  (name.empty() ? "no policy is bound now"
                                                                : "the policy is bound now"));
        }
    });
}

void bindPolicy(Context &context, const Words &words)
{
    const std::string what = "bind " + quoted(words[0]) + " to the system";
    attempt(context, what, "", [&] { checkedName(words[0]); });
    rebind(context, what, words[0]);
}

void unbindPolicy(Context &context, const Words &)
{
    rebind(context, "unbind the policy of the system", "");
}

Field globalField(Context &context, uint32_t id)
{
    const Attribute &wanted = attribute(globalAttributes(), id);
    return fieldOf(wanted, context.client.get(GlobalIndex{}, wanted));
}

struct PoolRow {
    const char *name;
    uint32_t used;
    uint32_t max;
};

constexpr PoolRow kPools[] = {
    {"policies", CPUDEFEND_GLOBAL_USEPOLICYNUM, CPUDEFEND_GLOBAL_MAXPOLICYNUM},
    {"rules", CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM, CPUDEFEND_GLOBAL_MAXUSERDEFINEDNUM},
    {"car-entries", CPUDEFEND_GLOBAL_USECARPKTNUM, CPUDEFEND_GLOBAL_MAXCARPKTNUM},
    {"sources", CPUDEFEND_GLOBAL_USESRCTRACENUM, CPUDEFEND_GLOBAL_MAXSRCTRACENUM},
    {"slots", CPUDEFEND_GLOBAL_USESLOTNUM, CPUDEFEND_GLOBAL_MAXSLOTNUM},
};

void showSystem(Context &context, const Words &)
{
    attempt(context, "show the system", "", [&] {
        Record record;
        for (const uint32_t id :
             {CPUDEFEND_GLOBAL_POLICY, CPUDEFEND_GLOBAL_POLICYMODE, CPUDEFEND_GLOBAL_DEBUG})
            record.push_back(globalField(context, id));
        for (const PoolRow &pool : kPools)
            record.push_back({pool.name, Pool{globalNumber(context, pool.used),
                                              globalNumber(context, pool.max)}});
        write(context.out, context.format, Layout::Sheet, {record});
    });
}

void setDebug(Context &context, const Words &words)
{
    attempt(context, "switch debugging " + printable(words[0]), "", [&] {
        const Attribute &debug = attribute(globalAttributes(), CPUDEFEND_GLOBAL_DEBUG);
        context.client.set(GlobalIndex{}, debug.id, parseValue(debug, words[0]));
    });
}

// ---- The tree ---------------------------------------------------------------------------

const Arg kNewPolicy{ArgKind::NewPolicy, "NAME", "name of the policy, 1 to 32 bytes"};
const Arg kPolicy{ArgKind::Policy, "POLICY", "name of the policy"};
const Arg kAnyPolicy{ArgKind::Policy, "POLICY", "name of the policy; all without it", false};
const Arg kPktType{ArgKind::PktType, "TYPE", "packet type, by name or number"};
const Arg kPolicySettings{ArgKind::PolicySettings, "KEY=VALUE", "settings, in any order"};
const Arg kFirstSettings{ArgKind::PolicySettings, "KEY=VALUE", "settings, in any order", false};
const Arg kCarSettings{ArgKind::CarSettings, "KEY=VALUE", "settings, sent in this order"};
const Arg kOnOff{ArgKind::OnOff, "on|off", "what to switch to"};

constexpr Object kObjects[] = {
    {"policy", "Named sets of limits"},
    {"car", "Limits of a policy for a packet type"},
};

const Command kCommands[] = {
    {"policy", "add", "Create a policy", {kNewPolicy, kFirstSettings}, policyAdd},
    {"policy", "set", "Change settings of a policy", {kPolicy, kPolicySettings}, policySet},
    {"policy", "show", "Show all of a policy", {kPolicy}, policyShow},
    {"policy", "list", "List the policies", {}, policyList},
    {"policy", "del", "Delete a policy", {kPolicy}, policyDel},
    {"car", "set", "Change a limit", {kPolicy, kPktType, kCarSettings}, carSet},
    {"car", "show", "Show all of a limit", {kPolicy, kPktType}, carShow},
    {"car", "list", "List the limits", {kAnyPolicy}, carList},
    {"", "bind", "Bind a policy to the system", {kPolicy}, bindPolicy},
    {"", "unbind", "Take the bound policy off the system", {}, unbindPolicy},
    {"", "show", "Show the state of the system", {}, showSystem},
    {"", "debug", "Switch the daemon's diagnostics", {kOnOff}, setDebug},
};

} // namespace

std::span<const Attribute> Arg::attributes() const
{
    switch (kind) {
    case ArgKind::PolicySettings: return policyAttributes();
    case ArgKind::CarSettings: return carPktAttributes();
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
