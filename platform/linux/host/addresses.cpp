#include "host/addresses.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <utility>

#include "zynosal.h"

namespace zynlinux
{

namespace
{

/** What a message says of an address. */
struct Entry {
    ifaddrmsg info;
    NetlinkBytes address; /**< the other end's on a wire that has two ends, otherwise the host's */
    NetlinkBytes local;   /**< the host's; none where it is the one above */
    NetlinkBytes broadcast;
};

bool takeEntry(NetlinkBytes body, Entry &entry)
{
    if (!takeFront(body, entry.info))
        return false;
    eachAttribute(body, [&](int type, NetlinkBytes value) {
        if (type == IFA_ADDRESS)
            entry.address = value;
        else if (type == IFA_LOCAL)
            entry.local = value;
        else if (type == IFA_BROADCAST)
            entry.broadcast = value;
    });
    return true;
}

constexpr uint32_t mappedBits = 96; // before an address of IPv4 that is mapped into IPv6

Address mapped(in_addr_t address)
{
    Address all{};
    all[10] = all[11] = 0xff;
    std::memcpy(&all[12], &address, sizeof address);
    return all;
}

Address ipv6(NetlinkBytes value)
{
    Address address{};
    std::copy_n(value.begin(), std::min(value.size(), address.size()), address.begin());
    return address;
}

Prefix single(const Address &address)
{
    return {CPD_ADDRESS_BITS, address};
}

/** An address, and those that all hosts of its network listen to: the configured one, and that of
 *  all ones, which a network of two hosts does not have (RFC 3021). */
void addIpv4(Prefixes &own, const Entry &entry)
{
    own.insert(single(mapped(numberIn(entry.local.empty() ? entry.address : entry.local))));
    if (!entry.broadcast.empty())
        own.insert(single(mapped(numberIn(entry.broadcast))));
    if (entry.info.ifa_prefixlen < 31)
        own.insert(single(
            mapped(numberIn(entry.address) | htonl(UINT32_MAX >> entry.info.ifa_prefixlen))));
}

void addAddress(Prefixes &own, const Entry &entry)
{
    if (entry.info.ifa_family == AF_INET)
        addIpv4(own, entry);
    else if (entry.info.ifa_family == AF_INET6)
        own.insert(single(ipv6(entry.local.empty() ? entry.address : entry.local)));
}

/** A route of the local table, as the kernel makes one for each of its addresses, and anybody can
 *  for others: what it delivers to the host. */
void addRoute(Prefixes &own, NetlinkBytes body)
{
    rtmsg route{};
    if (!takeFront(body, route))
        return;
    const bool delivers = route.rtm_type == RTN_LOCAL || route.rtm_type == RTN_BROADCAST ||
                          route.rtm_type == RTN_ANYCAST;
    if (!delivers || route.rtm_table != RT_TABLE_LOCAL)
        return;
    NetlinkBytes to;
    eachAttribute(body, [&](int type, NetlinkBytes value) {
        if (type == RTA_DST)
            to = value;
    });
    if (route.rtm_family == AF_INET)
        own.insert({mappedBits + route.rtm_dst_len, mapped(numberIn(to))});
    else if (route.rtm_family == AF_INET6)
        own.insert({route.rtm_dst_len, ipv6(to)});
}

/** Anycast addresses, as a router has one for each of its networks (RFC 4291, 2.6.1). */
void addAnycast(Prefixes &own)
{
    std::ifstream list("/proc/self/net/anycast6");
    std::string index, port, digits, users;
    while (list >> index >> port >> digits >> users) {
        Address address{};
        if (digits.size() != 2 * address.size())
            continue;
        for (size_t i = 0; i < address.size(); i++)
            std::from_chars(&digits[2 * i], &digits[2 * i + 2], address[i], 16);
        own.insert(single(address));
    }
}

} // namespace

bool Addresses::listAddresses(Prefixes &own)
{
    return netlink_.list(RTM_GETADDR, ifaddrmsg{}, [&](uint16_t type, NetlinkBytes body) {
        Entry entry{};
        if (type == RTM_NEWADDR && takeEntry(body, entry))
            addAddress(own, entry);
    });
}

bool Addresses::listRoutes(int family, Prefixes &own)
{
    rtmsg request{};
    request.rtm_family = static_cast<unsigned char>(family);
    request.rtm_table = RT_TABLE_LOCAL;
    return netlink_.list(RTM_GETROUTE, request, [&](uint16_t type, NetlinkBytes body) {
        if (type == RTM_NEWROUTE)
            addRoute(own, body);
    });
}

void Addresses::refresh()
{
    Prefixes now;
    bool whole = listAddresses(now);
    for (int family : {AF_INET, AF_INET6})
        whole = listRoutes(family, now) && whole;
    addAnycast(now);
    if (!whole) // more is to come, and nothing has gone for sure
        now.insert(told_.begin(), told_.end());
    told_ = std::move(now);
    if (!plane_.setOwn(told_) && !std::exchange(saidTooMany_, true))
        NM_DEBUG_OUTPUT(
            "[platform] warning: of what is the host's own only %u addresses and as many "
            "networks are known\n",
            static_cast<unsigned>(CPD_ADDRESSES));
}

} // namespace zynlinux
