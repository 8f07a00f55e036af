/**
 * Building frames byte by byte, wrong ones too.
 */
#ifndef FRAME_H
#define FRAME_H

#include <array>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "bpf/cpudefend_shared.h"

using Mac = std::array<uint8_t, 6>;

constexpr Mac broadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
constexpr Mac host = {0x02, 0, 0, 0, 0, 0x01};
constexpr Mac peer = {0x02, 0, 0, 0, 0, 0x02};

/** 01:80:c2:00:00:xx */
constexpr Mac bridgeGroup(uint8_t last)
{
    return {0x01, 0x80, 0xc2, 0x00, 0x00, last};
}

/** What an IPv4 header says, where it is not the usual. */
struct Ipv4 {
    uint8_t protocol;
    uint8_t versionIhl = 0x45;
    uint16_t fragment = 0;     /**< flags and offset */
    uint16_t optionBytes = 0;  /**< bytes behind the fixed header, whatever the IHL says */
    uint16_t payloadBytes = 8; /**< what the total length counts behind the header */
};

/** What an IPv6 header says, where it is not the usual. */
struct Ipv6 {
    uint8_t next;
    uint16_t payloadBytes = 200; /**< what it counts behind itself; the frame may hold less */
    uint8_t version = 6;
};

class Frame
{
public:
    explicit Frame(const Mac &to, const Mac &from = peer)
    {
        bytes_.insert(bytes_.end(), to.begin(), to.end());
        bytes_.insert(bytes_.end(), from.begin(), from.end());
    }

    Frame &u8(std::initializer_list<unsigned> values)
    {
        for (unsigned value : values)
            bytes_.push_back(static_cast<uint8_t>(value));
        return *this;
    }

    Frame &u16(unsigned value) { return u8({value >> 8, value & 0xff}); }

    Frame &tag(unsigned tpid, unsigned tci) { return u16(tpid).u16(tci); }

    Frame &zeros(size_t count)
    {
        bytes_.resize(bytes_.size() + count);
        return *this;
    }

    /** The frame is decided by what stands here so far. */
    Frame &decided()
    {
        decided_ = bytes_.size();
        return *this;
    }

    /** An ethertype and an IPv4 header. */
    Frame &ipv4(const Ipv4 &ip)
    {
        u16(0x0800).u8({ip.versionIhl, 0}).u16(20u + ip.optionBytes + ip.payloadBytes);
        u16(0x1234).u16(ip.fragment).u8({64, ip.protocol}).u16(0);
        u8({192, 0, 2, 1, 192, 0, 2, 2}).carries(ip.protocol);
        for (unsigned i = 0; i < ip.optionBytes; i++)
            u8({1}); // no operation
        return *this;
    }

    /** An ethertype and an IPv6 header. */
    Frame &ipv6(const Ipv6 &ip)
    {
        u16(0x86dd).u8({ip.version * 16u, 0, 0, 0}).u16(ip.payloadBytes).u8({ip.next, 64});
        u16(0x2001).u16(0x0db8).zeros(11).u8({1});
        u16(0x2001).u16(0x0db8).zeros(11).u8({2});
        return carries(ip.next);
    }

    /** An extension header of so many bytes, whose length field has that value. */
    Frame &extension(uint8_t next, unsigned length, size_t bytes = 8)
    {
        return u8({next, length}).zeros(6).carries(next).zeros(bytes - 8);
    }

    /** A fragment header; the offset counts eights of bytes. */
    Frame &fragment(uint8_t next, unsigned offset, unsigned more)
    {
        return u8({next, 0}).u16(offset << 3 | more).zeros(4).carries(next);
    }

    /** What stands here is enough for a type, which more of the frame can make another. */
    Frame &general(int type)
    {
        general_ = type;
        generalFrom_ = bytes_.size();
        return *this;
    }

    /** Two ports, and the rest of a UDP header. */
    Frame &udp(unsigned source, unsigned destination)
    {
        return u16(source).u16(destination).decided().u16(8).u16(0);
    }

    /** A TCP header: two ports, and the rest of it. */
    Frame &tcp(unsigned source, unsigned destination)
    {
        return u16(source).u16(destination).decided().zeros(8).u16(0x5002).zeros(6);
    }

    /** Padded to the shortest Ethernet frame. */
    Frame &padded()
    {
        if (bytes_.size() < 60)
            bytes_.resize(60);
        return *this;
    }

    const std::vector<uint8_t> &bytes() const { return bytes_; }
    size_t decidedBy() const { return decided_; }

    /** The type of what is left when the frame is cut off before it is decided. */
    int cutType(size_t length) const { return length < generalFrom_ ? CPD_UNREAD : general_; }

private:
    Frame &carries(uint8_t protocol)
    {
        return general(protocol == 2 ? CPD_IGMP : protocol == 6 ? CPD_TCP : CPD_UNREAD);
    }

    std::vector<uint8_t> bytes_;
    size_t decided_ = 0;
    int general_ = CPD_UNREAD;
    size_t generalFrom_ = 0;
};

#endif
