#include "wire.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <linux/if_packet.h>
#include <linux/if_tun.h>

#include "linux/test_net.h"
#include "plan.h"

namespace
{

using zynlinux::Descriptor;

std::runtime_error failure(const std::string &what)
{
    return std::runtime_error("couldn't " + what + ": " + std::strerror(errno));
}

void setMtu(const std::string &port)
{
    command("ip link set " + port + " mtu " + std::to_string(mtu) + " up");
}

/** In another network name space for as long as this is there. */
class Visit
{
public:
    explicit Visit(int nameSpace) : home_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC))
    {
        if (home_.get() < 0 || setns(nameSpace, CLONE_NEWNET) != 0)
            throw failure("enter the name space of the peer");
    }
    ~Visit() { setns(home_.get(), CLONE_NEWNET); }
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

private:
    Descriptor home_;
};

Descriptor newNameSpace()
{
    const Descriptor home(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (unshare(CLONE_NEWNET) != 0)
        throw failure("make a name space for the peer");
    Descriptor made(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    if (setns(home.get(), CLONE_NEWNET) != 0)
        throw failure("return from the name space of the peer");
    return made;
}

/** A wire whose other end is in a name space where nobody answers. */
class VethWire final : public Wire
{
public:
    VethWire()
    {
        const Descriptor there = newNameSpace();
        const std::string path =
            "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(there.get());
        command(std::string("ip link add ") + ownPort +
                " numrxqueues 1 numtxqueues 1 type veth peer name " + peerPort +
                " numrxqueues 1 numtxqueues 1 netns " + path);
        setMtu(ownPort);
        const Visit visit(there.get());
        std::ofstream("/proc/sys/net/ipv6/conf/" + std::string(peerPort) + "/disable_ipv6") << 1;
        setMtu(peerPort);
        openSocket();
    }

    bool takesSuperFrames() const override { return false; }

    void send(std::span<const Shot *const> shots) override
    {
        while (!shots.empty())
            shots = shots.subspan(sendSome(shots));
    }

    size_t receive(std::span<uint8_t> buffer) override
    {
        const ssize_t got = recv(socket_.get(), buffer.data(), buffer.size(), MSG_TRUNC);
        return got > 0 ? static_cast<size_t>(got) : 0;
    }

private:
    void set(int option, int value)
    {
        if (setsockopt(socket_.get(), SOL_PACKET, option, &value, sizeof value) != 0)
            throw failure("set up the peer's socket");
    }

    void openSocket()
    {
        socket_ = Descriptor(
            socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ETH_P_ALL)));
        set(PACKET_QDISC_BYPASS, 1);
        set(PACKET_IGNORE_OUTGOING, 1);
        const int size = 64 << 20;
        setsockopt(socket_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        setsockopt(socket_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(if_nametoindex(peerPort));
        if (bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            throw failure("open the peer's port");
    }

    size_t sendSome(std::span<const Shot *const> shots)
    {
        std::array<iovec, 64> parts;
        std::array<mmsghdr, 64> messages{};
        const size_t count = std::min(shots.size(), messages.size());
        for (size_t i = 0; i < count; i++) {
            const Octets &frame = shots[i]->frame;
            parts[i] = {const_cast<uint8_t *>(frame.data()), frame.size()};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int sent = sendmmsg(socket_.get(), messages.data(), static_cast<unsigned>(count), 0);
        if (sent > 0)
            return static_cast<size_t>(sent);
        if (errno != ENOBUFS && errno != EAGAIN && errno != EINTR)
            throw failure("send a frame of " + std::to_string(shots[0]->frame.size()) + " octets");
        return 0;
    }

    Descriptor socket_;
};

/** What stands before each frame on a tap (virtio 1.2, 5.1.6), in the host's order. */
struct VnetHeader {
    uint8_t flags;
    uint8_t kind;
    uint16_t headers;
    uint16_t segment;
    uint16_t checksumStart;
    uint16_t checksumOffset;
};

constexpr uint8_t needsChecksum = 1;
constexpr unsigned takesUdp4 = 0x20, takesUdp6 = 0x40; // since Linux 6.2

VnetHeader headerOf(const Offload &offload)
{
    static constexpr uint8_t kinds[] = {0, 5, 1, 4}; // none, UDP, TCP in IPv4, TCP in IPv6
    if (offload.kind == Offload::None)
        return {};
    return {needsChecksum,   kinds[offload.kind],   offload.headers,
            offload.segment, offload.checksumStart, offload.checksumOffset};
}

/** A port whose other end is this process. */
class TapWire final : public Wire
{
public:
    TapWire() : tap_(open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC))
    {
        ifreq request{};
        std::strcpy(request.ifr_name, ownPort);
        request.ifr_flags = IFF_TAP | IFF_NO_PI | IFF_VNET_HDR;
        if (ioctl(tap_.get(), TUNSETIFF, &request) != 0)
            throw failure("make a tap");
        // What is sent to it is whole at any rate; this is for what it sends.
        takesUdp_ = ioctl(tap_.get(), TUNSETOFFLOAD,
                          TUN_F_CSUM | TUN_F_TSO4 | TUN_F_TSO6 | takesUdp4 | takesUdp6) == 0;
        if (takesUdp_ && ioctl(tap_.get(), TUNSETOFFLOAD, 0) != 0)
            throw failure("set up the tap");
        command(std::string("ip link set ") + ownPort + " txqueuelen 10000");
        setMtu(ownPort);
    }

    bool takesSuperFrames() const override { return takesUdp_; }

    void send(std::span<const Shot *const> shots) override
    {
        for (const Shot *shot : shots)
            send(*shot);
    }

    size_t receive(std::span<uint8_t> buffer) override
    {
        VnetHeader header;
        iovec parts[] = {{&header, sizeof header}, {buffer.data(), buffer.size()}};
        const ssize_t got = readv(tap_.get(), parts, 2);
        return got > static_cast<ssize_t>(sizeof header) ? static_cast<size_t>(got) - sizeof header
                                                         : 0;
    }

private:
    /** What the kernel finds wrong with a super-frame is no matter: it goes nowhere. */
    void send(const Shot &shot)
    {
        VnetHeader header = headerOf(shot.offload);
        iovec parts[] = {{&header, sizeof header},
                         {const_cast<uint8_t *>(shot.frame.data()), shot.frame.size()}};
        while (writev(tap_.get(), parts, 2) < 0 && errno != EINVAL)
            if (errno != EAGAIN && errno != EINTR)
                throw failure("send a frame of " + std::to_string(shot.frame.size()) + " octets");
    }

    Descriptor tap_;
    bool takesUdp_ = false;
};

} // namespace

std::unique_ptr<Wire> makeWire(const PortKind &kind)
{
    if (kind.isTap)
        return std::make_unique<TapWire>();
    return std::make_unique<VethWire>();
}
