#include "draft.h"

namespace
{

void putId(Octets *octets, size_t at, uint32_t id)
{
    put16(*octets, at, id >> 16);
    put16(*octets, at + 2, id & 0xffff);
}

/** Cut into a first piece and others alike. */
std::vector<Piece> cut(size_t length, size_t first, size_t count)
{
    std::vector<Piece> all;
    const size_t rest = length - first;
    const size_t each = std::max<size_t>(8, (rest / (count - 1) + 7) / 8 * 8);
    all.push_back({0, first, true});
    for (size_t at = first; at < length; at += each)
        all.push_back({at, std::min(each, length - at), at + each < length});
    return all;
}

void disarrange(Draft &d, std::vector<Piece> *all)
{
    switch (d.choose.weighted({12, 2, 1, 1, 1, 1})) {
    case 1:
        d.note("the last fragment first");
        std::reverse(all->begin(), all->end());
        return;
    case 2:
        d.note("the first fragment twice");
        all->insert(all->begin(), all->front());
        return;
    case 3:
        d.note("the second fragment over the first");
        all->at(1) = {0, all->at(1).length + all->at(1).offset, all->at(1).more};
        return;
    case 4:
        d.note("no first fragment");
        all->erase(all->begin());
        return;
    case 5:
        d.note("no last fragment");
        all->pop_back();
        return;
    default: return;
    }
}

Octets source(Draft &d, const std::vector<Address> &all)
{
    const Address &address = d.usually(all, 5);
    Octets octets = address.octets;
    if (&address != &all[0]) {
        d.note(address.what);
    } else if (octets.size() == 16) {
        putId(&octets, 12, d.id);
    } else {
        octets[1] = static_cast<uint8_t>(octets[1] | (d.id >> 16 & 1));
        put16(octets, 2, d.id & 0xffff);
    }
    return octets;
}

} // namespace

Octets markOf(uint32_t id)
{
    return OctetWriter().u8({0xe5, 'R', 'C', 'H'}).u32(id).octets();
}

std::vector<Piece> pieces(Draft &d, size_t length, uint32_t oneIn)
{
    const size_t mostEights = (length - 1) / 8; // in the first of several
    if (d.offload.kind != Offload::None || mostEights == 0 || !d.choose.rarely(oneIn))
        return {{0, length, false}};
    const bool isTiny = !d.choose.rarely(3);
    const size_t eights = isTiny ? 1 : 1 + d.choose.below(static_cast<uint32_t>(mostEights));
    const size_t count = 2 + d.choose.below(3);
    d.note("a first fragment of", static_cast<uint32_t>(8 * eights));
    std::vector<Piece> all = cut(length, 8 * eights, count);
    disarrange(d, &all);
    return all;
}

Octets destination(Draft &d, const std::vector<Address> &all)
{
    const Address &address = d.usually(all, 2);
    if (&address != &all[0])
        d.note(address.what);
    return address.octets;
}

Ends chooseEnds(Draft &d, const std::vector<Address> &sources,
                const std::vector<Address> &destinations)
{
    const Octets to = destination(d, destinations);
    if (!d.choose.rarely(4))
        return {source(d, sources), to};
    d.note("from where it goes to");
    return {to, to};
}
