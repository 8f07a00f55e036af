/**
 * Lists of the network that the kernel keeps, asked for whole.
 */
#ifndef ZYNLINUX_NETLINK_H
#define ZYNLINUX_NETLINK_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "base/descriptor.h"

namespace zynlinux
{

using NetlinkBytes = std::span<const uint8_t>;

/**
 * Take a structure from the front of bytes, which then are those behind it.
 * @return false when there are too few
 */
template <class Front> bool takeFront(NetlinkBytes &bytes, Front &front)
{
    static_assert(sizeof front % NLMSG_ALIGNTO == 0);
    if (bytes.size() < sizeof front)
        return false;
    std::memcpy(&front, bytes.data(), sizeof front);
    bytes = bytes.subspan(sizeof front);
    return true;
}

/** Hand attributes to visit(type, value); up to the first one that runs past the end. */
template <class Visit> void eachAttribute(NetlinkBytes bytes, Visit visit)
{
    rtattr head{};
    for (NetlinkBytes rest = bytes; takeFront(rest, head); rest = bytes) {
        if (head.rta_len < sizeof head || head.rta_len > bytes.size())
            return;
        visit(head.rta_type & NLA_TYPE_MASK, rest.first(head.rta_len - sizeof head));
        bytes = bytes.subspan(std::min<size_t>(bytes.size(), RTA_ALIGN(head.rta_len)));
    }
}

/** The value of an attribute that is a 32-bit number in host order; 0 for a shorter one. */
inline uint32_t numberIn(NetlinkBytes value)
{
    uint32_t number = 0;
    takeFront(value, number);
    return number;
}

/** The value of an attribute that is text; it stays where it is. */
inline std::string_view textIn(NetlinkBytes value)
{
    std::string_view text(reinterpret_cast<const char *>(value.data()), value.size());
    return text.substr(0, text.find('\0'));
}

class Netlink
{
public:
    /** Gets the type of a message (RTM_NEW*), and its body for the time of the call. */
    using Visit = std::function<void(uint16_t type, NetlinkBytes body)>;

    /** @param what is asked for, as it stands behind "couldn't ask for" */
    explicit Netlink(std::string what) : what_(std::move(what)), buffer_(bufferBytes) {}

    /**
     * Ask for a list.
     * @param type    RTM_GET*
     * @param request what stands behind the message's header: plain data
     * @return whether the list is whole; otherwise something came or went while it was made
     * @throw Failure when it cannot be had now
     */
    template <class Request> bool list(uint16_t type, const Request &request, const Visit &visit)
    {
        struct {
            nlmsghdr header;
            Request request;
        } message{{sizeof message, type, NLM_F_REQUEST | NLM_F_DUMP, ++sequence_, 0}, request};
        return list(NetlinkBytes(reinterpret_cast<const uint8_t *>(&message), sizeof message),
                    visit);
    }

private:
    enum class State { Going, Done };

    bool list(NetlinkBytes message, const Visit &visit);
    void ask(NetlinkBytes message);
    NetlinkBytes receive();
    State takePart(NetlinkBytes part, const Visit &visit, bool &whole) const;

    static constexpr size_t bufferBytes = 32 * 1024; // the kernel sends no longer parts

    std::string what_;
    Descriptor socket_; /**< opened when need be */
    uint32_t sequence_ = 0;
    std::vector<uint8_t> buffer_;
};

} // namespace zynlinux

#endif
