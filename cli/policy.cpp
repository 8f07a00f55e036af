/**
 * Commands on policies.
 */
#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

Record policyRecord(const Row<PolicyIndex> &row, std::span<const uint32_t> ids)
{
    return recordOf({{"name", row.index.name}}, policyAttributes(), ids, row.values);
}

} // namespace

void run::policyAdd(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt("add " + quoted(name), quoted(name), [&] {
        checkedName(name);
        context.client.createPolicy(name, parseSettings(policyAttributes(), from(words, 1)));
    });
}

void run::policySet(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt("set up " + quoted(name), quoted(name), [&] {
        checkedName(name);
        context.client.setPolicy(name, parseSettings(policyAttributes(), from(words, 1)));
    });
}

void run::policyShow(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt("show " + quoted(name), [&] {
        const auto ids = allIds(policyAttributes());
        const PolicyIndex index{checkedName(name)};
        write(context.out, context.format, Layout::Sheet,
              {policyRecord({index, context.client.read(index, ids)}, ids)});
    });
}

void run::policyList(Context &context, const Words &)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_POLICY_REFCOUNT, CPUDEFEND_POLICY_WHITELISTENABLE,
                                 CPUDEFEND_POLICY_BLACKLISTENABLE, CPUDEFEND_POLICY_SRCTRACEENABLE,
                                 CPUDEFEND_POLICY_DESCRIPTION};
    attempt("list the policies", [&] {
        writeRows(context, context.client.policies(kIds),
                  [&](const auto &row) { return policyRecord(row, kIds); });
    });
}

void run::policyDel(Context &context, const Words &words)
{
    attempt("delete " + quoted(words[0]), [&] { context.client.destroyPolicy(words[0]); });
}

} // namespace ctl
