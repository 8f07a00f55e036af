/**
 * A tap device, by which frames come in that hold several packets, as from a virtual machine.
 */
#ifndef TAP_H
#define TAP_H

#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

#include <linux/if_tun.h>

#include "base/descriptor.h"

/** What goes before a frame: virtio 1.2, 5.1.6, in the host's order (its C header is none of C++).
 */
struct SegmentsHeader {
    uint8_t flags;    /**< 1: the checksum has to be completed */
    uint8_t gso_type; /**< what the segments are; 5: datagrams of UDP, from Linux 6.2 on */
    uint16_t hdr_len;
    uint16_t gso_size;
    uint16_t csum_start;
    uint16_t csum_offset;
};

class Tap
{
public:
    /** Make it, down; it goes with this object. */
    explicit Tap(const std::string &name) : device_(open("/dev/net/tun", O_RDWR | O_CLOEXEC))
    {
        ifreq request{};
        std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
        request.ifr_flags = IFF_TAP | IFF_NO_PI | IFF_VNET_HDR;
        made_ = device_.get() >= 0 && ioctl(device_.get(), TUNSETIFF, &request) == 0;
    }

    /** Whether this machine has such devices. */
    bool made() const { return made_; }

    /**
     * Hand over a frame of UDP, of which the checksum is not complete yet.
     * @param headers octets before the payload
     * @param payload octets in each datagram, but for the last; 0: the frame holds only one
     * @return whether it was taken
     */
    bool send(const std::vector<uint8_t> &frame, uint16_t headers, uint16_t payload) const
    {
        constexpr uint16_t udpHeader = 8, checksum = 6;
        constexpr uint8_t incomplete = 1, udpSegments = 5;
        const SegmentsHeader header = {
            incomplete, payload != 0 ? udpSegments : uint8_t{0},    headers,
            payload,    static_cast<uint16_t>(headers - udpHeader), checksum};
        std::vector<uint8_t> all(sizeof header + frame.size());
        std::memcpy(all.data(), &header, sizeof header);
        std::memcpy(all.data() + sizeof header, frame.data(), frame.size());
        return write(device_.get(), all.data(), all.size()) == static_cast<ssize_t>(all.size());
    }

private:
    zynlinux::Descriptor device_;
    bool made_ = false;
};

#endif
