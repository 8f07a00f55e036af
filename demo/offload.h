/**
 * Offloads of a port.
 */
#ifndef DEMO_OFFLOAD_H
#define DEMO_OFFLOAD_H

#include <cstdint>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

/** Switch one on or off. @param what ETHTOOL_S... command that takes a value */
inline void setOffload(const std::string &port, uint32_t what, bool on)
{
    ethtool_value value{what, on};
    ifreq request{};
    port.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_data = reinterpret_cast<char *>(&value);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int result = ioctl(fd, SIOCETHTOOL, &request);
    close(fd);
    if (result != 0)
        throw std::runtime_error("couldn't switch an offload of " + port);
}

#endif
