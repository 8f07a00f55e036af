/**
 * Commands on the user-defined rules of a policy.
 */
#include <algorithm>
#include <optional>

#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

/** What a new rule has where nothing else is asked for. */
const std::string kDefaults[] = {"action=permit", "ip4-acl=0", "ip6-acl=0",
                                 "cir=" + std::to_string(CPUDEFEND_DEFAULT_CIR),
                                 "cbs=" + std::to_string(CPUDEFEND_DEFAULT_CBS)};

Subject subjectOf(const std::string &policy)
{
    return {"there is no such rule", policy};
}

std::string ruleOf(const Words &words)
{
    return "rule " + printable(words[1]) + " of " + quoted(words[0]);
}

RuleIndex parseIndex(const Words &words)
{
    return {checkedName(words[0]), parseRuleIndex(words[1])};
}

/**
 * All settings of a new rule. Each of them is sent: the daemon gives a new rule those of the last
 * one in its record.
 */
std::vector<Setting> stepsOfNew(std::span<const std::string> words)
{
    std::vector<Setting> steps = parseSettings(ruleAttributes(), words);
    const Words defaults{std::begin(kDefaults), std::end(kDefaults)};
    for (const Setting &setting : parseSettings(ruleAttributes(), defaults))
        if (std::ranges::count(steps, setting.attribute, &Setting::attribute) == 0)
            steps.push_back(setting);
    return steps;
}

Record ruleRecord(Context &context, const RuleIndex &index, std::span<const uint32_t> ids)
{
    return recordOf(context, {{"policy", index.policy}, {"index", index.index}}, index,
                    ruleAttributes(), ids);
}

void appendRules(Context &context, const std::string &policy, std::vector<Record> *records)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_USERDEFINED_DENY, CPUDEFEND_USERDEFINED_IP4ACL,
                                 CPUDEFEND_USERDEFINED_IP6ACL, CPUDEFEND_USERDEFINED_CIR,
                                 CPUDEFEND_USERDEFINEDT_CBS};
    for (const uint32_t index : context.client.ruleIndexes(policy))
        records->push_back(ruleRecord(context, {policy, index}, kIds));
}

} // namespace

void run::ruleAdd(Context &context, const Words &words)
{
    const Subject subject = subjectOf(words[0]);
    const std::string what = "add " + ruleOf(words);
    std::optional<RuleIndex> index;
    const auto steps = attempt(context, what, subject, [&] {
        index = parseIndex(words);
        if (index->index == 0)
            throw BadValue("the daemon keeps a rule 0, but never programs it");
        auto parsed = stepsOfNew(from(words, 2));
        if (context.client.ruleExists(*index))
            throw CommandFailed(kExitRefused, "couldn't " + what + ": it exists already");
        context.client.createRule(*index);
        return parsed;
    });
    apply(context, ruleOf(words), subject, *index, steps);
}

void run::ruleSet(Context &context, const Words &words)
{
    const Subject subject = subjectOf(words[0]);
    std::optional<RuleIndex> index;
    const auto steps = attempt(context, "set " + ruleOf(words), subject, [&] {
        index = parseIndex(words);
        return parseSettings(ruleAttributes(), from(words, 2));
    });
    apply(context, ruleOf(words), subject, *index, steps);
}

void run::ruleShow(Context &context, const Words &words)
{
    attempt(context, "show " + ruleOf(words), subjectOf(words[0]), [&] {
        const auto ids = allIds(ruleAttributes());
        write(context.out, context.format, Layout::Sheet,
              {ruleRecord(context, parseIndex(words), ids)});
    });
}

void run::ruleList(Context &context, const Words &words)
{
    const std::string of = words.empty() ? "" : " of " + quoted(words[0]);
    attempt(context, "list the rules" + of, subjectOf(""), [&] {
        if (!words.empty() && !context.client.policyExists(checkedName(words[0])))
            throw Error(CPUDEFEND_ENONAME);
        std::vector<Record> records;
        for (const std::string &policy : words.empty() ? context.client.policyNames() : words)
            appendRules(context, policy, &records);
        write(context.out, context.format, Layout::Table, records);
    });
}

void run::ruleDel(Context &context, const Words &words)
{
    attempt(context, "delete " + ruleOf(words), subjectOf(words[0]), [&] {
        const RuleIndex index = parseIndex(words);
        if (!context.client.ruleExists(index))
            throw Error(CPUDEFEND_ENOENTRY);
        context.client.destroyRule(index);
    });
}

} // namespace ctl
