/**
 * Commands on the user-defined rules of a policy.
 */
#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

std::string ruleOf(const Words &words)
{
    return "rule " + printable(words[1]) + " of " + quoted(words[0]);
}

RuleIndex parseIndex(const Words &words)
{
    return {checkedName(words[0]), parseRuleIndex(words[1])};
}

Record ruleRecord(const Row<RuleIndex> &row, std::span<const uint32_t> ids)
{
    return recordOf({{"policy", row.index.policy}, {"index", row.index.index}}, ruleAttributes(),
                    ids, row.values);
}

} // namespace

void run::ruleAdd(Context &context, const Words &words)
{
    attempt("add " + ruleOf(words), ruleOf(words), [&] {
        const RuleIndex index = parseIndex(words);
        checkedRule(index.index);
        context.client.createRule(index, parseSettings(ruleAttributes(), from(words, 2)));
    });
}

void run::ruleSet(Context &context, const Words &words)
{
    attempt("set " + ruleOf(words), ruleOf(words), [&] {
        const RuleIndex index = parseIndex(words);
        context.client.setRule(index, parseSettings(ruleAttributes(), from(words, 2)));
    });
}

void run::ruleShow(Context &context, const Words &words)
{
    attempt("show " + ruleOf(words), [&] {
        const auto ids = allIds(ruleAttributes());
        const RuleIndex index = parseIndex(words);
        write(context.out, context.format, Layout::Sheet,
              {ruleRecord({index, context.client.read(index, ids)}, ids)});
    });
}

void run::ruleList(Context &context, const Words &words)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_USERDEFINED_DENY, CPUDEFEND_USERDEFINED_IP4ACL,
                                 CPUDEFEND_USERDEFINED_IP6ACL, CPUDEFEND_USERDEFINED_CIR,
                                 CPUDEFEND_USERDEFINEDT_CBS};
    const std::string of = words.empty() ? "" : " of " + quoted(words[0]);
    attempt("list the rules" + of, [&] {
        writeRows(context, context.client.rules(kIds, firstOf(words)),
                  [&](const auto &row) { return ruleRecord(row, kIds); });
    });
}

void run::ruleDel(Context &context, const Words &words)
{
    attempt("delete " + ruleOf(words), [&] { context.client.destroyRule(parseIndex(words)); });
}

} // namespace ctl
