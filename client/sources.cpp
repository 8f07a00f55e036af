/**
 * Traced sources.
 */
#include <algorithm>

#include "client/pipeline.h"

namespace cpudefend
{

namespace
{

constexpr uint8_t kWholeIndex =
    filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHIFUNIT) | filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHSRCIP) |
    filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHPKTTYPE) | filterBit(CPUDEFEND_SRCTRACEIDX_SEARCHSRCMAC);

/** The daemon reads out no source of packet type 0 or interface 0: it tells their index only. */
bool isReadable(const SourceIndex &index)
{
    return index.pktType != 0 && index.interface != 0;
}

} // namespace

// Interfaces 2^31 apart have no order in the daemon, and could lead a walk round in a circle.
std::vector<SourceIndex> Client::sources(const SourceIndex &filter)
{
    std::vector<SourceIndex> sources;
    for (auto index = first(filter); index; index = next(*index)) {
        SourceIndex source = *index;
        source.filter = 0;
        if (std::ranges::find(sources, source) != sources.end())
            break;
        sources.push_back(source);
    }
    return sources;
}

std::vector<Row<SourceIndex>> Client::sources(const SourceIndex &filter,
                                              std::span<const uint32_t> attributeIds)
{
    Pipeline pipeline(channel_, &lastId_);
    Lister<SourceIndex> lister(&pipeline, attributeIds);
    const std::vector<SourceIndex> indexes = sources(filter);
    for (const SourceIndex &index : indexes)
        if (isReadable(index))
            lister.ask(index);
    for (const SourceIndex &index : indexes) {
        if (isReadable(index))
            lister.take(index);
        else
            lister.rows.push_back({index, {}});
    }
    return std::move(lister.rows);
}

Row<SourceIndex> Client::source(SourceIndex index, std::span<const uint32_t> attributeIds)
{
    index.filter = kWholeIndex;
    if (!first(index))
        throw Error(Failure::Refused, Table<SourceIndex>::absent, CPUDEFEND_ENOENTRY);
    index.filter = 0;
    return {index, isReadable(index) ? read(index, attributeIds) : std::vector<Value>()};
}

/** The daemon forgets the sources of a slot only when the slot's own policy traces them. */
bool Client::tracesSources(const SlotIndex &slot)
{
    const std::string policy = boundPolicy(slot);
    if (policy.empty() || !policyExists(policy))
        return false;
    return get(PolicyIndex{policy}, CPUDEFEND_POLICY_SRCTRACEENABLE, 0) ==
           Value{uint32_t{CPUDEFEND_ENABLE}};
}

void Client::resetSources()
{
    set(GlobalIndex{}, CPUDEFEND_GLOBAL_RESETSRCTRACE, 0u);
}

void Client::resetSources(const SlotIndex &slot)
{
    if (!tracesSources(slot))
        throw Error(Failure::NotTracing, "no policy with source tracing on is bound to it");
    set(slot, CPUDEFEND_SLOT_RESETSRCTRACE, 0u);
}

} // namespace cpudefend
