/**
 * The contract with the daemon, on a Linux host.
 */
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "car_table.h"
#include "config.h"
#include "cpuusage.h"
#include "dataplane.h"
#include "failure.h"
#include "zynacl.h"
#include "zynhwal.h"
#include "zynif.h"

namespace zynlinux
{

namespace
{

constexpr char configEnvironment[] = "CPUDEFEND_PLATFORM";
constexpr char configPath[] = "/etc/cpudefend/platform.toml";
constexpr uint32_t packetTypes = 59; // numbers that an entry may bear, 0 to 58

/** What the configured host is protected by. */
struct Layer {
    explicit Layer(const Config &config);

    Role role;
    DataPlane plane;
    CarTable system; /**< entries of the system as a whole */
};

std::unique_ptr<Layer> layer;
tCpuMeter cpuMeters[2]; // by selector

Layer::Layer(const Config &config) : role(config.role)
{
    for (const std::string &name : config.ports) {
        const Port &port = plane.attach(name, config.mode);
        std::string why = port.whyGeneric.empty() ? "" : " (native: " + port.whyGeneric + ")";
        std::fprintf(stderr, "[platform] port %s is protected in %s mode%s\n", name.c_str(),
                     modeName(port.mode), why.c_str());
    }
}

std::string configFile()
{
    const char *path = std::getenv(configEnvironment);
    return path ? path : configPath;
}

/** 0, or the code for an entry that cannot be programmed. */
int32_t checkEntry(const tHwCpuDefendPktCarEntry &entry)
{
    if (entry.pktType >= packetTypes)
        return EINVAL;
    if (entry.op != ZYN_HW_OP_DENY && entry.op != ZYN_HW_OP_PERMIT)
        return EINVAL;
    return entry.pktType < CPD_TYPES ? 0 : ENOTSUP;
}

int32_t addEntry(const tHwCpuDefendPktCarEntry &entry)
try {
    layer->system.add(entry);
    layer->plane.enforce(entry.pktType, &entry);
    return 0;
} catch (const std::bad_alloc &) {
    return ENOMEM;
}

int32_t removeEntry(const tHwCpuDefendPktCarEntry &entry)
{
    if (!layer->system.remove(entry))
        return ENOENT;
    layer->plane.enforce(entry.pktType, layer->system.inForce(entry.pktType));
    return 0;
}

} // namespace

} // namespace zynlinux

using namespace zynlinux;

extern "C" {

int32_t zynPlatformInit(char *const *)
try {
    layer.reset();
    layer = std::make_unique<Layer>(readConfig(configFile()));
    return 0;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return -1;
}

int32_t zynScalarSetApi(uint32_t index, uint32_t cmd, tHwApiFunc *func)
{
    if (index != 0 || cmd != 0 || !func || !func->arg)
        return EINVAL;
    if (func->hwCmd != HW_SYS_CPUDEFENDPKTCARADD && func->hwCmd != HW_SYS_CPUDEFENDPKTCARDEL)
        return EINVAL;
    if (!layer)
        return ENODEV;
    const auto &entry = *static_cast<const tHwCpuDefendPktCarEntry *>(func->arg);
    if (int32_t refused = checkEntry(entry))
        return refused;
    return func->hwCmd == HW_SYS_CPUDEFENDPKTCARADD ? addEntry(entry) : removeEntry(entry);
}

int32_t zynHwSlotSet(const tSlotIndex *slot, uint32_t cmd, void *arg, int32_t)
{
    if (!slot || !arg)
        return EINVAL;
    if (cmd != HW_SLOT_CPUDEFENDPKTCARADD && cmd != HW_SLOT_CPUDEFENDPKTCARDEL)
        return EINVAL;
    return ENOTSUP; // all ports belong to the system
}

int32_t acl_cpudefend_add(const tSlotIndex *, uint16_t, uint32_t, uint32_t, uint32_t, uint32_t)
{
    return ENOTSUP;
}

int32_t acl_cpudefend_del(const tSlotIndex *, uint16_t, uint32_t, uint32_t, uint32_t, uint32_t)
{
    return ENOTSUP;
}

int32_t zynHwScalarGet(uint32_t, uint32_t id, void *)
{
    Role role = layer ? layer->role : Role::Master;
    switch (id) {
    case HW_SYS_SWRUNNINGROLEISMASTER: return role == Role::Master ? 0 : 1;
    case HW_SYS_SWRUNNINGROLEISSLAVE: return role == Role::Slave ? 0 : 1;
    default: return EINVAL;
    }
}

int32_t zynHwCpuGet(uint32_t selector, uint32_t id, uint32_t *value)
{
    constexpr uint32_t scales[] = {100, 10000};
    if (selector > 1 || id != HW_CPU_USED || !value)
        return EINVAL;
    return cpuMeterRead(&cpuMeters[selector], "/proc/stat", scales[selector], value);
}

int32_t zynHwScalarSync(uint32_t, uint32_t, const void *, uint32_t)
{
    return 0;
}

int32_t zynHwSlotSync(const tSlotIndex *, uint32_t, const void *, uint32_t)
{
    return 0;
}

int32_t sysIndexTrans(uint32_t ifUnit, uint32_t mode, tPhyIfInfo *info)
{
    if (!layer || mode != SYS_INDEX_TRANS_PHY || !info)
        return EINVAL;
    const auto &ports = layer->plane.ports();
    auto known = [=](const Port &port) { return port.ifindex == ifUnit; };
    if (std::none_of(ports.begin(), ports.end(), known))
        return ENODEV;
    *info = {};
    info->port = ifUnit;
    return 0;
}
}
