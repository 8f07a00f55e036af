/**
 * Commands on slots.
 */
#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

std::string slotOf(const Words &words)
{
    return "slot " + printable(words[0]);
}

Record slotRecord(Context &context, const SlotIndex &index)
{
    return recordOf(context, {{"slot", slotText(index)}}, index, slotAttributes(),
                    allIds(slotAttributes()));
}

} // namespace

void run::slotSet(Context &context, const Words &words)
{
    SlotIndex index{};
    const auto steps = attempt(context, "set " + slotOf(words), kSlot, [&] {
        index = parseSlot(words[0]);
        return levelSteps(parseSettings(slotAttributes(), from(words, 1)));
    });
    applyLevels(context, slotOf(words), kSlot, index, steps);
}

void run::slotShow(Context &context, const Words &words)
{
    attempt(context, "show " + slotOf(words), kSlot, [&] {
        write(context.out, context.format, Layout::Sheet,
              {slotRecord(context, parseSlot(words[0]))});
    });
}

void run::slotList(Context &context, const Words &)
{
    attempt(context, "list the slots", kSlot, [&] {
        std::vector<Record> records;
        for (const SlotIndex &index : context.client.slots())
            records.push_back(slotRecord(context, index));
        write(context.out, context.format, Layout::Table, records);
        const uint32_t used = globalNumber(context, CPUDEFEND_GLOBAL_USESLOTNUM);
        if (records.size() < used)
            warn(context, "the daemon has " + std::to_string(used) + " slots and lists " +
                              std::to_string(records.size()) +
                              " of them: it passes over each behind a greater one");
    });
}

} // namespace ctl
