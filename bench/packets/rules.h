/**
 * The same access rules in the language of each of those who compete.
 */
#ifndef BENCH_PACKETS_RULES_H
#define BENCH_PACKETS_RULES_H

#include <cstdint>
#include <string>
#include <vector>

struct PortRange {
    unsigned first, last;
};

/** A rule on IPv4 packets; what is empty, 0 or false asks for nothing. */
struct AccessRule {
    bool permit = false;
    std::string protocol = {}; /**< "tcp", "udp", "icmp" or a number */
    std::string source = {};   /**< address/length */
    PortRange sourcePorts = {};
    std::string destination = {};
    PortRange ports = {};   /**< of the destination */
    bool opening = false;   /**< TCP with SYN and without ACK */
    bool ping = false;      /**< ICMP echo requests, type 8 */
    bool fragments = false; /**< second and later fragments */
};

/**
 * Rules of eight shapes in turn, no two alike: hosts and prefixes of several lengths, ports and
 * port ranges, protocols, flags, fragments. None selects the frame of the flood, and so whoever
 * walks them walks all.
 */
std::vector<AccessRule> accessRules(unsigned count);

/** As rules of an [[acl]] in the platform file. */
std::string inPlatformFile(const AccessRule &rule);

/** As a statement of nft in a chain of the family netdev. */
std::string inNft(const AccessRule &rule);

/** As a line of iptables-restore, for the chain INPUT. */
std::string inIptables(const AccessRule &rule);

#endif
