/**
 * Commands on the limits of a policy for packet types.
 */
#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

std::string entryOf(const Words &words)
{
    return printable(words[1]) + " in " + quoted(words[0]);
}

CarPktIndex parseIndex(const Words &words)
{
    return {checkedName(words[0]), parsePktType(words[1])};
}

Record carRecord(const Row<CarPktIndex> &row, std::span<const uint32_t> ids)
{
    return recordOf({{"policy", row.index.policy}, {"type", pktTypeName(row.index.pktType)}},
                    carPktAttributes(), ids, row.values);
}

} // namespace

void run::carSet(Context &context, const Words &words)
{
    attempt("set " + entryOf(words), entryOf(words), [&] {
        const CarPktIndex index = parseIndex(words);
        context.client.setCar(index, parseSettings(carPktAttributes(), from(words, 2)));
    });
}

void run::carShow(Context &context, const Words &words)
{
    attempt("show " + entryOf(words), [&] {
        const auto ids = allIds(carPktAttributes());
        const CarPktIndex index = parseIndex(words);
        write(context.out, context.format, Layout::Sheet,
              {carRecord({index, context.client.read(index, ids)}, ids)});
    });
}

void run::carList(Context &context, const Words &words)
{
    constexpr uint32_t kIds[] = {CPUDEFEND_CARPKT_MODE,    CPUDEFEND_CARPKT_PPS,
                                 CPUDEFEND_CARPKT_CIR,     CPUDEFEND_CARPKT_CBS,
                                 CPUDEFEND_CARPKT_DENY,    CPUDEFEND_CARPKT_QUEUE,
                                 CPUDEFEND_CARPKT_PRIORITY};
    const std::string of = words.empty() ? "" : " of " + quoted(words[0]);
    attempt("list the CAR entries" + of, [&] {
        writeRows(context, context.client.carEntries(kIds, firstOf(words)),
                  [&](const auto &row) { return carRecord(row, kIds); });
    });
}

} // namespace ctl
