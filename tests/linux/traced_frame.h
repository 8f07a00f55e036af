/**
 * Samples of frames that source tracing reads.
 */
#ifndef TRACED_FRAME_H
#define TRACED_FRAME_H

#include <algorithm>
#include <cstring>

#include "frame.h"

/** A sample of a frame without tags. */
inline cpd_sample sampleOf(const std::vector<uint8_t> &frame, uint16_t ethertype,
                           uint32_t ifindex = 1)
{
    cpd_sample sample{};
    sample.ifindex = ifindex;
    sample.length = static_cast<uint32_t>(frame.size());
    sample.ethertype = ethertype;
    sample.network_offset = 14;
    std::copy_n(frame.begin(), std::min<size_t>(frame.size(), CPD_SAMPLE_DATA), sample.data);
    return sample;
}

/** An ARP request of the sender 02:00:00:xx:xx:xx with the address 10.x.x.x. */
inline cpd_sample arpSample(uint32_t sender, uint32_t ifindex = 1)
{
    const auto octet = [sender](int shift) { return static_cast<uint8_t>(sender >> shift); };
    const Mac mac = {2, 0, 0, octet(16), octet(8), octet(0)};
    Frame frame(broadcast, mac);
    frame.u16(0x0806).u8({0, 1, 8, 0, 6, 4, 0, 1});
    for (uint8_t each : mac)
        frame.u8({each});
    frame.u8({10, mac[3], mac[4], mac[5]}).zeros(6).u8({192, 0, 2, 1}).zeros(18);
    return sampleOf(frame.bytes(), 0x0806, ifindex);
}

#endif
