/** Messages about links, as the kernel sends them. */
#ifndef LINK_MESSAGE_H
#define LINK_MESSAGE_H

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <string>

/** @param family AF_UNSPEC of a link itself, @param more bytes of attributes behind */
inline std::string linkMessage(uint16_t type, uint32_t ifUnit, uint8_t family = AF_UNSPEC,
                               size_t more = 0)
{
    struct {
        nlmsghdr header;
        ifinfomsg info;
    } message{};
    message.header.nlmsg_len = static_cast<uint32_t>(sizeof message + more);
    message.header.nlmsg_type = type;
    message.info.ifi_family = family;
    message.info.ifi_index = static_cast<int>(ifUnit);
    std::string bytes(sizeof message, '\0');
    memcpy(bytes.data(), &message, sizeof message);
    const size_t padded = (bytes.size() + more + 3) & ~size_t{3};
    bytes.resize(padded, '\xEE');
    return bytes;
}

inline std::string linkIsThere(uint32_t ifUnit)
{
    return linkMessage(RTM_NEWLINK, ifUnit);
}

inline std::string linkIsGone(uint32_t ifUnit)
{
    return linkMessage(RTM_DELLINK, ifUnit);
}

#endif
