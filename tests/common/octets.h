/**
 * Frames and packets as octets, written field by field in network order.
 */
#ifndef OCTETS_H
#define OCTETS_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

using Octets = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;

class OctetWriter
{
public:
    template <class Range> OctetWriter &bytes(const Range &range)
    {
        octets_.insert(octets_.end(), range.begin(), range.end());
        return *this;
    }

    OctetWriter &u8(std::initializer_list<uint8_t> values) { return bytes(values); }

    OctetWriter &u16(unsigned value)
    {
        return u8({static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
    }

    OctetWriter &u32(uint32_t value) { return u16(value >> 16).u16(value & 0xffff); }

    OctetWriter &zeros(size_t count)
    {
        octets_.resize(octets_.size() + count);
        return *this;
    }

    size_t size() const { return octets_.size(); }
    const Octets &octets() const { return octets_; }

    /** All of it, and zeros up to a length. */
    Octets padded(size_t length)
    {
        octets_.resize(std::max(octets_.size(), length));
        return octets_;
    }

private:
    Octets octets_;
};

/** Write a field of 16 bits over what stands there. */
inline void put16(Octets &octets, size_t at, unsigned value)
{
    octets[at] = static_cast<uint8_t>(value >> 8);
    octets[at + 1] = static_cast<uint8_t>(value);
}

/** Add up words of 16 bits, as the Internet checksum (RFC 1071) does; an odd octet has a zero. */
inline uint32_t sumOf(const Octets &octets, uint32_t sum = 0)
{
    for (size_t i = 0; i < octets.size(); i++)
        sum += i % 2 == 0 ? octets[i] << 8 : octets[i];
    return sum;
}

/** A sum folded into 16 bits. */
inline uint16_t folded(uint32_t sum)
{
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

/** The Internet checksum. @param sum of what it covers besides */
inline uint16_t checksum(const Octets &octets, uint32_t sum = 0)
{
    return static_cast<uint16_t>(~folded(sumOf(octets, sum)));
}

#endif
