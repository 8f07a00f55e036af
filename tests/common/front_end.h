/**
 * The daemon, told what to do by its own front end.
 */
#ifndef FRONT_END_H
#define FRONT_END_H

#include <cstdio>
#include <stdexcept>
#include <string>

/** Run cpudefendctl. @return its output @throw std::runtime_error when it fails */
inline std::string cpudefendctl(const std::string &arguments)
{
    const std::string line = CPUDEFEND_TEST_CTL " " + arguments + " 2>&1";
    std::FILE *pipe = popen(line.c_str(), "re");
    if (!pipe)
        throw std::runtime_error("couldn't run " + line);
    std::string output;
    char buffer[4096];
    while (size_t got = std::fread(buffer, 1, sizeof buffer, pipe))
        output.append(buffer, got);
    if (pclose(pipe) != 0)
        throw std::runtime_error("cpudefendctl " + arguments + " failed: " + output);
    return output;
}

#endif
