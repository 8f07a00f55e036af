/**
 * What may come next on a command line, for the shell.
 */
#ifndef CPUDEFENDCTL_COMPLETE_H
#define CPUDEFENDCTL_COMPLETE_H

#include <string>
#include <vector>

#include "client/client.h"

namespace ctl
{

/**
 * @param words  the words behind the program's name; the last, perhaps empty, is to be completed
 * @param client asked for the names of policies and for slots; none when it fails
 * @return the words that could stand in place of the last
 */
std::vector<std::string> complete(const std::vector<std::string> &words, cpudefend::Client &client);

} // namespace ctl

#endif
