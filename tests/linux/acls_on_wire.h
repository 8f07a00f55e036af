/**
 * Lists of a platform file, bound and tried on the wire.
 */
#ifndef ACLS_ON_WIRE_H
#define ACLS_ON_WIRE_H

#include <arpa/inet.h>
#include <string>
#include <vector>

#include "common/octets.h"
#include "layer_on_wire.h"

constexpr char acls[] = "[[acl]]\nnumber = 100\nfamily = \"ipv4\"\n"
                        "rules = [\"permit udp 192.0.2.0/24 any port 5000\"]\n"
                        "[[acl]]\nnumber = 101\nfamily = \"ipv4\"\n"
                        "rules = [\"deny ip 192.0.2.1 any\", \"permit ip 192.0.2.0/25 any\"]\n";

/** A list that is too much for the tables: each of its hosts has a range of ports. */
inline std::string hugeList(uint16_t number)
{
    std::string text =
        "[[acl]]\nnumber = " + std::to_string(number) + "\nfamily = \"ipv4\"\nrules = [";
    for (int i = 1; i <= 3000; i++)
        text += "\"permit udp 10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256) +
                " any port " + std::to_string(i) + "-" + std::to_string(30000 + 7 * i) + "\",\n";
    return text + "]\n";
}

inline std::vector<uint8_t> udp(const std::string &source, const std::string &destination,
                                uint16_t port)
{
    Frame frame(host);
    frame.ipv4({.protocol = 17, .payloadBytes = 48}).udp(1234, port).zeros(40);
    std::vector<uint8_t> bytes = frame.bytes();
    inet_pton(AF_INET, source.c_str(), &bytes[26]);
    inet_pton(AF_INET, destination.c_str(), &bytes[30]);
    put16(bytes, 24, checksum({bytes.begin() + 14, bytes.begin() + 34}));
    return bytes;
}

inline bool udpArrives(const std::string &source, uint16_t port,
                       const std::string &destination = "198.51.100.1")
{
    return arrives(udp(source, destination, port), peerPort, protectedPort, 0x0800);
}

class AclsOnWire : public LayerOnWire
{
protected:
    static int32_t bind(uint16_t number, uint32_t action = ZYN_HW_OP_DENY, uint32_t cir = 0,
                        uint32_t cbs = 0, const tSlotIndex *slot = nullptr)
    {
        return acl_cpudefend_add(slot, number, action, cir, cbs, cbs);
    }

    /** The same, however long it takes to compile the list. */
    static int32_t bindAtLast(uint16_t number)
    {
        int32_t result = EAGAIN;
        within(std::chrono::seconds(20), [&] { return (result = bind(number)) != EAGAIN; });
        return result;
    }

    /** Have the platform file read anew. @return what is said of it */
    static std::string reload()
    {
        Heard heard;
        reload(heard);
        return heard.text();
    }

    /** The same; @a heard hears what is said of it. */
    static void reload(Heard &heard)
    {
        raise(SIGHUP);
        EXPECT_TRUE(runUntil([&] { return heard.has("ACLs"); }));
    }
};

#endif
