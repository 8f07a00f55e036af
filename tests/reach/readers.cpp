#include "readers.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>

#include <linux/filter.h>
#include <linux/if_packet.h>

#include "verdicts.h"

namespace
{

constexpr uint16_t every = 0x0003, llc = 0x0004; // as the kernel numbers them
constexpr uint32_t whole = 0x40000, bpduLlc = 0x424203, snapLlc = 0xaaaa03;

constexpr Match lengthField = {12, 2, 1536, UINT32_MAX, true};

constexpr uint16_t loadOf(unsigned size)
{
    return static_cast<uint16_t>(BPF_LD | BPF_ABS |
                                 (size == 1   ? BPF_B
                                  : size == 2 ? BPF_H
                                              : BPF_W));
}

using Code = std::vector<sock_filter>;

/** Go on when it is the value, else end at the last instruction. */
sock_filter unlessEqual(uint32_t value, size_t instructionsLeft)
{
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, 0, static_cast<uint8_t>(instructionsLeft));
}

sock_filter unlessLess(uint32_t value, size_t instructionsLeft)
{
    return BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, value, static_cast<uint8_t>(instructionsLeft), 0);
}

void add(Code *code, const sock_filter &instruction)
{
    code->push_back(instruction);
}

Code codeOf(const std::vector<Match> &matches)
{
    Code code;
    for (size_t i = 0; i < matches.size(); i++) {
        const Match &match = matches[i];
        add(&code, BPF_STMT(loadOf(match.size), match.offset));
        add(&code, BPF_STMT(BPF_ALU | BPF_AND | BPF_K, match.mask));
        const size_t left = 3 * (matches.size() - i) - 2;
        add(&code, match.isBound ? unlessLess(match.value, left) : unlessEqual(match.value, left));
    }
    add(&code, BPF_STMT(BPF_RET | BPF_K, whole));
    add(&code, BPF_STMT(BPF_RET | BPF_K, 0));
    return code;
}

std::runtime_error failure(const std::string &what)
{
    return std::runtime_error("couldn't " + what + ": " + std::strerror(errno));
}

/** The filter comes first: nothing is read that it does not let through. */
zynlinux::Descriptor openWith(const std::string &device, uint16_t protocol, Code code)
{
    zynlinux::Descriptor fd(socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sock_fprog program{static_cast<uint16_t>(code.size()), code.data()};
    if (setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        throw failure("filter what is read");
    const int on = 1, room = 64 << 20;
    setsockopt(fd.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(protocol);
    address.sll_ifindex = device.empty() ? 0 : static_cast<int>(if_nametoindex(device.c_str()));
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw failure("read frames");
    return fd;
}

} // namespace

zynlinux::Descriptor openReader(const std::string &device, uint16_t protocol,
                                const std::vector<Match> &matches)
{
    return openWith(device, protocol, codeOf(matches));
}

zynlinux::Descriptor openDhcpReader(const std::string &device, uint16_t port)
{
    return openWith(device, every,
                    {
                        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
                        unlessEqual(0x0800, 8),
                        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23),
                        unlessEqual(IPPROTO_UDP, 6),
                        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 20),
                        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x1fff, 4, 0),
                        BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 14),
                        BPF_STMT(BPF_LD | BPF_H | BPF_IND, 16),
                        unlessEqual(port, 1),
                        BPF_STMT(BPF_RET | BPF_K, whole),
                        BPF_STMT(BPF_RET | BPF_K, 0),
                    });
}

zynlinux::Descriptor openLearningReader(const std::string &device, uint16_t ethertype)
{
    return openWith(device, every,
                    {
                        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),
                        unlessEqual(ethertype, 9),
                        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),
                        BPF_STMT(BPF_MISC | BPF_TAX, 0),
                        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 6),
                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_X, 0, 0, 5),
                        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 4),
                        BPF_STMT(BPF_MISC | BPF_TAX, 0),
                        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 10),
                        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_X, 0, 0, 1),
                        BPF_STMT(BPF_RET | BPF_K, whole),
                        BPF_STMT(BPF_RET | BPF_K, 0),
                    });
}

const std::vector<Reader> &readers()
{
    static const std::vector<Reader> all = {
        {"ARP: reader", never, false, 0x0806, {}},
        {"802.1X: authenticator", never, false, 0x888e, {}},
        {"STP: daemon",
         never,
         true,
         llc,
         {{0, 4, 0x0180c200}, {4, 2, 0}, {14, 2, 0x4242}, {16, 1, 3}}},
        {"GVRP: daemon",
         never,
         false,
         llc,
         {{0, 4, 0x0180c200}, {4, 2, 0x21}, {14, 4, bpduLlc << 8, 0xffffff00}}},
        {"UDLD: daemon",
         never,
         false,
         llc,
         {{0, 4, 0x01000ccc}, {4, 2, 0xcccc}, {14, 4, snapLlc << 8}, {18, 4, 0x000c0111}}},
        {"VTP: daemon",
         never,
         false,
         llc,
         {{0, 4, 0x01000ccc}, {4, 2, 0xcccc}, {14, 4, snapLlc << 8}, {18, 4, 0x000c2003}}},
        {"STP: daemon of a provider",
         counted,
         true,
         llc,
         {{0, 4, 0x0180c200}, {4, 2, 8}, {14, 4, bpduLlc << 8, 0xffffff00}}},
        {"LLDP: daemon", counted, true, every, {{12, 2, 0x88cc}}},
        {"CDP: daemon",
         unpromised,
         true,
         every,
         {{0, 4, 0x01000ccc}, {4, 2, 0xcccc}, {14, 4, snapLlc << 8}, {18, 4, 0x000c2000}}},
        {"EDP: daemon", unpromised, true, every, {{0, 4, 0x00e02b00}, {4, 2, 0}}},
        {"FDP: daemon", unpromised, true, every, {{0, 4, 0x01e052cc}, {4, 2, 0xcccc}}},
        {"SONMP: daemon", unpromised, true, every, {{0, 4, 0x01008100}, {4, 2, 0x0100}}},
        {"EAPS: daemon",
         counted,
         true,
         every,
         {{0, 4, 0x00e02b00}, {4, 2, 4}, lengthField, {14, 4, snapLlc << 8}, {18, 4, 0xe02b00bb}}},
        {"IS-IS: daemon", counted, false, llc, {{14, 4, 0xfefe0383}}},
        {"BPDU tunnel: daemon", counted, true, every, {{0, 4, 0x01000ccd}, {4, 2, 0xcdd0}}},
        {"link OAM: daemon", counted, true, 0x8809, {{14, 1, 3}}},
        {"LACP: daemon", unpromised, true, 0x8809, {{14, 1, 1}}},
        {"PPPoE: discovery", counted, false, 0x8863, {}},
        {"PPPoE: sessions", unpromised, false, 0x8864, {}},
        {"loopback test: responder", counted, false, 0x9000, {}},
        {"CFM: daemon", counted, false, 0x8902, {}},
        {"MPLS: forwarder", counted, false, 0x8847, {}},
    };
    return all;
}
