/**
 * The frame around it all: addresses, tags, the length or type field, the end.
 */
#include "item.h"

#include <cstdio>
#include <cstring>

#include "draft.h"

namespace
{

constexpr size_t shortest = 60; // without the FCS
constexpr uint16_t firstType = 1536;

constexpr uint8_t macMark[] = {0x02, 0x72};

struct NamedMac {
    const char *what;
    Mac mac;
};

Mac destinationMac(Draft &d, const Mac &usual, const Mac &from)
{
    static constexpr NamedMac others[] = {
        {"to the host's MAC address", ownMac},
        {"to everybody's MAC address", everybodyMac},
        {"to the nearest customer bridges", {0x01, 0x80, 0xc2, 0, 0, 0}},
        {"to 01-80-C2-00-00-0E", {0x01, 0x80, 0xc2, 0, 0, 0x0e}},
        {"to 01-00-0C-CC-CC-CC", {0x01, 0, 0x0c, 0xcc, 0xcc, 0xcc}},
        {"to 01-00-0C-CD-CD-D0", {0x01, 0, 0x0c, 0xcd, 0xcd, 0xd0}},
        {"to a group's MAC address", {0x01, 0, 0x5e, 0, 0, 9}},
        {"to a group's MAC address of IPv6", {0x33, 0x33, 0, 0, 0, 1}},
        {"to somebody else's MAC address", {0x02, 0, 0, 0, 0, 0x99}},
    };
    if (!d.choose.rarely(6))
        return usual;
    if (d.choose.rarely(4)) {
        d.note("to the sender's MAC address");
        return from;
    }
    const NamedMac &other = d.choose.of(others);
    d.note(other.what);
    return other.mac;
}

void tag(Draft &d, OctetWriter *writer, bool isPlain)
{
    static constexpr uint16_t protocols[] = {0x8100, 0x88a8, 0x9100, 0x9200};
    static constexpr uint16_t vids[] = {0, 7, 1, 4095};
    const uint32_t which = d.choose.weighted({8, 6, isPlain ? 0u : 3u, isPlain ? 0u : 1u});
    const uint16_t vid = isPlain ? 0 : d.choose.of(vids);
    const uint16_t priority = d.choose.rarely(8) ? 0xe000 : 0;
    d.note(vid == 0 ? "priority tag" : "tag", uint32_t{protocols[which]} << 16 | vid);
    writer->u16(protocols[which]).u16(priority | vid);
}

/** As a rule none; of the others, half are such that only carry a priority. */
Octets tags(Draft &d)
{
    OctetWriter writer;
    if (!d.choose.rarely(3))
        return {};
    const bool isPlain = !d.choose.rarely(2);
    const unsigned count = 1 + d.choose.below(12);
    for (unsigned i = 0; i < count; i++)
        tag(d, &writer, isPlain);
    return writer.octets();
}

/** A length field, right or wrong. */
uint16_t lengthField(Draft &d, size_t right)
{
    switch (d.choose.weighted({8, 2, 2, 1, 1, 1})) {
    case 1: d.note("a length of nearly nothing"); return static_cast<uint16_t>(d.choose.below(10));
    case 2:
        d.note("a length of 1501 to 1535");
        return static_cast<uint16_t>(1501 + d.choose.below(35));
    case 3: d.note("a length of 1500"); return 1500;
    case 4: d.note("an ethertype of", firstType); return firstType;
    case 5: d.note("a length of", 0x60); return 0x60;
    default: return static_cast<uint16_t>(right);
    }
}

/** An ethertype behind SNAP (RFC 1042), in place of one. */
void wrapInSnap(Draft &d, Content *content)
{
    if (content->isLlc || d.offload.kind != Offload::None || !d.choose.rarely(40))
        return;
    d.note("in SNAP");
    for (Octets &packet : content->packets) {
        OctetWriter writer;
        writer.u8({0xaa, 0xaa, 3, 0, 0, 0}).u16(content->type).bytes(packet);
        packet = writer.octets();
    }
    content->isLlc = true;
}

/** What stands behind the packet, or what is missing of it. */
void end(Draft &d, Octets *frame)
{
    switch (d.lie({12, 4, 2, 2})) {
    case 1: d.note("not padded"); return;
    case 2: {
        const size_t length = 14 + d.choose.below(static_cast<uint32_t>(frame->size() - 13));
        d.note("cut off behind octets", static_cast<uint32_t>(length));
        frame->resize(length);
        return;
    }
    case 3:
        d.note("followed by octets", 64);
        frame->resize(frame->size() + 64);
        return;
    default: frame->resize(std::max(frame->size(), shortest));
    }
}

void damage(Draft &d, Octets *frame)
{
    if (!d.liesOnceIn(15) || frame->size() <= 14)
        return;
    const size_t at =
        12 + d.choose.below(static_cast<uint32_t>(std::min<size_t>(frame->size() - 12, 120)));
    d.note("damaged at octet", static_cast<uint32_t>(at));
    (*frame)[at] = static_cast<uint8_t>(d.choose.below(256));
}

/** What the port takes: one that takes super-frames takes any frame as long. */
void fit(Draft &d, Octets *frame)
{
    const size_t room = d.superFrames ? 65535 : 14 + mtu;
    if (frame->size() <= room)
        return;
    d.note("cut to the greatest length");
    frame->resize(room);
}

/** Where a super-frame is to be cut, as the sender says. */
Offload offload(Draft &d, size_t head)
{
    static constexpr uint16_t sizes[] = {1, 8, 65535};
    Offload offload = d.offload;
    offload.headers = static_cast<uint16_t>(offload.headers + head);
    offload.checksumStart = static_cast<uint16_t>(offload.checksumStart + head);
    if (offload.kind == Offload::None)
        return offload;
    if (d.liesOnceIn(4)) {
        offload.segment = d.choose.of(sizes);
        d.note("to be cut after octets", offload.segment);
    }
    if (d.liesOnceIn(4)) {
        offload.headers = static_cast<uint16_t>(d.choose.below(200));
        d.note("behind headers of octets", offload.headers);
    }
    if (d.liesOnceIn(8)) {
        offload.kind = static_cast<Offload::Kind>(1 + d.choose.below(3));
        d.note("as of kind", offload.kind);
    }
    return offload;
}

Shot shot(Draft &d, const Octets &head, const Content &content, const Octets &packet)
{
    OctetWriter writer;
    writer.bytes(head);
    writer.u16(content.isLlc ? lengthField(d, packet.size()) : content.type).bytes(packet);
    Octets frame = writer.octets();
    end(d, &frame);
    damage(d, &frame);
    fit(d, &frame);
    return {frame, offload(d, head.size() + 2)};
}

Content content(Draft &d)
{
    switch (d.choose.weighted({8, 7, 2, 3, 4})) {
    case 1: return ipv6(d);
    case 2: return arp(d);
    case 3: return otherEthertype(d);
    case 4: return llc(d);
    default: return ipv4(d);
    }
}

Item make(Draft d)
{
    Item item{d.id, {}, {}, {}};
    d.mayLie = d.choose.rarely(2);
    Content what = content(d);
    wrapInSnap(d, &what);
    OctetWriter head;
    const Mac from = sourceMac(d.id);
    head.bytes(destinationMac(d, what.to, from)).bytes(from).bytes(tags(d));
    for (const Octets &packet : what.packets)
        item.shots.push_back(shot(d, head.octets(), what, packet));
    item.choices = d.choose.made();
    item.notes = std::move(d.notes);
    return item;
}

/** Two numbers in one, as tags have them, are told in hexadecimal digits. */
std::string written(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, value > 0xffff ? " 0x%08x" : " %u", value);
    return text;
}

} // namespace

Mac sourceMac(uint32_t id)
{
    return {macMark[0],
            macMark[1],
            static_cast<uint8_t>(id >> 24),
            static_cast<uint8_t>(id >> 16),
            static_cast<uint8_t>(id >> 8),
            static_cast<uint8_t>(id)};
}

Item makeItem(uint64_t seed, uint32_t id, bool superFrames)
{
    return make({Choices(seed), id, superFrames});
}

Item makeItem(const std::vector<uint32_t> &choices, uint32_t id, bool superFrames)
{
    return make({Choices(choices), id, superFrames});
}

std::string Item::story() const
{
    std::string story;
    for (const Note &note : notes) {
        story += (story.empty() ? "" : "; ") + std::string(note.what);
        if (note.value != Note::noValue)
            story += written(note.value);
    }
    return story;
}

std::string Item::hex() const
{
    std::string text;
    char digits[3];
    for (const Shot &each : shots) {
        for (uint8_t octet : each.frame) {
            std::snprintf(digits, sizeof digits, "%02x", octet);
            text += digits;
        }
        text += '\n';
    }
    return text;
}

size_t Item::longest() const
{
    size_t octets = 0;
    for (const Shot &each : shots)
        octets = std::max(octets, each.frame.size());
    return octets;
}

size_t Item::shortest() const
{
    size_t octets = SIZE_MAX;
    for (const Shot &each : shots)
        octets = std::min(octets, each.frame.size());
    return octets;
}

std::optional<uint32_t> idOfMac(const uint8_t *mac)
{
    if (std::memcmp(mac, macMark, sizeof macMark) != 0)
        return std::nullopt;
    return uint32_t{mac[2]} << 24 | uint32_t{mac[3]} << 16 | uint32_t{mac[4]} << 8 | mac[5];
}

std::optional<uint32_t> idOfFrame(const uint8_t *frame, size_t length)
{
    return length >= 12 ? idOfMac(frame + 6) : std::nullopt;
}

std::optional<uint32_t> idOfPayload(const uint8_t *data, size_t length)
{
    const Octets mark = markOf(0);
    const void *found = memmem(data, length, mark.data(), 4);
    if (!found)
        return std::nullopt;
    const auto *at = static_cast<const uint8_t *>(found) + 4;
    if (at + 4 > data + length)
        return std::nullopt;
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}
