/**
 * Commands on the limits of a policy for packet types.
 */
#include <optional>

#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

Subject subjectOf(const std::string &policy)
{
    return {"a policy has no CAR entry of this type", policy};
}

std::string entryOf(const std::string &policy, const std::string &type)
{
    return printable(type) + " in " + quoted(policy);
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

Record carRecord(Context &context, const CarPktIndex &index, std::span<const uint32_t> ids)
{
    return recordOf(context, {{"policy", index.policy}, {"type", pktTypeName(index.pktType)}},
                    index, carPktAttributes(), ids);
}

void appendEntries(Context &context, const std::string &policy, std::vector<Record> *records)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_CARPKT_MODE,    CPUDEFEND_CARPKT_PPS,
                                 CPUDEFEND_CARPKT_CIR,     CPUDEFEND_CARPKT_CBS,
                                 CPUDEFEND_CARPKT_DENY,    CPUDEFEND_CARPKT_QUEUE,
                                 CPUDEFEND_CARPKT_PRIORITY};
    for (const uint32_t type : context.client.carPktTypes(policy))
        records->push_back(carRecord(context, {policy, type}, kIds));
}

} // namespace

void run::carSet(Context &context, const Words &words)
{
    const std::string &policy = words[0];
    const std::string what = entryOf(policy, words[1]);
    std::optional<CarPktIndex> index;
    const auto steps = attempt(context, "set " + what, subjectOf(policy), [&] {
        index = CarPktIndex{checkedName(policy), parsePktType(words[1])};
        return carSteps(parseSettings(carPktAttributes(), from(words, 2)));
    });
    apply(context, what, subjectOf(policy), *index, steps);
}

void run::carShow(Context &context, const Words &words)
{
    const std::string &policy = words[0];
    attempt(context, "show " + entryOf(policy, words[1]), subjectOf(policy), [&] {
        const CarPktIndex index{checkedName(policy), parsePktType(words[1])};
        const auto ids = allIds(carPktAttributes());
        write(context.out, context.format, Layout::Sheet, {carRecord(context, index, ids)});
    });
}

void run::carList(Context &context, const Words &words)
{
    const std::string of = words.empty() ? "" : " of " + quoted(words[0]);
    attempt(context, "list the CAR entries" + of, subjectOf(""), [&] {
        if (!words.empty() && !context.client.policyExists(checkedName(words[0])))
            throw Error(CPUDEFEND_ENONAME);
        std::vector<Record> records;
        for (const std::string &policy : words.empty() ? context.client.policyNames() : words)
            appendEntries(context, policy, &records);
        write(context.out, context.format, Layout::Table, records);
    });
}

} // namespace ctl
