/**
 * The layer behind the contract with the daemon, on a Linux host.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>

#include "car_table.h"
#include "config.h"
#include "cpuusage.h"
#include "dataplane.h"
#include "failure.h"
#include "journal.h"
#include "layer.h"

namespace zynlinux
{

namespace
{

constexpr char configEnvironment[] = "CPUDEFEND_PLATFORM";
constexpr char configPath[] = "/etc/cpudefend/platform.toml";

/** What the configured host is protected by. */
struct Layer {
    explicit Layer(const Config &config);

    Role role;
    DataPlane plane;
    CarTable system;                       /**< entries of the system as a whole */
    std::map<uint32_t, PortConfig> places; /**< of the ports, by interface index */
};

std::unique_ptr<Layer> host;
tCpuMeters cpuMeters;

Layer::Layer(const Config &config) : role(config.role)
{
    for (const PortConfig &configured : config.ports) {
        const Port &port = plane.attach(configured.name, config.mode);
        places[port.ifindex] = configured;
        std::string why = port.whyGeneric.empty() ? "" : " (native: " + port.whyGeneric + ")";
        std::fprintf(stderr, "[platform] port %s is protected in %s mode%s\n", port.name.c_str(),
                     modeName(port.mode), why.c_str());
    }
}

std::string configFile()
{
    const char *path = std::getenv(configEnvironment);
    return path && *path != '\0' ? path : configPath;
}

/** 0, or the code for an entry that cannot be programmed here. */
int32_t checkCar(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry)
{
    if (!host)
        return ENODEV;
    return slot == nullptr && cpd_classified(entry.pktType) ? 0 : ENOTSUP;
}

} // namespace

} // namespace zynlinux

using namespace zynlinux;

int32_t zynPlatformInit(char *const *)
try {
    host.reset();
    host = std::make_unique<Layer>(readConfig(configFile()));
    return journalInit();
} catch (const std::exception &failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return -1;
}

int32_t layer::carAdd(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept
try {
    if (int32_t refused = checkCar(slot, entry))
        return refused;
    host->system.add(entry);
    host->plane.enforce(entry.pktType, &entry);
    return 0;
} catch (const std::bad_alloc &) {
    return ENOMEM;
}

int32_t layer::carDel(const tSlotIndex *slot, const tHwCpuDefendPktCarEntry &entry) noexcept
{
    if (int32_t refused = checkCar(slot, entry))
        return refused;
    if (!host->system.remove(entry))
        return ENOENT;
    host->plane.enforce(entry.pktType, host->system.inForce(entry.pktType));
    return 0;
}

int32_t layer::aclAdd(const tSlotIndex *, const tAclSetting &) noexcept
{
    return ENOTSUP;
}

int32_t layer::aclDel(const tSlotIndex *, const tAclSetting &) noexcept
{
    return ENOTSUP;
}

bool layer::isSlave() noexcept
{
    return host && host->role == Role::Slave;
}

int32_t layer::cpuUsage(uint32_t selector, uint32_t *value) noexcept
{
    return cpuMetersRead(&cpuMeters, "/proc/stat", selector, value);
}

int32_t layer::place(uint32_t ifUnit, tPhyIfInfo *info) noexcept
{
    if (!host)
        return ENODEV;
    auto port = host->places.find(ifUnit);
    if (port == host->places.end())
        return ENODEV;
    info->unit = port->second.sys;
    info->slot = port->second.slot;
    info->port = ifUnit;
    return 0;
}
