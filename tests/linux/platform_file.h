/**
 * What the tests of the running layer share.
 */
#ifndef PLATFORM_FILE_H
#define PLATFORM_FILE_H

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <unistd.h>

using Clock = std::chrono::steady_clock;

inline bool within(std::chrono::milliseconds limit, const std::function<bool()> &condition)
{
    for (auto end = Clock::now() + limit; Clock::now() < end;) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

/** Line of a platform file: the data plane ends with its process. */
inline const std::string unpinned = "pin = \"none\"\n";

/** A platform file that lasts as long as this. */
class PlatformFile
{
public:
    explicit PlatformFile(const std::string &text)
    {
        std::ofstream(path_) << text;
        setenv("CPUDEFEND_PLATFORM", path_.c_str(), 1);
    }
    ~PlatformFile()
    {
        std::remove(path_.c_str());
        unsetenv("CPUDEFEND_PLATFORM");
    }

    const std::string &path() const { return path_; }

private:
    std::string path_ = "/tmp/platform-test-" + std::to_string(getpid()) + ".toml";
};

#endif
