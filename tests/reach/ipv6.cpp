/**
 * IPv6: chains of extension headers, lengths that lie, fragments.
 */
#include "draft.h"

#include <netinet/in.h>

namespace
{

constexpr uint8_t mobility = 135, none = 59;

/** A header between that of IPv6 and what it carries. Its first octet, the next one, comes later.
 */
struct Extension {
    uint8_t protocol;
    Octets octets;
};

/** Options that a receiver passes over (RFC 8200, 4.2), so that they fill a header of that length.
 */
Octets skippedOptions(size_t header)
{
    OctetWriter writer;
    for (size_t left = header - 2; left > 0;) {
        const size_t option = std::min<size_t>(left, 256);
        writer.u8({0x1e, static_cast<uint8_t>(option - 2)}).zeros(option - 2);
        left -= option;
    }
    return writer.octets();
}

/** The header's second octet counts eights behind the first eight. */
Octets optionsHeader(const Octets &options)
{
    OctetWriter writer;
    writer.u8({0, static_cast<uint8_t>((options.size() + 2 + 7) / 8 - 1)}).bytes(options);
    for (size_t missing = (8 - writer.size() % 8) % 8; missing > 0; missing = 0)
        if (missing == 1)
            writer.u8({0}); // Pad1
        else
            writer.u8({1, static_cast<uint8_t>(missing - 2)}).zeros(missing - 2); // PadN
    return writer.octets();
}

Extension destinationOptions(Draft &d, bool isLong)
{
    static constexpr uint16_t sizes[] = {264, 520, 1024, 2048};
    if (!isLong && !d.choose.rarely(6)) {
        d.note("destination options");
        return {IPPROTO_DSTOPTS, optionsHeader({1, 4, 0, 0, 0, 0})};
    }
    const uint16_t size = isLong ? 2048 : d.choose.of(sizes);
    d.note("destination options of octets", size);
    return {IPPROTO_DSTOPTS, optionsHeader(skippedOptions(size))};
}

Extension hopByHop(Draft &d)
{
    switch (d.choose.weighted({6, 2, 2, 1, 1})) {
    case 1:
        d.note("hop-by-hop options: router alert");
        return {IPPROTO_HOPOPTS, optionsHeader({5, 2, 0, 0, 1, 0})};
    case 2:
        d.note("hop-by-hop options: jumbo payload");
        return {IPPROTO_HOPOPTS, optionsHeader({0xc2, 4, 0, 1, 0, 0})};
    case 3:
        d.note("hop-by-hop options, a long one");
        return {IPPROTO_HOPOPTS, optionsHeader(skippedOptions(264))};
    case 4:
        d.note("hop-by-hop options: an unknown one");
        return {IPPROTO_HOPOPTS, optionsHeader({0xde, 4, 0, 0, 0, 0})};
    default:
        d.note("hop-by-hop options");
        return {IPPROTO_HOPOPTS, optionsHeader({1, 4, 0, 0, 0, 0})};
    }
}

Extension routing(Draft &d)
{
    static constexpr uint8_t types[] = {0, 2, 3, 4, 253};
    const uint8_t type = d.choose.of(types);
    const auto left = static_cast<uint8_t>(d.choose.rarely(4));
    d.note("routing header of type", type);
    if (left)
        d.note("with segments left");
    return {IPPROTO_ROUTING, {0, 0, type, left, 0, 0, 0, 0}};
}

/** A fragment that is the whole (RFC 6946). */
Extension atomicFragment(Draft &d)
{
    d.note("an atomic fragment");
    const Octets head = {0, 0, 0, 0};
    return {IPPROTO_FRAGMENT, OctetWriter().bytes(head).u32(d.id).octets()};
}

Extension rarer(Draft &d)
{
    switch (d.choose.below(3)) {
    case 0:
        d.note("authentication header");
        return {IPPROTO_AH,
                {0, 4, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}};
    case 1: d.note("mobility header"); return {mobility, {0, 0, 1, 0, 0, 0, 0, 0}};
    default: d.note("no next header"); return {none, {0, 0, 0, 0, 0, 0, 0, 0}};
    }
}

Extension extension(Draft &d, bool isLong)
{
    switch (d.choose.weighted({10, 4, 2, 1, 1})) {
    case 1: return routing(d);
    case 2: return atomicFragment(d);
    case 3: return hopByHop(d);
    case 4: return rarer(d);
    default: return destinationOptions(d, isLong);
    }
}

std::vector<Extension> extensions(Draft &d)
{
    std::vector<Extension> all;
    if (d.choose.rarely(3))
        all.push_back(hopByHop(d));
    if (d.choose.rarely(3)) {
        const bool isLong = d.choose.rarely(3); // and then not many
        const unsigned count = 1 + d.choose.below(isLong ? 4 : 10);
        for (unsigned i = 0; i < count; i++)
            all.push_back(extension(d, isLong));
    }
    return all;
}

/** All headers and what they carry, each told which one is next. */
Octets chained(const std::vector<Extension> &all, size_t from, const Transport &t)
{
    OctetWriter writer;
    for (size_t i = from; i < all.size(); i++) {
        Octets octets = all[i].octets;
        octets[0] = i + 1 < all.size() ? all[i + 1].protocol : t.protocol;
        writer.bytes(octets);
    }
    return writer.bytes(t.octets).octets();
}

size_t payloadLength(Draft &d, size_t right)
{
    switch (d.lie({12, 3, 1, 1})) {
    case 1: d.note("payload length 0"); return 0;
    case 2: d.note("payload length short"); return d.choose.below(static_cast<uint32_t>(right));
    case 3: d.note("payload length beyond"); return right + 1 + d.choose.below(2000);
    default: return right;
    }
}

uint8_t hopLimit(Draft &d, uint8_t usual)
{
    static constexpr uint8_t others[] = {1, 0, 255};
    if (!d.liesOnceIn(10))
        return usual;
    const uint8_t hops = d.choose.of(others);
    d.note("hop limit", hops);
    return hops;
}

Octets packet(Draft &d, const Ends &ends, uint8_t next, uint8_t hops, const Octets &data)
{
    OctetWriter writer;
    writer.u32(0x60000000).u16(static_cast<unsigned>(payloadLength(d, data.size())));
    writer.u8({next, hops}).bytes(ends.source).bytes(ends.destination).bytes(data);
    Octets octets = writer.octets();
    if (d.liesOnceIn(30)) {
        d.note("a version of", 4);
        octets[0] = 0x45;
    }
    return octets;
}

/** RFC 2464, 7 */
Mac macOf(const Octets &destination)
{
    if (destination[0] != 0xff)
        return ownMac;
    return {0x33, 0x33, destination[12], destination[13], destination[14], destination[15]};
}

Octets fragmentHeader(uint8_t next, const Piece &piece, uint32_t id)
{
    OctetWriter writer;
    writer.u8({next, 0}).u16(static_cast<unsigned>(piece.offset | (piece.more ? 1 : 0))).u32(id);
    return writer.octets();
}

/** In fragments, with a number of extension headers before the fragment header. */
void fragmented(Draft &d, Content *content, const Ends &ends, const std::vector<Extension> &all,
                const Transport &t, uint8_t hops)
{
    const size_t before = all.empty() ? 0 : d.choose.below(static_cast<uint32_t>(all.size()) + 1);
    const Octets whole = chained(all, before, t);
    const uint8_t inside = before < all.size() ? all[before].protocol : t.protocol;
    const std::vector<Extension> ahead(all.begin(), all.begin() + static_cast<ptrdiff_t>(before));
    for (const Piece &piece : pieces(d, whole.size(), 2)) {
        const auto begin = whole.begin() + static_cast<ptrdiff_t>(piece.offset);
        OctetWriter writer;
        writer.bytes(fragmentHeader(inside, piece, d.id));
        writer.bytes(Octets(begin, begin + static_cast<ptrdiff_t>(piece.length)));
        const Octets data = chained(ahead, 0, {IPPROTO_FRAGMENT, writer.octets()});
        const uint8_t next = ahead.empty() ? uint8_t{IPPROTO_FRAGMENT} : ahead[0].protocol;
        content->packets.push_back(packet(d, ends, next, hops, data));
    }
}

} // namespace

Content ipv6(Draft &d)
{
    d.note("IPv6");
    const Ends ends = chooseEnds(d, sources6(), destinations6());
    const Transport t = transport(d, ends);
    const std::vector<Extension> all = extensions(d);
    const uint8_t hops = hopLimit(d, t.hops);
    Content content{0x86dd, false, macOf(ends.destination), {}};
    if (d.offload.kind == Offload::None && d.choose.rarely(6)) {
        fragmented(d, &content, ends, all, t, hops);
        return content;
    }
    const Octets data = chained(all, 0, t);
    const size_t headers = 40 + data.size() - t.octets.size();
    if (d.depth == 0) {
        d.offload.checksumStart = static_cast<uint16_t>(headers);
        d.offload.headers = static_cast<uint16_t>(d.offload.headers + headers);
    }
    content.packets.push_back(
        packet(d, ends, all.empty() ? t.protocol : all[0].protocol, hops, data));
    return content;
}
