/**
 * Commands on traced sources.
 */
#include "cli/act.h"
#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

constexpr uint32_t kListed[] = {CPUDEFEND_SRCTRACE_DSTIP, CPUDEFEND_SRCTRACE_OUTERVLAN,
                                CPUDEFEND_SRCTRACE_INNERVLAN, CPUDEFEND_SRCTRACE_TOTALNUM};
constexpr uint32_t kShown[] = {CPUDEFEND_SRCTRACE_DSTIP, CPUDEFEND_SRCTRACE_OUTERVLAN,
                               CPUDEFEND_SRCTRACE_INNERVLAN, CPUDEFEND_SRCTRACE_TOTALNUM,
                               CPUDEFEND_SRCTRACE_PTKDATA};

SourceIndex filterFrom(const Context &context)
{
    SourceIndex filter;
    if (const std::string *word = context.option("--interface")) {
        filter.interface = parseInterface(*word);
        filter.filter |= filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHIFUNIT);
    }
    if (const std::string *word = context.option("--ip")) {
        filter.ip = parseIp4(*word);
        filter.filter |= filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHSRCIP);
    }
    if (const std::string *word = context.option("--type")) {
        filter.pktType = static_cast<uint8_t>(parsePktType(*word));
        filter.filter |= filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHPKTTYPE);
    }
    if (const std::string *word = context.option("--mac")) {
        filter.mac = parseMac(*word);
        filter.filter |= filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHSRCMAC);
    }
    return filter;
}

Record sourceRecord(const Row<SourceIndex> &row, std::span<const uint32_t> ids)
{
    const SourceIndex &index = row.index;
    return recordOf({{"interface", index.interface},
                     {"interface-name", interfaceName(index.interface)},
                     {"ip", ip4Text(index.ip)},
                     {"type", pktTypeName(index.pktType)},
                     {"mac", macText(index.mac)}},
                    sourceAttributes(), ids, row.values);
}

} // namespace

void run::sourceShow(Context &context, const Words &words)
{
    std::string what = "show the source";
    for (const std::string &word : words)
        what += " " + printable(word);
    attempt(what, [&] {
        const SourceIndex index{parseInterface(words[0]), parseIp4(words[1]),
                                static_cast<uint8_t>(parsePktType(words[2])), parseMac(words[3])};
        write(context.out, context.format, Layout::Sheet,
              {sourceRecord(context.client.source(index, kShown), kShown)});
    });
}

void run::sourceList(Context &context, const Words &)
{
    attempt("list the sources", [&] {
        writeRows(context, context.client.sources(filterFrom(context), kListed),
                  [&](const auto &row) { return sourceRecord(row, kListed); });
    });
}

void run::sourceReset(Context &context, const Words &)
{
    const std::string *slot = context.option("--slot");
    attempt("reset the sources" + (slot ? " of slot " + printable(*slot) : ""), [&] {
        slot ? context.client.resetSources(parseSlot(*slot)) : context.client.resetSources();
    });
}

} // namespace ctl
