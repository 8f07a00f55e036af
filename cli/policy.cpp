/**
 * Commands on policies.
 */
#include <algorithm>

#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

// Packet types 0 to 9: those that a policy is created with.
constexpr uint32_t kLimitsOfAPolicy = 10;

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

Record policyRecord(Context &context, const std::string &name, std::span<const uint32_t> ids)
{
    return recordOf(context, {{"name", name}}, PolicyIndex{name}, policyAttributes(), ids);
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

/** Rules that a new policy has are those of a deleted one whose record it took over. */
void removeLeftRules(Context &context, const std::string &name)
{
    for (const uint32_t index : context.client.ruleIndexes(name))
        context.client.destroyRule({name, index});
}

} // namespace

void run::policyAdd(Context &context, const Words &words)
{
    const std::string &name = words[0];
    const std::string what = "add " + quoted(name);
    const auto steps = attempt(context, what, policySubject(name), [&] {
        checkedName(name);
        auto parsed = policySteps(parseSettings(policyAttributes(), from(words, 1)));
        if (context.client.policyExists(name))
            throw CommandFailed(kExitRefused, "couldn't " + what + ": it exists already");
        createPolicy(context, name);
        removeLeftRules(context, name);
        return parsed;
    });
    apply(context, quoted(name), policySubject(name), PolicyIndex{name}, steps);
    attempt(context, "activate " + quoted(name), policySubject(name),
            [&] { context.client.activatePolicy(name); });
}

void run::policySet(Context &context, const Words &words)
{
    const std::string &name = words[0];
    const auto steps = attempt(context, "set up " + quoted(name), policySubject(name), [&] {
        checkedName(name);
        return policySteps(parseSettings(policyAttributes(), from(words, 1)));
    });
    apply(context, quoted(name), policySubject(name), PolicyIndex{name}, steps);
}

void run::policyShow(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt(context, "show " + quoted(name), policySubject(name), [&] {
        const auto ids = allIds(policyAttributes());
        write(context.out, context.format, Layout::Sheet,
              {policyRecord(context, checkedName(name), ids)});
    });
}

void run::policyList(Context &context, const Words &)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_POLICY_REFCOUNT, CPUDEFEND_POLICY_WHITELISTENABLE,
                                 CPUDEFEND_POLICY_BLACKLISTENABLE, CPUDEFEND_POLICY_SRCTRACEENABLE,
                                 CPUDEFEND_POLICY_DESCRIPTION};
    attempt(context, "list the policies", policySubject(""), [&] {
        std::vector<Record> records;
        for (const std::string &name : context.client.policyNames())
            records.push_back(policyRecord(context, name, kIds));
        write(context.out, context.format, Layout::Table, records);
    });
}

void run::policyDel(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt(context, "delete " + quoted(name), policySubject(name), [&] {
        if (!context.client.policyExists(checkedName(name)))
            throw Error(CPUDEFEND_ENONAME);
        context.client.destroyPolicy(name);
    });
}

} // namespace ctl
