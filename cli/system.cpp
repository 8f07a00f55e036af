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

/** Where a policy is bound: the system, or the slot of the option. */
class Place
{
public:
    explicit Place(const Context &context)
    {
        if (const std::string *word = context.option("--slot"))
            slot_ = parseSlot(*word);
    }

    const Subject &subject() const { return slot_ ? kSlot : kSystem; }

    void bind(Client &client, const std::string &policy) const
    {
        slot_ ? client.bind(*slot_, policy) : client.bind(policy);
    }

    std::string bound(Client &client) const
    {
        return slot_ ? client.boundPolicy(*slot_) : client.boundPolicy();
    }

private:
    std::optional<SlotIndex> slot_;
};

std::string placeText(const Context &context)
{
    const std::string *slot = context.option("--slot");
    return slot ? "slot " + printable(*slot) : "the system";
}

/** Whether it is the daemon's own refusal, or anything but a refusal. */
bool isPlain(const Error &error)
{
    return error.code() == CPUDEFEND_OK || error.code() == CPUDEFEND_ENONAME ||
           error.code() == CPUDEFEND_ENOSLOT;
}

std::string boundText(const std::string &bound)
{
    return bound.empty() ? "no policy is bound now" : quoted(bound) + " is bound now";
}

/**
 * Change a binding. A code that is not the daemon's own comes from the platform: what became of
 * the binding is told then.
 */
void rebind(Context &context, const std::string &what, const std::string &policy)
{
    std::optional<Place> place;
    attempt(context, what, kSystem, [&] { place = Place(context); });
    attempt(context, what, place->subject(), [&] {
        try {
            place->bind(context.client, policy);
        } catch (const Error &error) {
            if (isPlain(error))
                throw;
            const std::string bound = place->bound(context.client);
            const std::string code = " (code " + std::to_string(error.code()) + "); ";
            const std::string how = bound == policy
                                        ? " in full: the hardware layer refused part of it"
                                        : ": the platform refused it";
            throw CommandFailed(kExitRefused, "couldn't " + what + how + code + boundText(bound));
        }
    });
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

constexpr uint32_t kShown[] = {
    CPUDEFEND_GLOBAL_POLICY,       CPUDEFEND_GLOBAL_POLICYMODE,   CPUDEFEND_GLOBAL_L1CPURAT,
    CPUDEFEND_GLOBAL_L1POLICYNAME, CPUDEFEND_GLOBAL_L2CPURAT,     CPUDEFEND_GLOBAL_L2POLICYNAME,
    CPUDEFEND_GLOBAL_L3CPURAT,     CPUDEFEND_GLOBAL_L3POLICYNAME, CPUDEFEND_GLOBAL_DEBUG};

} // namespace

void run::bindPolicy(Context &context, const Words &words)
{
    const std::string what = "bind " + quoted(words[0]) + " to " + placeText(context);
    attempt(context, what, kSystem, [&] { checkedName(words[0]); });
    rebind(context, what, words[0]);
}

void run::unbindPolicy(Context &context, const Words &)
{
    rebind(context, "unbind the policy of " + placeText(context), "");
}

void run::setSystem(Context &context, const Words &words)
{
    const auto steps = attempt(context, "set the system", kSystem, [&] {
        return levelSteps(parseSettings(globalAttributes(), words));
    });
    applyLevels(context, "the system", kSystem, GlobalIndex{}, steps);
}

void run::showSystem(Context &context, const Words &)
{
    attempt(context, "show the system", kSystem, [&] {
        Record record = recordOf(context, {}, GlobalIndex{}, globalAttributes(), kShown);
        for (const PoolRow &pool : kPools)
            record.push_back({pool.name, Pool{globalNumber(context, pool.used),
                                              globalNumber(context, pool.max)}});
        write(context.out, context.format, Layout::Sheet, {record});
    });
}

void run::setDebug(Context &context, const Words &words)
{
    attempt(context, "switch debugging " + printable(words[0]), kSystem, [&] {
        const Attribute &debug = attribute(globalAttributes(), CPUDEFEND_GLOBAL_DEBUG);
        context.client.set(GlobalIndex{}, debug.id, parseValue(debug, words[0]));
    });
}

} // namespace ctl
