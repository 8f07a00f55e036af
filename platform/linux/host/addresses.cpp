#include "host/addresses.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <string>
#include <utility>

#include <linux/fib_rules.h>

#include "zynosal.h"

namespace zynlinux
{

namespace
{

constexpr int families[] = {AF_INET, AF_INET6};
constexpr uint8_t delivering[] = {RTN_LOCAL, RTN_BROADCAST, RTN_ANYCAST}; // to the host

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

struct Route {
    rtmsg info;
    uint32_t table;
    NetlinkBytes to;
};

bool takeRoute(NetlinkBytes body, Route &route)
{
    if (!takeFront(body, route.info))
        return false;
    route.table = route.info.rtm_table;
    eachAttribute(body, [&](int type, NetlinkBytes value) {
        if (type == RTA_DST)
            route.to = value;
        else if (type == RTA_TABLE)
            route.table = numberIn(value);
    });
    return true;
}

rtmsg request(int family, uint8_t table, uint8_t type = RTN_UNSPEC)
{
    rtmsg routes{};
    routes.rtm_family = static_cast<uint8_t>(family);
    routes.rtm_table = table;
    routes.rtm_type = type;
    return routes;
}

/** What a route delivers to the host, if it does. */
void addRoute(Prefixes &own, const Route &route)
{
    const auto &types = delivering;
    if (std::find(std::begin(types), std::end(types), route.info.rtm_type) == std::end(types))
        return;
    if (route.info.rtm_family == AF_INET)
        own.insert({mappedBits + route.info.rtm_dst_len, mapped(numberIn(route.to))});
    else if (route.info.rtm_family == AF_INET6)
        own.insert({route.info.rtm_dst_len, ipv6(route.to)});
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

/** @param counts says whether a table does */
bool Addresses::listRoutes(const rtmsg &request, const Counts &counts, Prefixes &own)
{
    return netlink_.list(RTM_GETROUTE, request, [&](uint16_t type, NetlinkBytes body) {
        Route route{};
        if (type == RTM_NEWROUTE && takeRoute(body, route) && counts(route.table))
            addRoute(own, route);
    });
}

/** The kernel makes a route there for each of its addresses, and anybody can for others. */
bool Addresses::listLocal(int family, Prefixes &own)
{
    const Counts isLocal = [](uint32_t table) { return table == RT_TABLE_LOCAL; };
    return listRoutes(request(family, RT_TABLE_LOCAL), isLocal, own);
}

bool Addresses::listRules(int family, LookedUp &tables)
{
    fib_rule_hdr all{};
    all.family = static_cast<uint8_t>(family);
    return netlink_.list(RTM_GETRULE, all, [&](uint16_t type, NetlinkBytes body) {
        if (type == RTM_NEWRULE)
            tables.add(body);
    });
}

/** Tables may have a million routes, most of another type: these the kernel leaves out. */
bool Addresses::listTables(int family, Prefixes &own)
{
    LookedUp tables;
    bool whole = listRules(family, tables);
    const Counts counts = [&](uint32_t table) {
        return table != RT_TABLE_LOCAL && tables.contains(table);
    };
    for (uint8_t type : delivering)
        whole = listRoutes(request(family, RT_TABLE_UNSPEC, type), counts, own) && whole;
    return whole;
}

void Addresses::refreshHost()
{
    Prefixes now;
    bool whole = listAddresses(now);
    for (int family : families)
        whole = listLocal(family, now) && whole;
    addAnycast(now);
    keep(host_, std::move(now), whole);
    hostDue_ = !whole;
}

void Addresses::refreshTables()
{
    Prefixes now;
    bool whole = true;
    for (int family : families)
        whole = listTables(family, now) && whole;
    keep(tables_, std::move(now), whole);
    tablesDue_ = !whole;
}

/** What is not listed has gone, unless the list is not whole: then more is to come. */
void Addresses::keep(Prefixes &known, Prefixes now, bool whole)
{
    if (!whole)
        now.insert(known.begin(), known.end());
    known = std::move(now);
    Prefixes own = host_;
    own.insert(tables_.begin(), tables_.end());
    if (!plane_.setOwn(own) && !std::exchange(saidTooMany_, true))
        NM_DEBUG_OUTPUT(
            "[platform] warning: of what is the host's own only %u addresses and as many "
            "networks are known\n",
            static_cast<unsigned>(CPD_ADDRESSES));
}

bool Addresses::hear(bool host, bool tables)
{
    hostDue_ = hostDue_ || host;
    tablesDue_ = tablesDue_ || tables;
    return hostDue_ || tablesDue_;
}

void Addresses::refresh()
{
    if (hostDue_)
        refreshHost();
    if (tablesDue_)
        refreshTables();
}

} // namespace zynlinux
