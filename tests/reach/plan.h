/**
 * The host under test: the addresses that it has, and those around it.
 */
#ifndef REACH_PLAN_H
#define REACH_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "octets.h"

constexpr char ownPort[] = "port0"; /**< the protected one */
constexpr char farPort[] = "far0";  /**< where the host forwards to */
constexpr char bridge[] = "br0";
constexpr int mtu = 9000;

constexpr Mac ownMac = {0x02, 0, 0, 0, 0, 0x01};
constexpr Mac gatewayMac = {0x02, 0, 0, 0, 0, 0x02};
constexpr Mac everybodyMac = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

/** Ports whose traffic the rules of a policy pick out: docs/acl.md. */
constexpr uint16_t namedTcpPort = 179;  /**< whatever it carries */
constexpr uint16_t guardedTcpPort = 23; /**< what would open a connection */
constexpr uint16_t namedUdpPort = 5000;

/** Ports on which somebody listens. */
constexpr uint16_t tcpListeners[] = {22, namedTcpPort, guardedTcpPort, 21, 80, 646};
constexpr uint16_t udpListeners4[] = {namedUdpPort, 67,  68,   69,   123,  161, 162,
                                      520,          646, 3784, 3785, 4784, 6784};
constexpr uint16_t udpListeners6[] = {namedUdpPort, 547, 546, 123, 161, 521, 646, 3784, 4784};

struct Address {
    const char *what; /**< as reports call it */
    Octets octets;    /**< 4 or 16 */
};

/** Where packets go to, and come from; the most usual first. */
const std::vector<Address> &destinations4();
const std::vector<Address> &sources4();
const std::vector<Address> &destinations6();
const std::vector<Address> &sources6();

/** Commands that make a host with these addresses. @param device that has them */
std::vector<std::string> addressing(const std::string &device);

#endif
