/**
 * The platform file: which ports are protected, and how. docs/platform.md describes it.
 */
#ifndef ZYNLINUX_CONFIG_H
#define ZYNLINUX_CONFIG_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zynlinux
{

/** Where the packet program runs. */
enum class Mode {
    Auto,   /**< native where the driver has it, else generic */
    Native, /**< in the driver, before a socket buffer is made */
    Generic /**< in the kernel's receive path, any driver */
};

enum class Role { Master, Slave };

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
