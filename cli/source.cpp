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

const Subject kSource{"there is no such source"};

constexpr uint8_t filterBit(int field)
{
    return static_cast<uint8_t>(0x80 >> field);
}

constexpr uint8_t kWholeIndex =
    filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHIFUNIT) | filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHSRCIP) |
    filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHPKTTYPE) | filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHSRCMAC);

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

Record indexRecord(const SourceIndex &index)
{
    return {{"interface", index.interface},
            {"interface-name", interfaceName(index.interface)},
            {"ip", ip4Text(index.ip)},
            {"type", pktTypeName(index.pktType)},
            {"mac", macText(index.mac)}};
}

/** The daemon reads out no source of packet type 0 or interface 0: it tells their index only. */
bool isReadable(const SourceIndex &index)
{
    return index.pktType != 0 && index.interface != 0;
}

Record sourceRecord(Context &context, const SourceIndex &index, std::span<const uint32_t> ids)
{
    Record record = indexRecord(index);
    if (isReadable(index))
        return recordOf(context, record, index, sourceAttributes(), ids);
    for (const uint32_t id : ids) {
        const Attribute &unknown = attribute(sourceAttributes(), id);
        record.push_back({unknown.name, std::monostate(), unknown.unit});
    }
    return record;
}

/** A source that is forgotten while it is listed is left out. */
void appendSource(Context &context, const SourceIndex &index, std::vector<Record> *records)
{
    try {
        records->push_back(sourceRecord(context, index, kListed));
    } catch (const Error &error) {
        if (error.code() != CPUDEFEND_ENOENTRY)
            throw;
    }
}

/** The daemon forgets the sources of a slot only when the slot's own policy traces them. */
bool tracesSources(Context &context, const SlotIndex &slot)
{
    const std::string policy = context.client.boundPolicy(slot);
    if (policy.empty() || !context.client.policyExists(policy))
        return false;
    return context.client.get(PolicyIndex{policy}, CPUDEFEND_POLICY_SRCTRACEENABLE, 0) ==
           Value{uint32_t{CPUDEFEND_ENABLE}};
}

void resetSlot(Context &context, const std::string &word)
{
    const std::string what = "reset the sources of slot " + printable(word);
    attempt(context, what, kSlot, [&] {
        const SlotIndex slot = parseSlot(word);
        if (!tracesSources(context, slot))
            throw CommandFailed(kExitRefused, "couldn't " + what +
                                                  ": no policy with source tracing on is bound to "
                                                  "it");
        context.client.resetSources(slot);
    });
}

} // namespace

void run::sourceShow(Context &context, const Words &words)
{
    std::string what = "show the source";
    for (const std::string &word : words)
        what += " " + printable(word);
    attempt(context, what, kSource, [&] {
        SourceIndex index{parseInterface(words[0]), parseIp4(words[1]),
                          static_cast<uint8_t>(parsePktType(words[2])), parseMac(words[3]),
                          kWholeIndex};
        if (!context.client.first(index))
            throw Error(CPUDEFEND_ENOENTRY);
        index.filter = 0;
        write(context.out, context.format, Layout::Sheet, {sourceRecord(context, index, kShown)});
    });
}

void run::sourceList(Context &context, const Words &)
{
    attempt(context, "list the sources", kSource, [&] {
        std::vector<Record> records;
        for (const SourceIndex &index : context.client.sources(filterFrom(context)))
            appendSource(context, index, &records);
        write(context.out, context.format, Layout::Table, records);
    });
}

void run::sourceReset(Context &context, const Words &)
{
    if (const std::string *slot = context.option("--slot"))
        return resetSlot(context, *slot);
    attempt(context, "reset the sources", kSystem, [&] { context.client.resetSources(); });
}

} // namespace ctl
