/**
 * Commands on the system as a whole, and bindings.
 */
#include <optional>

#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

/** The slot of the option, where it is given. */
std::optional<SlotIndex> slotOf(const Context &context)
{
    const std::string *word = context.option("--slot");
    return word ? std::optional(parseSlot(*word)) : std::nullopt;
}

std::string placeText(const Context &context)
{
    const std::string *slot = context.option("--slot");
    return slot ? "slot " + printable(*slot) : "the system";
}

struct PoolRow {
    const char *name;
    uint32_t counts[2]; // used, and room for
};

constexpr PoolRow kPools[] = {
    {"policies", {CPUDEFEND_GLOBAL_USEPOLICYNUM, CPUDEFEND_GLOBAL_MAXPOLICYNUM}},
    {"rules", {CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM, CPUDEFEND_GLOBAL_MAXUSERDEFINEDNUM}},
    {"car-entries", {CPUDEFEND_GLOBAL_USECARPKTNUM, CPUDEFEND_GLOBAL_MAXCARPKTNUM}},
    {"sources", {CPUDEFEND_GLOBAL_USESRCTRACENUM, CPUDEFEND_GLOBAL_MAXSRCTRACENUM}},
    {"slots", {CPUDEFEND_GLOBAL_USESLOTNUM, CPUDEFEND_GLOBAL_MAXSLOTNUM}},
};

constexpr uint32_t kShown[] = {
    CPUDEFEND_GLOBAL_POLICY,       CPUDEFEND_GLOBAL_POLICYMODE,   CPUDEFEND_GLOBAL_L1CPURAT,
    CPUDEFEND_GLOBAL_L1POLICYNAME, CPUDEFEND_GLOBAL_L2CPURAT,     CPUDEFEND_GLOBAL_L2POLICYNAME,
    CPUDEFEND_GLOBAL_L3CPURAT,     CPUDEFEND_GLOBAL_L3POLICYNAME, CPUDEFEND_GLOBAL_DEBUG};

} // namespace

void run::bindPolicy(Context &context, const Words &words)
{
    const std::string &name = words[0];
    attempt("bind " + quoted(name) + " to " + placeText(context), [&] {
        checkedName(name);
        const auto slot = slotOf(context);
        slot ? context.client.bind(*slot, name) : context.client.bind(name);
    });
}

void run::unbindPolicy(Context &context, const Words &)
{
    attempt("unbind the policy of " + placeText(context), [&] {
        const auto slot = slotOf(context);
        slot ? context.client.unbind(*slot) : context.client.unbind();
    });
}

void run::setSystem(Context &context, const Words &words)
{
    attempt("set the system", "the system",
            [&] { context.client.setSystem(parseSettings(globalAttributes(), words)); });
}

void run::showSystem(Context &context, const Words &)
{
    attempt("show the system", [&] {
        const auto read = [&](std::span<const uint32_t> ids) {
            return context.client.read(GlobalIndex{}, ids);
        };
        Record record = recordOf({}, globalAttributes(), kShown, read(kShown));
        for (const PoolRow &pool : kPools) {
            const auto counts = read(pool.counts);
            record.push_back(
                {pool.name, Pool{std::get<uint32_t>(counts[0]), std::get<uint32_t>(counts[1])}});
        }
        write(context.out, context.format, Layout::Sheet, {record});
    });
}

void run::setDebug(Context &context, const Words &words)
{
    attempt("switch debugging " + printable(words[0]), [&] {
        const Attribute &debug = attribute(globalAttributes(), CPUDEFEND_GLOBAL_DEBUG);
        context.client.set(GlobalIndex{}, debug.id, parseValue(debug, words[0]));
    });
}

} // namespace ctl
