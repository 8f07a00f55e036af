#include "addresses.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <utility>
#include <vector>

#include "failure.h"

namespace zynlinux
{

namespace
{

Address mapped(in_addr_t address)
{
    Address all{};
    all[10] = all[11] = 0xff;
    std::memcpy(&all[12], &address, sizeof address);
    return all;
}

in_addr_t ipv4(const sockaddr *address)
{
    return reinterpret_cast<const sockaddr_in *>(address)->sin_addr.s_addr;
}

/** An address, and those that all hosts of its network listen to: the configured one, and that of
 *  all ones, which a network of two hosts does not have (RFC 3021). */
void addIpv4(std::vector<Address> &addresses, const ifaddrs &entry)
{
    in_addr_t address = ipv4(entry.ifa_addr);
    addresses.push_back(mapped(address));
    if (!(entry.ifa_flags & IFF_BROADCAST) || !entry.ifa_netmask)
        return;
    if (entry.ifa_broadaddr)
        addresses.push_back(mapped(ipv4(entry.ifa_broadaddr)));
    in_addr_t hosts = ~ipv4(entry.ifa_netmask);
    if (ntohl(hosts) > 1)
        addresses.push_back(mapped(address | hosts));
}

Address ipv6(const sockaddr *address)
{
    Address all;
    std::memcpy(all.data(), &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr,
                all.size());
    return all;
}

/** Anycast addresses, as a router has one for each of its networks (RFC 4291, 2.6.1). */
void addAnycast(std::vector<Address> &addresses)
{
    std::ifstream list("/proc/self/net/anycast6");
    std::string index, port, digits, users;
    while (list >> index >> port >> digits >> users) {
        Address address{};
        if (digits.size() != 2 * address.size())
            continue;
        for (size_t i = 0; i < address.size(); i++)
            std::from_chars(&digits[2 * i], &digits[2 * i + 2], address[i], 16);
        addresses.push_back(address);
    }
}

/** The host's own addresses, and the broadcast addresses of its networks. @throw Failure */
std::vector<Address> hostAddresses()
{
    std::vector<Address> addresses;
    ifaddrs *first = nullptr;
    if (getifaddrs(&first) != 0)
        throw Failure("ask for the host's addresses", errno);
    std::unique_ptr<ifaddrs, void (*)(ifaddrs *)> owner(first, freeifaddrs);
    for (const ifaddrs *each = first; each; each = each->ifa_next) {
        if (!each->ifa_addr)
            continue;
        if (each->ifa_addr->sa_family == AF_INET)
            addIpv4(addresses, *each);
        else if (each->ifa_addr->sa_family == AF_INET6)
            addresses.push_back(ipv6(each->ifa_addr));
    }
    addAnycast(addresses);
    return addresses;
}

} // namespace

void Addresses::refresh()
{
    if (!plane_.setAddresses(hostAddresses()) && !std::exchange(saidTooMany_, true))
        std::fprintf(stderr,
                     "[platform] warning: of the host's addresses only %u are known as its own\n",
                     static_cast<unsigned>(CPD_ADDRESSES));
}

} // namespace zynlinux
