#include "consumers.h"

#include <array>
#include <netinet/in.h>
#include <sys/socket.h>

#include "host.h"
#include "item.h"
#include "kernel_counters.h"
#include "marker.h"
#include "plan.h"
#include "readers.h"
#include "replies.h"
#include "sockets.h"
#include "verdicts.h"

namespace
{

using zynlinux::Descriptor;
using IdOf = std::optional<uint32_t> (*)(const uint8_t *, size_t);

constexpr size_t looked = 512; // octets in which a number is looked for

/** A socket that is read. */
class SocketEye final : public Eye
{
public:
    SocketEye(Descriptor socket, IdOf idOf) : socket_(std::move(socket)), idOf_(idOf) {}

    void look(Sightings *seen) override
    {
        std::array<uint8_t, looked> data;
        for (ssize_t got; (got = recv(socket_.get(), data.data(), data.size(), 0)) >= 0;) {
            seen->count++;
            if (const auto id = idOf_(data.data(), static_cast<size_t>(got)))
                seen->ids.push_back(*id);
        }
    }

private:
    Descriptor socket_;
    IdOf idOf_;
};

std::unique_ptr<Eye> eyeOn(Descriptor socket, IdOf idOf)
{
    return std::make_unique<SocketEye>(std::move(socket), idOf);
}

struct Raw {
    const char *name;
    int family;
    int protocol;
    Verdicts verdicts;
};

constexpr Raw raws[] = {
    {"IPv4: raw socket of ICMP", AF_INET, IPPROTO_ICMP, typedProtocol},
    {"IPv4: raw socket of IGMP", AF_INET, IPPROTO_IGMP, never},
    {"IPv4: raw socket of OSPF", AF_INET, 89, typedProtocol},
    {"IPv4: raw socket of PIM", AF_INET, IPPROTO_PIM, typedProtocol},
    {"IPv4: raw socket of VRRP", AF_INET, 112, typedProtocol},
    {"IPv4: raw socket of ESP", AF_INET, IPPROTO_ESP, plainProtocol},
    {"IPv4: raw socket of another protocol", AF_INET, 253, otherProtocol},
    {"IPv6: raw socket of ICMPv6", AF_INET6, IPPROTO_ICMPV6, typedProtocol},
    {"IPv6: raw socket of OSPF", AF_INET6, 89, typedProtocol},
    {"IPv6: raw socket of PIM", AF_INET6, IPPROTO_PIM, typedProtocol},
    {"IPv6: raw socket of VRRP", AF_INET6, 112, typedProtocol},
    {"IPv6: raw socket of ESP", AF_INET6, IPPROTO_ESP, plainProtocol},
    {"IPv6: raw socket of another protocol", AF_INET6, 253, otherProtocol},
};

Verdicts verdictsOfUdp(int family, uint16_t port)
{
    if (port == namedUdpPort || (family == AF_INET && (port == 67 || port == 68)))
        return never;
    return port == 69 ? plainProtocol : typedProtocol;
}

std::string nameOfUdp(int family, uint16_t port)
{
    return std::string(family == AF_INET ? "IPv4" : "IPv6") + ": UDP port " + std::to_string(port);
}

} // namespace

Consumers::Consumers(const PortKind &kind, Wire *wire)
    : wire_(wire), counters_(std::make_unique<KernelCounters>())
{
    addReaders(kind);
    addSockets(kind);
    addCounters(kind);
    addReplies();
}

Consumers::~Consumers() = default;

void Consumers::add(std::string name, const Verdicts &verdicts, std::unique_ptr<Eye> eye)
{
    all_.push_back({std::move(name), verdicts, std::move(eye)});
}

void Consumers::addReaders(const PortKind &kind)
{
    // Who looks for DHCP reads all frames, and so sees the host's own bridge and not only its port.
    for (uint16_t port : {uint16_t{67}, uint16_t{68}})
        add("DHCP: reader of port " + std::to_string(port), never,
            eyeOn(openDhcpReader(ownPort, port), idOfFrame));
    for (uint16_t ethertype : {uint16_t{0x9000}, uint16_t{0x0060}})
        add(ethertype == 0x9000 ? "ALB: learner" : "ALB: old learner", never,
            eyeOn(openLearningReader(ownPort, ethertype), idOfFrame));
    for (const Reader &each : readers())
        add(each.name, each.verdicts,
            eyeOn(openReader(each.onPort || !kind.isBridged ? ownPort : "", each.protocol,
                             each.matches),
                  idOfFrame));
}

void Consumers::addSockets(const PortKind &kind)
{
    const std::string device = addressed(kind);
    for (const Raw &each : raws)
        add(each.name, each.verdicts,
            eyeOn(openRaw(each.family, each.protocol, device), idOfPayload));
    const auto addUdp = [&](int family, uint16_t port) {
        add(nameOfUdp(family, port), verdictsOfUdp(family, port),
            eyeOn(openUdp(family, port, device), idOfPayload));
    };
    for (uint16_t port : udpListeners4)
        addUdp(AF_INET, port);
    for (uint16_t port : udpListeners6)
        addUdp(AF_INET6, port);
    for (uint16_t port : tcpListeners)
        for (int family : {AF_INET, AF_INET6})
            listeners_.push_back(listenTo(family, port));
}

void Consumers::addCounters(const PortKind &kind)
{
    for (const KernelConsumer &each : kernelConsumers())
        add(each.name, each.verdicts, counters_->watch(each.counters));
    add(Consumers::loopback, unpromised, counters_->watchOwn());
    if (kind.isBridged)
        add("STP: kernel", never, watchSpanningTree(ownPort));
}

void Consumers::addReplies()
{
    firstReply_ = all_.size();
    for (const ReplyConsumer &each : replyConsumers())
        add(each.name, each.verdicts, nullptr);
}

std::vector<size_t> Consumers::of(const std::string &name) const
{
    const bool isBegin = name.ends_with('*');
    const std::string begin = isBegin ? name.substr(0, name.size() - 1) : name;
    std::vector<size_t> found;
    for (size_t i = 0; i < all_.size(); i++)
        if (isBegin ? all_[i].name.starts_with(begin) : all_[i].name == begin)
            found.push_back(i);
    return found;
}

void Consumers::look(std::vector<Sightings> *seen)
{
    counters_->refresh();
    for (size_t i = 0; i < all_.size(); i++)
        if (all_[i].eye)
            all_[i].eye->look(&(*seen)[i]);
}

bool Consumers::lookAtReplies(std::vector<Sightings> *seen, uint32_t marker)
{
    std::array<uint8_t, looked> data;
    while (size_t got = wire_->receive(data)) {
        const auto frame = std::span(data).first(std::min(got, data.size()));
        if (isMarker(frame, marker))
            return true;
        const auto reply = replyIn(frame);
        if (!reply)
            continue;
        Sightings &whose = (*seen)[firstReply_ + reply->consumer];
        whose.count++;
        if (reply->id)
            whose.ids.push_back(*reply->id);
    }
    return false;
}
