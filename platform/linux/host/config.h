/**
 * The platform file: which ports are protected, and how. docs/platform.md describes it.
 */
#ifndef ZYNLINUX_CONFIG_H
#define ZYNLINUX_CONFIG_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "acl/acl.h"

namespace zynlinux
{

/** Where the packet program runs. */
enum class Mode {
    Auto,   /**< native where the driver has it, else generic */
    Native, /**< in the driver, before a socket buffer is made */
    Generic /**< in the kernel's receive path, any driver */
};

enum class Role { Master, Slave };

/** What becomes of the protection when the daemon is told to stop. */
enum class OnStop { Remove, Leave };

constexpr uint32_t slotNumberMax = 255; /**< of a system and of a slot: the daemon keeps 8 bits */
constexpr size_t slotsMax = 31;
constexpr size_t portsMax = 1024;
constexpr uint32_t graceMax = 86400;

/** A protected port and its place in the chassis. */
struct PortConfig {
    std::string name;
    uint32_t sys = 0;  /**< system (chassis) number */
    uint32_t slot = 0; /**< slot number; 0 of system 0: the port is the system's own */
};

struct Config {
    std::vector<PortConfig> ports; /**< at least one, no name twice */
    Mode mode = Mode::Auto;
    Role role = Role::Master;
    std::string pin = "/sys/fs/bpf/cpudefend"; /**< folder of what is pinned; empty: nothing is */
    uint32_t grace = 60; /**< seconds until what is not bound again after a start is dropped */
    OnStop onStop = OnStop::Remove;
    uint32_t unreadPps = 100;         /**< packets/s that cannot be judged, see Programmed */
    std::map<uint16_t, AclList> acls; /**< by number */
};

/**
 * Read the text of a platform file.
 * @param name what the file is called in messages
 * @throw Failure that names the file and the line
 */
Config parseConfig(std::string_view text, const std::string &name);

/** Read a platform file. @throw Failure, also when it cannot be read */
Config readConfig(const std::string &path);

/** "native" or "generic" (or "auto"). */
const char *modeName(Mode mode);

} // namespace zynlinux

#endif
