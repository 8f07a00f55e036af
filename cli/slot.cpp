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

Record slotRecord(const Row<SlotIndex> &row, std::span<const uint32_t> ids)
{
    return recordOf({{"slot", slotText(row.index)}}, slotAttributes(), ids, row.values);
}

} // namespace

void run::slotSet(Context &context, const Words &words)
{
    attempt("set " + slotOf(words), slotOf(words), [&] {
        const SlotIndex index = parseSlot(words[0]);
        context.client.setSlot(index, parseSettings(slotAttributes(), from(words, 1)));
    });
}

void run::slotShow(Context &context, const Words &words)
{
    attempt("show " + slotOf(words), [&] {
        const auto ids = allIds(slotAttributes());
        const SlotIndex index = parseSlot(words[0]);
        write(context.out, context.format, Layout::Sheet,
              {slotRecord({index, context.client.read(index, ids)}, ids)});
    });
}

void run::slotList(Context &context, const Words &)
{
    attempt("list the slots", [&] {
        const auto ids = allIds(slotAttributes());
        const auto rows = context.client.slots(ids);
        writeRows(context, rows, [&](const auto &row) { return slotRecord(row, ids); });
        context.client.warnOfPassedOver(rows.size());
    });
}

} // namespace ctl
