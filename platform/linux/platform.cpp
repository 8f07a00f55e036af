/**
 * The layer behind the contract with the daemon, on a Linux host.
 */
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <utility>

#include "base/failure.h"
#include "cpuusage.h"
#include "host/addresses.h"
#include "host/config.h"
#include "host/events.h"
#include "host/list_reload.h"
#include "host/ports.h"
#include "journal.h"
#include "kernel/dataplane.h"
#include "kernel/pin_folder.h"
#include "layer.h"
#include "protection.h"
#include "refusals.h"
#include "trace/samples.h"
#include "zynosal.h"

namespace zynlinux
{

namespace
{

constexpr char configEnvironment[] = "CPUDEFEND_PLATFORM";
constexpr char configPath[] = "/etc/cpudefend/platform.toml";

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds restTime{50}; // of the network's changes, which are looked at together
constexpr milliseconds restMax{1000};
constexpr int restPerWork = 8; // looking takes a ninth of our time at most

/** Does something; a failure is said, once in a row, and keeps nothing else from being done. */
class Attempt
{
public:
    template <class Work> void operator()(Work work)
    try {
        work();
        said_.clear();
    } catch (const std::exception &failure) {
        if (std::exchange(said_, failure.what()) != failure.what())
            NM_DEBUG_OUTPUT("%s\n", failure.what());
    }

private:
    std::string said_;
};

/** What the configured host is protected by. */
class Host
{
public:
    /** Load everything; no port is protected yet. @param file the platform file @throw Failure */
    Host(std::string file, Config config);

    /** Protect the ports. @throw Failure */
    void start();

    /** Leave nothing behind of a start that failed; what was there before stays. */
    void abandon();

    bool isSlave() const { return config_.role == Role::Slave; }
    int eventDescriptor() const { return events_.descriptor(); }

    /** @return as zynPlatformRun() */
    bool handleEvents();

    Protection &protection() { return protection_; }
    const Ports &ports() const { return ports_; }
    Samples &samples() { return samples_; }

private:
    static Slots slotsOf(const Config &config);
    void warnOfUnusedPorts() const;
    bool lookAtNetwork(const Events::Happened &happened);
    bool takeLists();
    void checkPins();
    void handleSecond();
    [[noreturn]] void stop();

    Events events_; // first: a signal waits until the daemon has started
    std::string file_;
    Config config_;
    PinFolder pins_;
    DataPlane plane_;
    Addresses addresses_;
    Ports ports_;
    Protection protection_;
    Samples samples_;
    ListReload reload_;
    Attempt toProtect_, toAsk_, toPin_, toGoOn_;
    bool unfinished_ = false; /**< not all ports that have come could be looked at */
    std::optional<Clock::time_point> graceEnd_;
};

std::unique_ptr<Host> host;
Config asked; // by the platform file
tCpuMeters cpuMeters;

Host::Host(std::string file, Config config)
    : file_(std::move(file)), config_(std::move(config)), pins_(config_.pin), plane_(pins_),
      addresses_(plane_), ports_(config_, plane_, pins_),
      protection_(plane_, ports_, config_.acls, slotsOf(config_), config_.unreadPps,
                  [this] { events_.call(); }),
      samples_(plane_.samples(), ports_), reload_(file_, [this] { events_.call(); })
{
}

void Host::start()
{
    addresses_.refresh();
    ports_.start();
    protection_.dropFormerSlots();
    protection_.keepTablesReady();
    warnOfUnusedPorts();
    if (!protection_.hasInherited())
        return;
    NM_DEBUG_OUTPUT("[platform] what a former daemon programmed stays in force for %u seconds, or "
                    "until it is bound again\n",
                    config_.grace);
    graceEnd_ = Clock::now() + seconds(config_.grace);
    handleSecond();
}

void Host::abandon()
{
    if (pins_.names("link-").empty()) // or else they protect, as a former daemon has left them
        pins_.clear();
}

Slots Host::slotsOf(const Config &config)
{
    Slots slots;
    for (const PortConfig &port : config.ports)
        if (port.sys != 0 || port.slot != 0)
            slots.emplace(port.sys, port.slot);
    return slots;
}

/** While there are slots, policies are programmed into these alone. */
void Host::warnOfUnusedPorts() const
{
    if (slotsOf(config_).empty())
        return;
    for (const PortConfig &port : config_.ports)
        if (port.sys == 0 && port.slot == 0)
            NM_DEBUG_OUTPUT("[platform] warning: port %s is in no slot; while a slot has ports, "
                            "nothing is programmed for it\n",
                            port.name.c_str());
}

/**
 * ACLs are taken from the platform file anew; the rest of it counts at the next start.
 * @return whether others are in force now
 */
bool Host::takeLists()
try {
    std::optional<CompiledLists> lists = reload_.take(protection_.boundAcls());
    if (!lists)
        return false;
    protection_.reload(std::move(*lists));
    NM_DEBUG_OUTPUT("[platform] ACLs are those of %s now\n", file_.c_str());
    protection_.keepTablesReady();
    return true;
} catch (const std::exception &failure) {
    NM_DEBUG_OUTPUT("%s; the ACLs stay as they were\n", failure.what());
    return false;
}

void Host::stop()
{
    bool leave = config_.onStop == OnStop::Leave && pins_.pins();
    NM_DEBUG_OUTPUT("[platform] stopping; the protection %s\n", leave ? "stays in force" : "ends");
    if (!leave) {
        ports_.stop();
        pins_.clear();
    }
    journalClose();
    std::exit(EXIT_SUCCESS);
}

/** What is not pinned any more the next daemon would not find. */
void Host::checkPins()
{
    if (!pins_.pins())
        return;
    pins_.restore();
    const std::set<std::string> there = pins_.allNames();
    const size_t count = plane_.pinAgain(pins_, there) + ports_.pinAgain(there);
    if (count != 0)
        NM_DEBUG_OUTPUT("[platform] %zu of what was pinned in %s had vanished: pinned again\n",
                        count, config_.pin.c_str());
}

/** What is due every second. */
void Host::handleSecond()
{
    if (graceEnd_ && Clock::now() >= *graceEnd_) {
        graceEnd_.reset();
        if (protection_.hasInherited()) {
            NM_DEBUG_OUTPUT("[platform] what was not bound again is dropped\n");
            protection_.dropInherited();
        }
    }
}

/** CPU time that this thread has used. */
std::chrono::nanoseconds cpuTime()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/** However much happens to the network, it takes but a part of our time. */
bool Host::lookAtNetwork(const Events::Happened &happened)
{
    const bool goesOn = std::exchange(unfinished_, false);
    const auto begin = cpuTime();
    bool changed = false;
    if (goesOn || happened.links || happened.second)
        toProtect_([&] {
            Ports::Refreshed refreshed = ports_.refresh(!goesOn);
            changed = refreshed.changed;
            unfinished_ = !refreshed.finished;
        });
    if (addresses_.hear(happened.addresses, happened.tables))
        toAsk_([this] { addresses_.refresh(); });
    if (unfinished_)
        events_.rest(milliseconds(0)); // only to let others have their turn
    else if (happened.links || happened.addresses || happened.tables)
        events_.rest(std::clamp<std::chrono::nanoseconds>(restPerWork * (cpuTime() - begin),
                                                          restTime, restMax));
    return changed;
}

bool Host::handleEvents()
{
    Events::Happened happened = events_.take();
    if (happened.stop)
        stop();
    bool changed = lookAtNetwork(happened);
    if (happened.called)
        changed = takeLists() || changed;
    if (happened.reload)
        reload_.begin(protection_.boundAcls());
    if (happened.second) {
        toPin_([this] { checkPins(); });
        toGoOn_([this] { handleSecond(); });
    }
    return changed;
}

std::string configFile()
{
    const char *path = std::getenv(configEnvironment);
    return path && *path != '\0' ? path : configPath;
}

/** Call the host's protection; nothing may be thrown out of the layer. */
template <class Call> int32_t ask(Call call) noexcept
try {
    return host ? call(host->protection()) : ENODEV;
} catch (const std::bad_alloc &) {
    return ENOMEM;
} catch (const std::exception &failure) {
    NM_DEBUG_OUTPUT("%s\n", failure.what());
    return EIO;
}

} // namespace

} // namespace zynlinux

using namespace zynlinux;

int32_t zynPlatformInit(char *const *)
try {
    host.reset();
    refusals::forget();
    if (journalInit() != 0)
        return ZYN_EXIT_CONFIG;
    asked = readConfig(configFile());
    return 0;
} catch (const std::exception &failure) {
    NM_DEBUG_OUTPUT("%s\n", failure.what());
    return ZYN_EXIT_CONFIG;
}

int32_t zynPlatformStart()
try {
    auto starting = std::make_unique<Host>(configFile(), std::move(asked));
    try {
        starting->start();
    } catch (...) {
        starting->abandon();
        throw;
    }
    host = std::move(starting);
    return 0;
} catch (const std::exception &failure) {
    NM_DEBUG_OUTPUT("%s\n", failure.what());
    return -1;
}

int32_t zynPlatformFd()
{
    return host ? host->eventDescriptor() : -1;
}

int32_t zynPlatformRun()
try {
    return host && host->handleEvents() ? 1 : 0;
} catch (const std::exception &failure) {
    NM_DEBUG_OUTPUT("%s\n", failure.what());
    return 1;
}

int32_t zynPktOpen()
{
    return host ? host->samples().descriptor() : 0;
}

int32_t zynPktRecv(packet_rxpktinfo *info, uint16_t *protocol, unsigned char *buf, uint32_t size)
try {
    const cpd_sample *next = host ? host->samples().next() : nullptr;
    if (!next)
        return 0;
    const cpd_sample &sample = *next;
    *info = {};
    info->pkt_inport = sample.ifindex;
    std::memcpy(info->pkt_srcaddr, sample.data + 6, 6);
    info->pkt_outervid = sample.outer_tci & 0x0fff; // IEEE 802.1Q, 9.6: the VLAN id of a tag
    info->pkt_innervid = sample.inner_tci & 0x0fff;
    info->pkt_outerpri = static_cast<uint8_t>(sample.outer_tci >> 13);
    info->pkt_innerpri = static_cast<uint8_t>(sample.inner_tci >> 13);
    info->pkt_dataoffset = sample.network_offset;
    *protocol = sample.ethertype;
    std::memset(buf, 0, size);
    std::memcpy(buf, sample.data, std::min<size_t>(size, sizeof sample.data));
    return static_cast<int32_t>(sample.length);
} catch (const std::exception &) {
    return 0;
}

void zynPktTraced(uint32_t used, uint32_t most)
{
    if (host)
        host->samples().traced(used, most);
}

int32_t layer::carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept
{
    return ask([&](Protection &protection) { return protection.carAdd(slot, entry); });
}

int32_t layer::carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept
{
    return ask([&](Protection &protection) { return protection.carDel(slot, entry); });
}

int32_t layer::carCount(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry,
                        tCarCounts *counts) noexcept
{
    return ask([&](Protection &protection) { return protection.carCount(slot, entry, counts); });
}

int32_t layer::aclAdd(const tSlotIndex *slot, const tAclSetting &acl) noexcept
{
    return ask([&](Protection &protection) { return protection.aclAdd(slot, acl); });
}

int32_t layer::aclDel(const tSlotIndex *slot, const tAclSetting &acl) noexcept
{
    return ask([&](Protection &protection) { return protection.aclDel(slot, acl); });
}

void layer::changeBegin() noexcept
{
    ask([](Protection &protection) { return protection.changeBegin(), 0; });
}

int32_t layer::changeEnd() noexcept
{
    return host ? ask([](Protection &protection) { return protection.changeEnd(); }) : 0;
}

const layer::tDropped *layer::dropped(uint32_t n) noexcept
{
    if (!host || n >= host->protection().dropped().size())
        return nullptr;
    return &host->protection().dropped()[n];
}

const char *layer::reason() noexcept
{
    return host ? host->protection().reason() : nullptr;
}

bool layer::isSlave() noexcept
{
    return host && host->isSlave();
}

int32_t layer::cpuUsage(uint32_t selector, uint32_t *value) noexcept
{
    return cpuMetersRead(&cpuMeters, "/proc/stat", selector, value);
}

int32_t layer::place(uint32_t ifUnit, tPhyIfInfo *info) noexcept
{
    const PortConfig *port = host ? host->ports().find(ifUnit) : nullptr;
    if (!port)
        return ENODEV;
    info->unit = port->sys;
    info->slot = port->slot;
    info->port = ifUnit;
    return 0;
}
