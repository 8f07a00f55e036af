/**
 * A network name space of the test's own, with a protected port and the wire to a peer.
 */
#ifndef TEST_NET_H
#define TEST_NET_H

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <vector>

#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "base/descriptor.h"

constexpr char protectedPort[] = "port0";
constexpr char peerPort[] = "peer0";

inline void command(const std::string &text)
{
    if (std::system(text.c_str()) != 0)
        throw std::runtime_error("couldn't run " + text);
}

/** Empty, or why this machine gives the test no name space. Afterwards the test is in it. */
inline std::string enterNameSpace()
{
    if (unshare(CLONE_NEWNET) != 0)
        return std::string("no network name space of its own: ") + std::strerror(errno);
    return {};
}

inline void makeWire()
{
    for (const char *which : {"all", "default"})
        std::ofstream(std::string("/proc/sys/net/ipv6/conf/") + which + "/disable_ipv6") << 1;
    command(std::string("ip link add ") + protectedPort + " type veth peer name " + peerPort);
    command(std::string("ip link set ") + protectedPort + " arp off up");
    command(std::string("ip link set ") + peerPort + " arp off up");
}

/** A packet socket on a port, for one ethertype. It never blocks. */
class PacketSocket
{
public:
    PacketSocket() = default;

    PacketSocket(const char *port, uint16_t ethertype)
        : socket_(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ethertype)))
    {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ethertype);
        address.sll_ifindex = static_cast<int>(if_nametoindex(port));
        int size = 8 << 20;
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size);
        if (bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            throw std::runtime_error(std::string("couldn't bind a packet socket: ") +
                                     std::strerror(errno));
    }

    /** Send a frame so many times. @return how many went out */
    unsigned send(const std::vector<uint8_t> &frame, unsigned count)
    {
        iovec part{const_cast<uint8_t *>(frame.data()), frame.size()};
        std::array<mmsghdr, 64> batch{};
        for (mmsghdr &each : batch) {
            each.msg_hdr.msg_iov = &part;
            each.msg_hdr.msg_iovlen = 1;
        }
        unsigned sent = 0;
        while (sent < count) {
            unsigned size = std::min<unsigned>(count - sent, batch.size());
            int done = sendmmsg(socket_.get(), batch.data(), size, 0);
            if (done <= 0)
                break;
            sent += static_cast<unsigned>(done);
        }
        return sent;
    }

    /** Count, and take, the frames that have come from outside. */
    unsigned received()
    {
        unsigned count = 0;
        uint8_t buffer[2048];
        sockaddr_ll from{};
        socklen_t length = sizeof from;
        while (recvfrom(socket_.get(), buffer, sizeof buffer, 0,
                        reinterpret_cast<sockaddr *>(&from), &length) >= 0)
            count += from.sll_pkttype != PACKET_OUTGOING;
        return count;
    }

private:
    zynlinux::Descriptor socket_;
};

#endif
