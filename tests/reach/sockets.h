/**
 * Programs that have an IP socket.
 */
#ifndef REACH_SOCKETS_H
#define REACH_SOCKETS_H

#include <cstdint>
#include <string>

#include "base/descriptor.h"

/**
 * Sockets on the wildcard address, that never block and have joined the groups of the plan.
 * @param family AF_INET or AF_INET6
 * @param device through which groups are joined, and from which raw sockets read
 * @throw std::runtime_error
 */
zynlinux::Descriptor openUdp(int family, uint16_t port, const std::string &device);
zynlinux::Descriptor openRaw(int family, int protocol, const std::string &device);
zynlinux::Descriptor listenTo(int family, uint16_t port);

#endif
