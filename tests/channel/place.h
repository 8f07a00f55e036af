/**
 * The place of the management socket, as tests find it.
 */
#ifndef CHANNEL_PLACE_H
#define CHANNEL_PLACE_H

#include <filesystem>
#include <string>
#include <vector>

#include "cpuDefend_nm.h"

namespace place
{

constexpr char LOCK_FILE[] = CPUDEFEND_CMD_SOCKET ".lock";

/** What stands beside the socket and its lock, under names that begin as theirs. */
inline std::vector<std::string> leftBeside()
{
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator("/tmp"))
        if (const std::string name = entry.path();
            name.starts_with(CPUDEFEND_CMD_SOCKET ".") && name != LOCK_FILE)
            names.push_back(name);
    return names;
}

} // namespace place

#endif
