#include "host/ports.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/ethtool.h>
#include <linux/if_link.h>
#include <linux/sockios.h>

#include "base/failure.h"
#include "kernel/target.h"
#include "zynosal.h"

namespace zynlinux
{

namespace
{

constexpr char linkPrefix[] = "link-";
constexpr char tcPrefix[] = "tc-";
constexpr size_t linksPerPort = 2;
constexpr int looksAtStart = 5;                               // when links come and go meanwhile
constexpr std::chrono::milliseconds refreshTime{20};          // others wait meanwhile
constexpr auto tcxIngress = static_cast<bpf_attach_type>(46); // BPF_TCX_INGRESS, from Linux 6.6 on

std::string pinName(const char *prefix, uint32_t ifindex)
{
    return prefix + std::to_string(ifindex);
}

void say(const std::string &line)
{
    NM_DEBUG_OUTPUT("[platform] %s\n", line.c_str());
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

/** Whether a port is a tap device, or cannot be told from one: these take frames of several packets
 *  even in native mode. */
bool isTap(uint32_t ifindex)
{
    ethtool_drvinfo driver{};
    driver.cmd = ETHTOOL_GDRVINFO;
    ifreq request{};
    request.ifr_data = reinterpret_cast<char *>(&driver);
    const Descriptor any(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)); // the unit allows no other
    const bool known =
        if_indextoname(ifindex, request.ifr_name) && ioctl(any.get(), SIOCETHTOOL, &request) == 0;
    return known ? std::strcmp(driver.driver, "tun") == 0 : errno != EOPNOTSUPP;
}

/** Let the process have so many descriptors beside those that select can wait for, if it may. */
void makeRoom(size_t descriptors)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    const rlim_t wanted = std::min<rlim_t>(FD_SETSIZE + descriptors, limit.rlim_max);
    limit.rlim_cur = std::max(limit.rlim_cur, wanted);
    setrlimit(RLIMIT_NOFILE, &limit);
}

void sayProtected(const PortConfig &port, Mode mode, const std::string &more)
{
    say("port " + port.name + " is protected in " + modeName(mode) + " mode" + more);
}

} // namespace

Ports::Ports(const Config &config, DataPlane &plane, const PinFolder &pins)
    : config_(config), plane_(plane), pins_(pins)
{
    for (const PortConfig &port : config.ports) {
        byName_[port.name] = ports_.size();
        ports_.emplace_back().config = &port;
    }
    makeRoom(linksPerPort * ports_.size());
}

/** Whether the program of a former daemon is on a port. */
bool Ports::isLeft(uint32_t ifindex) const
{
    return pins_.open(pinName(linkPrefix, ifindex)).get() >= 0;
}

/**
 * Hold a link where it is not in the way of what select waits for. Where there may not be so many
 * descriptors, what is pinned is not held.
 */
Descriptor Ports::aside(Descriptor made) const
{
    Descriptor high(fcntl(made.get(), F_DUPFD_CLOEXEC, FD_SETSIZE));
    if (high.get() >= 0)
        return high;
    return pins_.pins() ? Descriptor() : std::move(made);
}

/** Pin a new link and hold it. One that is held protects without its pin, too, until that is made
 *  good. */
Descriptor Ports::keep(Descriptor made, const std::string &name) const
{
    std::optional<Failure> trouble;
    try {
        pins_.pin(made.get(), name);
    } catch (const Failure &failure) {
        trouble = failure;
    }
    Descriptor held = aside(std::move(made));
    if (trouble && (!started_ || held.get() < 0))
        throw *trouble;
    return held;
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

Ports::Attached Ports::attach(const PortConfig &port, uint32_t ifindex) const
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
    sayProtected(port, mode, why);
    return {std::move(made), mode};
}

/** An interface stays at its port's place when it goes, until the port is another one. */
void Ports::remember(const Port &port)
{
    std::erase_if(lastPlaces_, [&](const auto &each) { return each.second == &port; });
    lastPlaces_[port.ifindex] = &port;
}

/** The program of a former daemon, or else the new one. @return in which mode it runs */
Mode Ports::holdLink(Port &port, uint32_t ifindex, Descriptor left) const
{
    if (left.get() >= 0) {
        const Mode mode = modeOf(ifindex);
        sayProtected(*port.config, mode, plane_.takenOver() ? ", as it was left" : "");
        port.link = aside(std::move(left));
        return mode;
    }
    Attached made = attach(*port.config, ifindex);
    port.link = keep(std::move(made.link), pinName(linkPrefix, ifindex));
    return made.mode;
}

/** What comes by a port is under its place from the first frame on. */
void Ports::protect(Port &port, uint32_t ifindex)
{
    const uint32_t target = targetOf(plane_.info(), port.config->sys, port.config->slot);
    Descriptor left = takeOver(ifindex);
    plane_.placePort(ifindex, target, true);
    const bool joins = holdLink(port, ifindex, std::move(left)) == Mode::Generic || isTap(ifindex);
    if (!joins)
        plane_.placePort(ifindex, target, false);
    port.ifindex = ifindex;
    port.trouble.clear();
    remember(port);
    if (joins || carriesPriority_ || pins_.open(pinName(tcPrefix, ifindex)).get() >= 0)
        attachTc(port);
}

/** Say what is wrong with a port, but not again and again. */
void Ports::complain(Port &port, const std::string &trouble)
{
    if (std::exchange(port.trouble, trouble) != trouble)
        NM_DEBUG_OUTPUT("%s\n", trouble.c_str());
}

/** @return whether it is protected now */
bool Ports::tryToProtect(Port &port, const Sighting &seen)
try {
    if (seen.namesake)
        throw sameAs(port, seen);
    protect(port, seen.ifindex);
    return true;
} catch (const Failure &failure) {
    if (port.ifindex != 0)
        release(port);
    else if (!seen.namesake)
        setFree(seen.ifindex);
    complain(port, failure.what());
    return false;
}

void Ports::attachTc(Port &port)
{
    if (port.marks)
        return;
    std::string name = pinName(tcPrefix, port.ifindex);
    Descriptor left = pins_.open(name);
    port.marks = left.get() >= 0 && bpf_link_update(left.get(), plane_.tcProgram(), nullptr) == 0;
    if (port.marks) {
        port.tc = aside(std::move(left));
        return;
    }
    Descriptor made(
        bpf_link_create(plane_.tcProgram(), static_cast<int>(port.ifindex), tcxIngress, nullptr));
    port.marks = made.get() >= 0;
    if (port.marks)
        port.tc = keep(std::move(made), name);
    else if (!std::exchange(saidNoTc_, true))
        say("queues and priorities are not carried (" + std::string(std::strerror(errno)) +
            "): that takes Linux 6.6");
}

void Ports::carryPriority()
{
    if (carriesPriority_)
        return;
    for (Port &each : ports_)
        if (each.ifindex != 0)
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

/** The same for a port that this daemon has protected: even where nothing is pinned any more. */
void Ports::release(Port &port)
{
    for (Descriptor *link : {&port.link, &port.tc}) {
        if (link->get() >= 0)
            bpf_link_detach(link->get());
        *link = Descriptor();
    }
    setFree(port.ifindex);
    port.ifindex = 0;
    port.marks = false;
}

void Ports::stop()
{
    for (Port &each : ports_)
        if (each.ifindex != 0)
            release(each);
}

/**
 * Set a port free whose interface has gone, does not bear its name any more, was made anew, or has
 * lost the program. @return whether it was so
 */
bool Ports::dropIfGone(Port &port, const Sighting &seen, bool whole)
{
    bool unknown = seen.ifindex == 0 && !whole;
    if (port.ifindex == 0 || unknown || (seen.ifindex == port.ifindex && seen.isProtected))
        return false;
    say(seen.ifindex == port.ifindex ? "the program on port " + port.config->name + " has vanished"
                                     : "port " + port.config->name + " has gone");
    release(port);
    return true;
}

/** Links that a former daemon left on ports which are not configured now. */
void Ports::dropStrangers() const
{
    for (const char *prefix : {linkPrefix, tcPrefix})
        for (const std::string &name : pins_.names(prefix)) {
            uint32_t ifindex = 0;
            const char *number = name.c_str() + std::strlen(prefix);
            std::from_chars(number, name.c_str() + name.size(), ifindex);
            auto last = lastPlaces_.find(ifindex);
            bool ours = last != lastPlaces_.end() && last->second->ifindex == ifindex;
            if (!ours)
                setFree(ifindex);
        }
}

/* ---- Where the ports are -------------------------------------------------------------- */

/** An interface is the port that is protected there; failing that, the first one of its names. */
void Ports::findNamesakes(std::vector<Sighting> &seen) const
{
    std::map<uint32_t, const Port *> owners;
    for (size_t i = 0; i < seen.size(); i++)
        if (seen[i].ifindex != 0 && seen[i].ifindex == ports_[i].ifindex)
            owners[seen[i].ifindex] = &ports_[i];
    for (size_t i = 0; i < seen.size(); i++)
        if (seen[i].ifindex != 0) {
            const Port *owner = owners.try_emplace(seen[i].ifindex, &ports_[i]).first->second;
            seen[i].namesake = owner == &ports_[i] ? nullptr : owner;
        }
}

Ports::Look Ports::look()
{
    Look look{std::vector<Sighting>(ports_.size()), false};
    look.whole = links_.list([&](const Link &link) {
        bool ours = std::ranges::find(link.programs, plane_.programId()) != link.programs.end();
        for (std::string_view name : link.names)
            if (auto port = byName_.find(name); port != byName_.end())
                look.ports[port->second] = {link.ifindex, ours, nullptr};
    });
    findNamesakes(look.ports);
    return look;
}

Failure Ports::sameAs(const Port &port, const Sighting &seen)
{
    return Failure("protect port " + port.config->name,
                   "it is port " + seen.namesake->config->name + " by another name");
}

/** Protect what no former daemon has protected. @return the others, and where they are */
std::vector<std::pair<Ports::Port *, Ports::Sighting>> Ports::protectNew()
{
    std::vector<std::pair<Port *, Sighting>> left;
    Look whole = look();
    for (int i = 1; i < looksAtStart && !whole.whole; i++)
        whole = look();
    const std::vector<Sighting> &seen = whole.ports;
    for (size_t i = 0; i < seen.size(); i++) {
        if (seen[i].namesake)
            throw sameAs(ports_[i], seen[i]);
        if (seen[i].ifindex == 0)
            say("port " + ports_[i].config->name + " is not there yet");
        else if (isLeft(seen[i].ifindex))
            left.emplace_back(&ports_[i], seen[i]);
        else
            protect(ports_[i], seen[i].ifindex);
    }
    return left;
}

void Ports::start()
{
    std::vector<std::pair<Port *, Sighting>> left;
    try {
        left = protectNew();
    } catch (...) {
        stop();
        throw;
    }
    for (const auto &[port, seen] : left)
        tryToProtect(*port, seen);
    dropStrangers();
    started_ = true;
}

Ports::Refreshed Ports::refresh(bool retry)
{
    const auto end = std::chrono::steady_clock::now() + refreshTime;
    const Look seen = look();
    Refreshed result;
    for (size_t i = 0; i < ports_.size(); i++)
        result.changed = dropIfGone(ports_[i], seen.ports[i], seen.whole) || result.changed;
    for (size_t i = 0; i < ports_.size(); i++) {
        Port &port = ports_[i];
        if (port.ifindex != 0 || seen.ports[i].ifindex == 0 || (!retry && !port.trouble.empty()))
            continue;
        if (std::chrono::steady_clock::now() > end)
            return result;
        result.changed = tryToProtect(port, seen.ports[i]) || result.changed;
    }
    result.finished = true;
    return result;
}

const PortConfig *Ports::find(uint32_t ifindex) const
{
    auto last = lastPlaces_.find(ifindex);
    const Port *port = last == lastPlaces_.end() ? nullptr : last->second;
    char name[IF_NAMESIZE];
    if (port && port->ifindex == ifindex)
        return port->config;
    if (if_indextoname(ifindex, name)) {
        auto named = byName_.find(std::string_view(name));
        return named == byName_.end() ? nullptr : ports_[named->second].config;
    }
    return port ? port->config : nullptr;
}

/* ---- What is pinned ------------------------------------------------------------------- */

size_t Ports::pinAgain(const std::set<std::string> &there) const
{
    size_t count = 0;
    for (const Port &port : ports_)
        for (const auto &[prefix, link] :
             {std::pair(linkPrefix, &port.link), {tcPrefix, &port.tc}}) {
            std::string name = pinName(prefix, port.ifindex);
            if (link->get() < 0 || there.contains(name))
                continue;
            pins_.pin(link->get(), name);
            count++;
        }
    return count;
}

} // namespace zynlinux
