#include "kernel_counters.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include "verdicts.h"

namespace
{

using zynlinux::Descriptor;

/** The number that stands there, so many words behind. */
uint64_t numberAt(const char *at, size_t word)
{
    for (; word > 0; word--) {
        at += std::strcspn(at, " \t");
        at += std::strspn(at, " \t");
    }
    return std::strtoull(at, nullptr, 10);
}

/** Which word of a line is the title; 0 for none. */
size_t wordOf(const std::string &line, const std::string &title)
{
    std::istringstream words(line);
    std::string word;
    for (size_t i = 0; words >> word; i++)
        if (word == title)
            return i;
    return 0;
}

std::runtime_error notCounted(const std::string &what)
{
    return std::runtime_error("the kernel does not count " + what);
}

/** Where the line begins, behind its line end. Lines come and go with what has been counted. */
size_t lineOf(const std::string &text, const std::string &begin)
{
    const size_t at = text.find("\n" + begin + " ");
    if (at == std::string::npos)
        throw notCounted(begin);
    return at + 1;
}

uint64_t numberInList(const std::string &text, const std::string &name)
{
    return numberAt(&text[lineOf(text, name)], 1);
}

/** The titles stand in the line above the numbers. */
uint64_t numberInTable(const std::string &text, const std::string &begin, const std::string &title)
{
    const size_t at = lineOf(text, begin);
    const size_t end = text.find('\n', at);
    const size_t word = wordOf(text.substr(at, end - at), title);
    if (word == 0)
        throw notCounted(begin + " " + title);
    return numberAt(&text[end + 1], word);
}

/** What a number has grown by. */
class Growth : public Eye
{
public:
    void look(Sightings *seen) override
    {
        const uint64_t now = read();
        seen->count += now - last_;
        last_ = now;
    }

protected:
    virtual uint64_t read() const = 0;

    uint64_t last_ = 0;
};

class Counters final : public Growth
{
public:
    Counters(const KernelCounters *all, const std::vector<std::string> &names)
        : all_(all), names_(names)
    {
        last_ = read();
    }

private:
    uint64_t read() const override
    {
        uint64_t sum = 0;
        for (const std::string &name : names_)
            sum += all_->number(name);
        return sum;
    }

    const KernelCounters *all_;
    const std::vector<std::string> names_;
};

/** What it sent by the loopback device, and what it sent to all, and so to itself. */
class Loopback final : public Growth
{
public:
    explicit Loopback(const KernelCounters *all) : all_(all) { last_ = read(); }

private:
    uint64_t read() const override
    {
        return all_->number("lo:") + all_->number("IpExt OutBcastPkts") +
               all_->number("IpExt OutMcastPkts") + all_->number("Ip6OutMcastPkts");
    }

    const KernelCounters *all_;
};

/** An attribute among others, or nothing. */
const rtattr *attribute(const void *begin, size_t length, unsigned type)
{
    for (auto *each = static_cast<const rtattr *>(begin); RTA_OK(each, length);
         each = RTA_NEXT(each, length))
        if (each->rta_type == type)
            return each;
    return nullptr;
}

const rtattr *inside(const rtattr *outer, unsigned type)
{
    return outer ? attribute(RTA_DATA(outer), RTA_PAYLOAD(outer), type) : nullptr;
}

class SpanningTree final : public Growth
{
public:
    explicit SpanningTree(const std::string &port)
        : index_(if_nametoindex(port.c_str())),
          socket_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE))
    {
        last_ = read();
    }

private:
    uint64_t read() const override
    {
        struct {
            nlmsghdr header;
            if_stats_msg message;
        } request{};
        request.header = {sizeof request, RTM_GETSTATS, NLM_F_REQUEST, 1, 0};
        request.message.ifindex = index_;
        request.message.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_XSTATS_SLAVE);
        alignas(nlmsghdr) char answer[8192];
        if (send(socket_.get(), &request, sizeof request, 0) < 0)
            throw std::runtime_error("couldn't ask for what a bridge counts");
        const ssize_t got = recv(socket_.get(), answer, sizeof answer, 0);
        return got < 0 ? 0 : sum(reinterpret_cast<const nlmsghdr *>(answer));
    }

    static uint64_t sum(const nlmsghdr *answer)
    {
        if (answer->nlmsg_type != RTM_NEWSTATS)
            throw std::runtime_error("the kernel does not tell what a bridge counts");
        const auto *message = static_cast<const if_stats_msg *>(NLMSG_DATA(answer));
        const rtattr *all =
            attribute(message + 1, answer->nlmsg_len - NLMSG_LENGTH(sizeof *message),
                      IFLA_STATS_LINK_XSTATS_SLAVE);
        const rtattr *tree = inside(inside(all, LINK_XSTATS_TYPE_BRIDGE), BRIDGE_XSTATS_STP);
        if (!tree)
            throw notCounted("BPDUs");
        bridge_stp_xstats counts;
        std::memcpy(&counts, RTA_DATA(tree), sizeof counts);
        return counts.rx_bpdu + counts.rx_tcn;
    }

    const uint32_t index_;
    const Descriptor socket_;
};

} // namespace

const std::vector<KernelConsumer> &kernelConsumers()
{
    static const std::vector<KernelConsumer> all = {
        {"IPv4: delivered", otherProtocol, {"Ip InDelivers"}},
        {"IPv4: forwarded", otherProtocol, {"Ip ForwDatagrams"}},
        {"IPv4: reassembly", otherProtocol, {"Ip ReasmReqds"}},
        {"IPv4: UDP without a listener", plainProtocol, {"Udp NoPorts"}},
        {"IPv4: echo", never, {"Icmp InEchos"}},
        {"TCP: segments", plainProtocol, {"Tcp InSegs"}},
        {"IPv6: delivered", otherProtocol, {"Ip6InDelivers"}},
        {"IPv6: forwarded", otherProtocol, {"Ip6OutForwDatagrams"}},
        {"IPv6: reassembly", otherProtocol, {"Ip6ReasmReqds"}},
        {"IPv6: UDP without a listener", plainProtocol, {"Udp6NoPorts"}},
        {"IPv6: echo", never, {"Icmp6InEchos"}},
        {"IPv6: neighbour discovery", never, {"Icmp6InNeighborSolicits"}},
        {"IPv6: MLD", plainProtocol, {"Icmp6InGroupMembQueries"}},
    };
    return all;
}

KernelCounters::KernelCounters()
{
    for (const char *name : {"snmp6", "dev", "snmp", "netstat"})
        files_.emplace_back(
            open((std::string("/proc/thread-self/net/") + name).c_str(), O_RDONLY | O_CLOEXEC));
    refresh();
}

void KernelCounters::refresh()
{
    text_ = "\n";
    for (const Descriptor &file : files_) {
        char part[16384];
        const ssize_t got = pread(file.get(), part, sizeof part, 0);
        text_.append(part, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
}

uint64_t KernelCounters::number(const std::string &name) const
{
    if (name == "lo:") // behind the octets
        return numberAt(&text_[lineOf(text_, "    lo:")], 3);
    const size_t space = name.find(' ');
    return space == std::string::npos
               ? numberInList(text_, name)
               : numberInTable(text_, name.substr(0, space) + ":", name.substr(space + 1));
}

std::unique_ptr<Eye> KernelCounters::watch(const std::vector<std::string> &names) const
{
    return std::make_unique<Counters>(this, names);
}

std::unique_ptr<Eye> KernelCounters::watchOwn() const
{
    return std::make_unique<Loopback>(this);
}

std::unique_ptr<Eye> watchSpanningTree(const std::string &port)
{
    return std::make_unique<SpanningTree>(port);
}
