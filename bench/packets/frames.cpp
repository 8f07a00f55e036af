#include "frames.h"

#include <cstddef>
#include <initializer_list>

namespace
{

constexpr size_t LENGTH = 60; // the shortest on an Ethernet, without FCS

void append(FrameBytes &frame, std::initializer_list<unsigned> bytes)
{
    for (unsigned byte : bytes)
        frame.push_back(static_cast<uint8_t>(byte));
}

void append(FrameBytes &frame, uint32_t word)
{
    append(frame, {word >> 24, word >> 16, word >> 8, word});
}

void setHeaderChecksum(uint8_t *header)
{
    uint32_t sum = 0;
    for (int i = 0; i < 20; i += 2)
        sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    header[10] = static_cast<uint8_t>(~sum >> 8);
    header[11] = static_cast<uint8_t>(~sum);
}

} // namespace

FrameBytes toBox(uint32_t source, uint8_t protocol, uint16_t sourcePort, uint16_t port)
{
    constexpr unsigned ethernet = 14, ip = LENGTH - ethernet, payload = ip - 20;
    FrameBytes frame;
    append(frame, {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x08, 0x00});
    append(frame, {0x45, 0, 0, ip, 0, 0, 0, 0, 64, protocol, 0, 0});
    append(frame, source);
    append(frame, BOX_ADDRESS);
    setHeaderChecksum(&frame[ethernet]);
    append(frame, uint32_t{sourcePort} << 16 | port);
    if (protocol == UDP)
        append(frame, {0, payload, 0, 0});
    else
        append(frame, {0, 0, 0, 1, 0, 0, 0, 1, 0x50, 0x10, 0xff, 0xff, 0, 0, 0, 0});
    frame.resize(LENGTH);
    return frame;
}

FrameBytes behindExtensions(uint16_t port)
{
    constexpr unsigned udp = 8, options = 8, hopByHop = 0, destination = 60;
    FrameBytes frame;
    append(frame, {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x86, 0xdd});
    append(frame, {0x60, 0, 0, 0, 0, 2 * options + udp, hopByHop, 64});
    for (unsigned host : {1, 2}) // of the benchmark's networks (RFC 5180, 8)
        append(frame, {0x20, 0x01, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, host});
    for (unsigned next : {destination, unsigned{UDP}})
        append(frame, {next, 0, 1, 4, 0, 0, 0, 0}); // filled by PadN
    append(frame, uint32_t{40000} << 16 | port);
    append(frame, {0, udp, 0, 0});
    return frame;
}

FrameBytes arpRequest()
{
    FrameBytes frame;
    append(frame, {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 1, 0x08, 0x06});
    append(frame, {0, 1, 8, 0, 6, 4, 0, 1, 2, 0, 0, 0, 0, 1});
    append(frame, PEER_ADDRESS);
    append(frame, {0, 0, 0, 0, 0, 0});
    append(frame, BOX_ADDRESS);
    frame.resize(LENGTH);
    return frame;
}

FrameBytes floodFrame()
{
    return toBox(PEER_ADDRESS, UDP, 40000, DHCP_SERVER_PORT);
}
