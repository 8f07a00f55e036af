/* SPDX-License-Identifier: MIT OR GPL-2.0-only */
/**
 * Protocol packet types: what a CAR entry limits, and a traced source sent.
 *
 * The one list of them, in plain C and without another header, for the daemon, its front ends, the
 * hardware layers and the packet program. The numbers travel on the management channel, so a new
 * type goes to the end. docs/packet-types.md tells what each one stands for on Linux.
 */
#ifndef ZYNPKTTYPE_H
#define ZYNPKTTYPE_H

/**
 * X(number, name, what the operator calls it, whether frames of it exist) for each type in the
 * order of their numbers. Of the types without frames no format is published, or another type has
 * the frames; TOTALPKT stands for all types together.
 */
#define ZYN_PKT_TYPES(X)                                                                           \
    X(0, DOT1X, "dot1x", 1)                                                                        \
    X(1, ARP, "arp", 1)                                                                            \
    X(2, IGMPSNOOP, "igmpsnoop", 1)                                                                \
    X(3, STPCUSTOMER, "stpcustomer", 1)                                                            \
    X(4, GVRP, "gvrp", 1)                                                                          \
    X(5, UDLD, "udld", 1)                                                                          \
    X(6, VTP, "vtp", 1)                                                                            \
    X(7, IGMP, "igmp", 1)                                                                          \
    X(8, ALB, "alb", 1)                                                                            \
    X(9, DHCPSNOOPIP, "dhcpsnoopip", 1)                                                            \
    X(10, Y1731, "y1731", 1)                                                                       \
    X(11, TELNET, "telnet", 1)                                                                     \
    X(12, TCP, "tcp", 1)                                                                           \
    X(13, FTP, "ftp", 1)                                                                           \
    X(14, ICMP, "icmp", 1)                                                                         \
    X(15, ICMPV6, "icmpv6", 1)                                                                     \
    X(16, SNMP, "snmp", 1)                                                                         \
    X(17, NTP, "ntp", 1)                                                                           \
    X(18, BPDUTUNNEL, "bpdutunnel", 1)                                                             \
    X(19, OSPF, "ospf", 1)                                                                         \
    X(20, OSPF6, "ospf6", 1)                                                                       \
    X(21, DHCPCLIENT, "dhcpclient", 1)                                                             \
    X(22, DHCPSERVER, "dhcpserver", 1)                                                             \
    X(23, DHCP6REPLY, "dhcp6reply", 1)                                                             \
    X(24, OAM, "oam", 1)                                                                           \
    X(25, DHCP6REQUEST, "dhcp6request", 1)                                                         \
    X(26, RIP, "rip", 1)                                                                           \
    X(27, RIP6, "rip6", 1)                                                                         \
    X(28, LDP, "ldp", 1)                                                                           \
    X(29, MPLS, "mpls", 1)                                                                         \
    X(30, BFD, "bfd", 1)                                                                           \
    X(31, BFD6, "bfd6", 1)                                                                         \
    X(32, BGP, "bgp", 1)                                                                           \
    X(33, SNTP, "sntp", 0)                                                                         \
    X(34, SNTP6, "sntp6", 1)                                                                       \
    X(35, PIM, "pim", 1)                                                                           \
    X(36, PIM6, "pim6", 1)                                                                         \
    X(37, VRRP, "vrrp", 1)                                                                         \
    X(38, VRRP6, "vrrp6", 1)                                                                       \
    X(39, ERP, "erp", 1)                                                                           \
    X(40, DLIP, "dlip", 0)                                                                         \
    X(41, STPPROVIDER, "stpprovider", 1)                                                           \
    X(42, ESR, "esr", 0)                                                                           \
    X(43, EAPS, "eaps", 1)                                                                         \
    X(44, ISIS, "isis", 1)                                                                         \
    X(45, BFDETHER, "bfdether", 1)                                                                 \
    X(46, LOOPBACK, "loopback", 1)                                                                 \
    X(47, EFM, "efm", 1)                                                                           \
    X(48, RLINK, "rlink", 0)                                                                       \
    X(49, RTRUNK, "rtrunk", 0)                                                                     \
    X(50, LLDP, "lldp", 1)                                                                         \
    X(51, SGM, "sgm", 0)                                                                           \
    X(52, PPPOE, "pppoe", 1)                                                                       \
    X(53, FLUSH, "flush", 0)                                                                       \
    X(54, ISS, "iss", 0)                                                                           \
    X(55, ISSSYNC, "isssync", 0)                                                                   \
    X(56, DHCPSNOOPIP6, "dhcpsnoopip6", 1)                                                         \
    X(57, DHCPSNOOPARP, "dhcpsnooparp", 0)                                                         \
    X(58, TOTALPKT, "totalpkt", 0)

/** ZYN_PKT_DOT1X and so on. */
enum {
#define ZYN_PKT_ENUMERATOR(number, name, word, frames) ZYN_PKT_##name,
    ZYN_PKT_TYPES(ZYN_PKT_ENUMERATOR)
#undef ZYN_PKT_ENUMERATOR
};

/** How many there are. */
#define ZYN_PKT_ONE(number, name, word, frames) +1
enum { ZYN_PKT_MAX = ZYN_PKT_TYPES(ZYN_PKT_ONE) };
#undef ZYN_PKT_ONE

#ifdef __cplusplus
#define ZYN_PKT_CONSTANT constexpr
#define ZYN_PKT_CHECK static_assert
#else
#define ZYN_PKT_CONSTANT
#define ZYN_PKT_CHECK _Static_assert
#endif

#define ZYN_PKT_CHECK_NUMBER(number, name, word, frames)                                           \
    ZYN_PKT_CHECK(ZYN_PKT_##name == (number), "packet type " word " stands in another place");
ZYN_PKT_TYPES(ZYN_PKT_CHECK_NUMBER)
#undef ZYN_PKT_CHECK_NUMBER
#undef ZYN_PKT_CHECK

/** Whether frames of a type exist; of a number that is no type there are none. */
static inline ZYN_PKT_CONSTANT int zynPktHasFrames(unsigned int pktType)
{
    switch (pktType) {
#define ZYN_PKT_CASE(number, name, word, frames)                                                   \
    case number: return frames;
        ZYN_PKT_TYPES(ZYN_PKT_CASE)
#undef ZYN_PKT_CASE
    default: return 0;
    }
}
#undef ZYN_PKT_CONSTANT

#endif
