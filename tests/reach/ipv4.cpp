/**
 * IPv4: options, lengths that lie, fragments.
 */
#include "draft.h"

namespace
{

constexpr size_t header = 20;

Octets options(Draft &d)
{
    static const Octets kinds[] = {
        {1, 1, 1, 1},                             // no operation
        {0x94, 4, 0, 0},                          // router alert (RFC 2113)
        {7, 11, 4, 0, 0, 0, 0, 0, 0, 0, 0, 1},    // record route
        {0x44, 12, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0}, // time stamps
        {0x83, 7, 8, 10, 7, 0, 1, 0},             // a source route that is at its end
        {0, 0, 0, 0},                             // end of options
        {0x55, 40, 1, 1},                         // longer than the header
    };
    OctetWriter writer;
    if (!d.choose.rarely(6))
        return {};
    const unsigned count = 1 + d.choose.below(10);
    for (unsigned i = 0; i < count; i++) {
        const Octets &option = d.usually(kinds, 3);
        if (writer.size() + option.size() <= 40)
            writer.bytes(option);
    }
    d.note("octets of options", static_cast<uint32_t>(writer.size()));
    return writer.octets();
}

/** The first octet: version, and length of the header in words. */
uint8_t versionAndWords(Draft &d, size_t optionOctets)
{
    const auto right = static_cast<uint8_t>(0x40 | (header + optionOctets) / 4);
    switch (d.lie({20, 1, 1, 1})) {
    case 1: d.note("a header too short"); return static_cast<uint8_t>(0x40 | d.choose.below(5));
    case 2: d.note("a header too long"); return 0x4f;
    case 3: d.note("a version of", 6); return static_cast<uint8_t>(0x60 | (right & 0xf));
    default: return right;
    }
}

/** What the total length says. */
size_t totalLength(Draft &d, size_t headers, size_t right)
{
    switch (d.lie({12, 1, 1, 1, 1, 1, 1})) {
    case 1: d.note("total length 0"); return 0;
    case 2: d.note("total length within the header"); return 1 + d.choose.below(19);
    case 3: d.note("total length of the header alone"); return headers;
    case 4: d.note("total length within the next header"); return headers + 1 + d.choose.below(7);
    case 5: d.note("total length short"); return headers + 8 + d.choose.below(20);
    case 6: d.note("total length beyond"); return right + 1 + d.choose.below(2000);
    default: return right;
    }
}

uint8_t timeToLive(Draft &d, uint8_t usual)
{
    static constexpr uint8_t others[] = {1, 0, 255};
    if (!d.liesOnceIn(10))
        return usual;
    const uint8_t hops = d.choose.of(others);
    d.note("time to live", hops);
    return hops;
}

/** Flags and offset of what is no fragment. */
uint16_t wholeFragment(Draft &d)
{
    switch (d.choose.weighted({20, 2, 1, 1, 1})) {
    case 1: d.note("don't fragment"); return 0x4000;
    case 2: d.note("the reserved flag"); return 0x8000;
    case 3: d.note("more fragments, but none come"); return 0x2000;
    case 4:
        d.note("a lone fragment further back");
        return static_cast<uint16_t>(1 + d.choose.below(0x1fff));
    default: return 0;
    }
}

struct Head {
    Ends ends;
    Octets options;
    uint8_t protocol;
    uint8_t hops;
    uint16_t id;
};

Octets packet(Draft &d, const Head &head, const Octets &data, uint16_t fragment)
{
    const size_t headers = header + head.options.size();
    OctetWriter writer;
    writer.u8({versionAndWords(d, head.options.size()), 0});
    writer.u16(static_cast<unsigned>(totalLength(d, headers, headers + data.size())));
    writer.u16(head.id).u16(fragment).u8({head.hops, head.protocol}).u16(0);
    writer.bytes(head.ends.source).bytes(head.ends.destination).bytes(head.options);
    Octets octets = writer.octets();
    put16(octets, 10, checksum(octets));
    if (d.liesOnceIn(50)) {
        d.note("a wrong header checksum");
        octets[10] ^= 0x55;
    }
    octets.insert(octets.end(), data.begin(), data.end());
    return octets;
}

/** RFC 1112, 6.4 */
Mac macOf(const Octets &destination)
{
    if (destination == Octets{255, 255, 255, 255} || destination == Octets{10, 7, 0, 255})
        return everybodyMac;
    if (destination[0] >> 4 != 0xe)
        return ownMac;
    return {0x01,          0, 0x5e, static_cast<uint8_t>(destination[1] & 0x7f), destination[2],
            destination[3]};
}

void cutUpBehind(Draft &d, size_t headers)
{
    d.offload.checksumStart = static_cast<uint16_t>(headers);
    d.offload.headers = static_cast<uint16_t>(d.offload.headers + headers);
}

} // namespace

Content ipv4(Draft &d)
{
    d.note("IPv4");
    const Ends ends = chooseEnds(d, sources4(), destinations4());
    const Transport t = transport(d, ends);
    const Head head = {ends, options(d), t.protocol, timeToLive(d, t.hops),
                       static_cast<uint16_t>(d.id >> 8)};
    if (d.depth == 0)
        cutUpBehind(d, header + head.options.size());
    Content content{0x0800, false, macOf(ends.destination), {}};
    const std::vector<Piece> all = pieces(d, t.octets.size(), 4);
    for (const Piece &piece : all) {
        const auto begin = t.octets.begin() + static_cast<ptrdiff_t>(piece.offset);
        const Octets data(begin, begin + static_cast<ptrdiff_t>(piece.length));
        const auto place = static_cast<uint16_t>(piece.offset / 8 | (piece.more ? 0x2000 : 0));
        content.packets.push_back(packet(d, head, data, all.size() > 1 ? place : wholeFragment(d)));
    }
    return content;
}
