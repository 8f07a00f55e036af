#include "ports.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <optional>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/if_link.h>

#include "failure.h"
#include "target.h"

namespace zynlinux
{

namespace
{

constexpr char linkPrefix[] = "link-";
constexpr char tcPrefix[] = "tc-";
constexpr auto tcxIngress = static_cast<bpf_attach_type>(46); // BPF_TCX_INGRESS, from Linux 6.6 on

std::string pinName(const char *prefix, uint32_t ifindex)
{
    return prefix + std::to_string(ifindex);
}

void say(const std::string &line)
{
    std::fprintf(stderr, "[platform] %s\n", line.c_str());
}

std::string attachReason(int error)
{
    if (error == EBUSY || error == EEXIST)
        return "another XDP program is on it";
    if (error == EOPNOTSUPP)
        return "its driver does not have it";
    return std::strerror(error);
}

/** Attach a program to a port in one mode. @return an invalid descriptor with errno set */
Descriptor link(uint32_t ifindex, Mode mode, int program)
{
    LIBBPF_OPTS(bpf_link_create_opts, options);
    options.flags = mode == Mode::Native ? XDP_FLAGS_DRV_MODE : XDP_FLAGS_SKB_MODE;
    return Descriptor(bpf_link_create(program, static_cast<int>(ifindex), BPF_XDP, &options));
}

/** The interface that a link is on; 0 once that has gone. */
uint32_t interfaceOf(const Descriptor &link)
{
    bpf_link_info info{};
    uint32_t size = sizeof info;
    if (bpf_obj_get_info_by_fd(link.get(), &info, &size) != 0)
        return 0;
    return info.type == BPF_LINK_TYPE_XDP ? info.xdp.ifindex : 0;
}

/** The program on a port, by the kernel's number; 0 for none. Nothing when that cannot be told now.
 */
std::optional<uint32_t> programOn(uint32_t ifindex)
{
    uint32_t id = 0;
    int error = bpf_xdp_query_id(static_cast<int>(ifindex), 0, &id);
    if (error != 0 && error != -ENODEV)
        return {};
    return id;
}

/** In which mode the program on a port runs. */
Mode modeOf(uint32_t ifindex)
{
    LIBBPF_OPTS(bpf_xdp_query_opts, options);
    bool native = bpf_xdp_query(static_cast<int>(ifindex), 0, &options) == 0 &&
                  options.attach_mode == XDP_ATTACHED_DRV;
    return native ? Mode::Native : Mode::Generic;
}

/** The interface with this name; 0 when there is none. Nothing when that cannot be told now. */
std::optional<uint32_t> indexOf(const std::string &name)
{
    uint32_t ifindex = if_nametoindex(name.c_str());
    return ifindex != 0 || errno == ENODEV ? std::optional(ifindex) : std::nullopt;
}

void sayProtected(const PortConfig &port, Mode mode, const std::string &more)
{
    say("port " + port.name + " is protected in " + modeName(mode) + " mode" + more);
}

} // namespace

Ports::Ports(const Config &config, DataPlane &plane, const PinFolder &pins)
    : config_(config), plane_(plane), pins_(pins)
{
}

bool Ports::isProtected(uint32_t ifindex) const
{
    return std::any_of(ports_.begin(), ports_.end(),
                       [&](const Port &each) { return each.ifindex == ifindex; });
}

/** Whether the program of a former daemon is on a port. */
bool Ports::isLeft(uint32_t ifindex) const
{
    return pins_.open(pinName(linkPrefix, ifindex)).get() >= 0;
}

/** What is pinned need not be held open: there may be more ports than descriptors. */
Descriptor Ports::unlessPinned(Descriptor made) const
{
    return pins_.pins() ? Descriptor() : std::move(made);
}

/**
 * Have the new program do what the one of a former daemon does on a port. A link that is on this
 * port no more, or in another mode than the configured one, is given up.
 */
Descriptor Ports::takeOver(uint32_t ifindex) const
{
    Descriptor left = pins_.open(pinName(linkPrefix, ifindex));
    if (left.get() < 0)
        return Descriptor();
    bool updated = interfaceOf(left) == ifindex &&
                   (config_.mode == Mode::Auto || config_.mode == modeOf(ifindex)) &&
                   bpf_link_update(left.get(), plane_.program(), nullptr) == 0;
    if (updated && programOn(ifindex).value_or(plane_.programId()) == plane_.programId())
        return left;
    setFree(ifindex);
    return Descriptor();
}

Descriptor Ports::attach(const PortConfig &port, uint32_t ifindex) const
{
    Mode mode = config_.mode == Mode::Auto ? Mode::Native : config_.mode;
    std::string why;
    Descriptor made = link(ifindex, mode, plane_.program());
    if (made.get() < 0 && config_.mode == Mode::Auto && errno != EBUSY && errno != EEXIST) {
        why = " (native: " + attachReason(errno) + ")";
        mode = Mode::Generic;
        made = link(ifindex, mode, plane_.program());
    }
    if (made.get() < 0)
        throw Failure("protect port " + port.name + " in " + modeName(mode) + " mode",
                      attachReason(errno));
    pins_.pin(made.get(), pinName(linkPrefix, ifindex));
    sayProtected(port, mode, why);
    return made;
}

void Ports::protect(const PortConfig &port, uint32_t ifindex)
{
    Descriptor made = takeOver(ifindex);
    plane_.placePort(ifindex, targetOf(plane_.info(), port.sys, port.slot), false);
    if (made.get() >= 0)
        sayProtected(port, modeOf(ifindex), plane_.takenOver() ? ", as it was left" : "");
    else
        made = attach(port, ifindex);
    ports_.push_back({&port, ifindex, unlessPinned(std::move(made)), Descriptor(), false});
    lastPlaces_[ifindex] = &port;
    failures_.erase(&port);
    if (carriesPriority_ || pins_.open(pinName(tcPrefix, ifindex)).get() >= 0)
        attachTc(ports_.back());
}

void Ports::tryToProtect(const PortConfig &port, uint32_t ifindex)
try {
    protect(port, ifindex);
} catch (const Failure &failure) {
    setFree(ifindex);
    if (std::exchange(failures_[&port], failure.what()) != failure.what())
        std::fprintf(stderr, "%s\n", failure.what());
}

void Ports::attachTc(Port &port)
{
    if (port.marks)
        return;
    std::string name = pinName(tcPrefix, port.ifindex);
    Descriptor made = pins_.open(name);
    if (made.get() < 0 || bpf_link_update(made.get(), plane_.tcProgram(), nullptr) != 0) {
        made = Descriptor(bpf_link_create(plane_.tcProgram(), static_cast<int>(port.ifindex),
                                          tcxIngress, nullptr));
        if (made.get() >= 0)
            pins_.pin(made.get(), name);
    }
    port.marks = made.get() >= 0;
    port.tc = unlessPinned(std::move(made));
    if (!port.marks && !std::exchange(saidNoTc_, true))
        say("queues and priorities are not carried (" + std::string(std::strerror(errno)) +
            "): that takes Linux 6.6");
}

void Ports::carryPriority()
{
    if (carriesPriority_)
        return;
    for (Port &each : ports_)
        attachTc(each);
    carriesPriority_ = true;
}

/** Take the programs off a port at once, and not when the kernel finds that nobody refers to them.
 */
void Ports::setFree(uint32_t ifindex) const
{
    for (const char *prefix : {linkPrefix, tcPrefix}) {
        std::string name = pinName(prefix, ifindex);
        if (Descriptor link = pins_.open(name); link.get() >= 0)
            bpf_link_detach(link.get());
        pins_.unpin(name);
    }
    plane_.forgetPort(ifindex);
}

void Ports::stop()
{
    for (const Port &each : ports_)
        setFree(each.ifindex);
    ports_.clear();
}

/** Interfaces that have gone, bear the name of no configured port any more, or were made anew. */
void Ports::dropGone()
{
    auto gone = [&](const Port &port) {
        std::optional<uint32_t> index = indexOf(port.config->name);
        std::optional<uint32_t> program = programOn(port.ifindex);
        if (!index || !program || (*index == port.ifindex && *program == plane_.programId()))
            return false;
        say("port " + port.config->name + " has gone");
        setFree(port.ifindex);
        return true;
    };
    std::erase_if(ports_, gone);
}

/** Links that a former daemon left on ports which are not configured now. */
void Ports::dropStrangers() const
{
    for (const char *prefix : {linkPrefix, tcPrefix})
        for (const std::string &name : pins_.names(prefix)) {
            uint32_t ifindex = 0;
            const char *number = name.c_str() + std::strlen(prefix);
            std::from_chars(number, name.c_str() + name.size(), ifindex);
            bool ours = std::any_of(ports_.begin(), ports_.end(),
                                    [&](const Port &each) { return each.ifindex == ifindex; });
            if (!ours)
                setFree(ifindex);
        }
}

void Ports::start()
{
    std::vector<std::pair<const PortConfig *, uint32_t>> left;
    try {
        for (const PortConfig &port : config_.ports) {
            uint32_t ifindex = indexOf(port.name).value_or(0);
            if (ifindex == 0)
                say("port " + port.name + " is not there yet");
            else if (isLeft(ifindex))
                left.emplace_back(&port, ifindex);
            else
                protect(port, ifindex);
        }
    } catch (...) {
        stop();
        throw;
    }
    for (const auto &[port, ifindex] : left)
        tryToProtect(*port, ifindex);
    dropStrangers();
}

void Ports::refresh()
{
    dropGone();
    for (const PortConfig &port : config_.ports) {
        uint32_t ifindex = indexOf(port.name).value_or(0);
        if (ifindex != 0 && !isProtected(ifindex))
            tryToProtect(port, ifindex);
    }
}

const PortConfig *Ports::find(uint32_t ifindex) const
{
    for (const Port &each : ports_)
        if (each.ifindex == ifindex)
            return each.config;
    char name[IF_NAMESIZE];
    if (if_indextoname(ifindex, name)) {
        auto port = std::find_if(config_.ports.begin(), config_.ports.end(),
                                 [&](const PortConfig &each) { return each.name == name; });
        return port == config_.ports.end() ? nullptr : &*port;
    }
    auto last = lastPlaces_.find(ifindex);
    return last == lastPlaces_.end() ? nullptr : last->second;
}

} // namespace zynlinux
