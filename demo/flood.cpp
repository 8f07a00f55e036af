#include "flood.h"

#include "offload.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using Frame = std::vector<uint8_t>;

constexpr unsigned BATCH = 32; // frames per system call

constexpr uint8_t PROTECTED_IP[] = {10, 77, 0, 1};

void append(Frame &frame, std::initializer_list<unsigned> bytes)
{
    for (unsigned byte : bytes)
        frame.push_back(static_cast<uint8_t>(byte));
}

Frame ethernet(std::initializer_list<unsigned> destination, unsigned sender, unsigned ethertype)
{
    Frame frame;
    append(frame, destination);
    append(frame, {0x02, 0, 0, 0, 0, sender});
    append(frame, {ethertype >> 8, ethertype & 0xff});
    return frame;
}

/** Who has the protected address? (RFC 826) */
Frame arpRequest(unsigned sender)
{
    Frame frame = ethernet({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, sender, 0x0806);
    append(frame, {0, 1, 8, 0, 6, 4, 0, 1});
    append(frame, {0x02, 0, 0, 0, 0, sender, 10, 77, 0, 100 + sender});
    append(frame, {0, 0, 0, 0, 0, 0});
    frame.insert(frame.end(), PROTECTED_IP, PROTECTED_IP + 4);
    frame.resize(60);
    return frame;
}

uint16_t headerChecksum(const uint8_t *header)
{
    uint32_t sum = 0;
    for (int i = 0; i < 20; i += 2)
        sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

/** A DHCPDISCOVER of 300 bytes (RFC 2131), in UDP without checksum. */
Frame dhcpDiscover(unsigned sender)
{
    constexpr unsigned BOOTP = 300, UDP = BOOTP + 8, IP = UDP + 20;
    Frame frame = ethernet({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, sender, 0x0800);
    append(frame, {0x45, 0, IP >> 8, IP & 0xff, 0, 0, 0, 0, 64, 17, 0, 0});
    append(frame, {0, 0, 0, 0, 255, 255, 255, 255});
    const uint16_t sum = headerChecksum(&frame[14]);
    frame[24] = static_cast<uint8_t>(sum >> 8);
    frame[25] = static_cast<uint8_t>(sum);
    append(frame, {0, 68, 0, 67, UDP >> 8, UDP & 0xff, 0, 0});
    append(frame, {1, 1, 6, 0, 0, 0, 0, sender});
    frame.resize(frame.size() + 20);
    append(frame, {0x02, 0, 0, 0, 0, sender});
    frame.resize(14 + IP);
    return frame;
}

/** EAPOL-Start to the port access entity's group address (IEEE 802.1X, 11.4). */
Frame eapolStart()
{
    Frame frame = ethernet({0x01, 0x80, 0xc2, 0, 0, 3}, 0xee, 0x888e);
    append(frame, {2, 1, 0, 0});
    frame.resize(60);
    return frame;
}

int openPort(const std::string &port)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(port.c_str()));
    const int size = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        perror("demo: couldn't open the peer's port");
        _exit(1);
    }
    return fd;
}

/** Send frames in turn, as many as are due at a rate, until told to stop. */
class Stream
{
public:
    Stream(const std::string &port, uint32_t rate, unsigned batch, std::vector<Frame> frames)
        : rate_(rate), batch_(batch), frames_(std::move(frames)), fd_(openPort(port)),
          thread_([this] { run(); })
    {
    }

    uint64_t sent() const { return sent_; }

    void stop()
    {
        stop_ = true;
        thread_.join();
        close(fd_);
    }

private:
    void run()
    {
        const auto begin = Clock::now();
        while (!stop_) {
            const std::chrono::duration<double> elapsed = Clock::now() - begin;
            const auto due = static_cast<uint64_t>(elapsed.count() * rate_);
            if (sent_ + batch_ <= due)
                sendBatch();
            else
                std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }

    void sendBatch()
    {
        std::array<iovec, BATCH> parts{};
        std::array<mmsghdr, BATCH> messages{};
        for (unsigned i = 0; i < batch_; i++) {
            Frame &frame = frames_[next_++ % frames_.size()];
            parts[i] = {frame.data(), frame.size()};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        const int done = sendmmsg(fd_, messages.data(), batch_, 0);
        if (done > 0)
            sent_ += static_cast<uint64_t>(done);
    }

    const uint32_t rate_;
    const unsigned batch_;
    std::vector<Frame> frames_;
    const int fd_;
    size_t next_ = 0;
    std::atomic<uint64_t> sent_ = 0;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

std::vector<Frame> fromManySenders(Frame (*make)(unsigned))
{
    std::vector<Frame> frames;
    for (unsigned sender = 1; sender <= FLOOD_SENDERS; sender++)
        frames.push_back(make(sender));
    return frames;
}

struct Order {
    char what; // 's'tart, 'c'ount, 'e'nd
    char port[IFNAMSIZ];
    Offer offer;
};

/** The peer's process: does as it is told. */
[[noreturn]] void servePeer(int fd)
{
    std::unique_ptr<Stream> arp, dhcp, trickle;
    for (Order order; recv(fd, &order, sizeof order, 0) == sizeof order;) {
        if (order.what == 's') {
            // Without segmentation offload here, the far end polls for all that comes. Once a
            // packet program is attached there, it does so anyway, and nothing can be switched.
            if (!trickle)
                setOffload(order.port, ETHTOOL_STSO, false);
            trickle = std::make_unique<Stream>(order.port, order.offer.trickle, 1,
                                               std::vector<Frame>{eapolStart()});
            arp = std::make_unique<Stream>(order.port, order.offer.arp, BATCH,
                                           fromManySenders(arpRequest));
            dhcp = std::make_unique<Stream>(order.port, order.offer.dhcp, BATCH,
                                            fromManySenders(dhcpDiscover));
        } else if (order.what == 'e') {
            arp->stop();
            dhcp->stop();
            trickle->stop();
        }
        const Sent sent{arp->sent(), dhcp->sent(), trickle->sent()};
        if (send(fd, &sent, sizeof sent, 0) != sizeof sent)
            _exit(1);
    }
    _exit(0);
}

} // namespace

Peer::Peer()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        throw std::runtime_error("couldn't make a pair of sockets");
    pid_ = fork();
    if (pid_ == 0) {
        close(ends[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char ready = unshare(CLONE_NEWNET) == 0;
        if (send(ends[1], &ready, sizeof ready, 0) != sizeof ready || !ready)
            _exit(1);
        servePeer(ends[1]);
    }
    close(ends[1]);
    fd_ = ends[0];
    char ready = 0;
    if (recv(fd_, &ready, sizeof ready, 0) != sizeof ready || !ready)
        throw std::runtime_error("couldn't make a network name space for the peer");
}

Peer::~Peer()
{
    close(fd_);
    waitpid(pid_, nullptr, 0);
}

void Peer::start(const std::string &port, const Offer &offer)
{
    Order order{'s', {}, offer};
    port.copy(order.port, sizeof order.port - 1);
    Sent ignored;
    if (send(fd_, &order, sizeof order, 0) != sizeof order ||
        recv(fd_, &ignored, sizeof ignored, 0) != sizeof ignored)
        throw std::runtime_error("the peer is gone");
}

Sent Peer::ask(char what)
{
    const Order order{what, {}, {}};
    Sent sent;
    if (send(fd_, &order, sizeof order, 0) != sizeof order ||
        recv(fd_, &sent, sizeof sent, 0) != sizeof sent)
        throw std::runtime_error("the peer is gone");
    return sent;
}

Sent Peer::sent()
{
    return ask('c');
}

Sent Peer::stop()
{
    return ask('e');
}
