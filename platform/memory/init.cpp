#include "init.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "journal.h"
#include "memory.h"

namespace
{

const char standardFile[] = "/etc/cpudefend/platform.toml";
const char linuxName[] = "cpuDefend.linux";

int stopSignals = -1; // tells of signals that end the daemon

/** The value of an environment variable; null also for an empty one. */
const char *setting(const char *name)
{
    const char *value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

/** The path of the executable for the Linux data plane, in the folder of this one. */
int32_t linuxExecutable(char *path, size_t size)
{
    size_t room = size - sizeof linuxName;
    ssize_t len = readlink("/proc/self/exe", path, room);
    if (len < 0)
        return errno;
    if (static_cast<size_t>(len) == room)
        return ENAMETOOLONG;
    path[len] = '\0';
    char *slash = strrchr(path, '/');
    memcpy(slash != nullptr ? slash + 1 : path, linuxName, sizeof linuxName);
    return 0;
}

/** Become the daemon with the Linux data plane. Returns only on failure, which it reports. */
void startLinux(const char *platformFile, char *const argv[])
{
    char path[PATH_MAX] = {};
    int32_t error = linuxExecutable(path, sizeof path);
    if (error == 0) {
        execv(path, argv);
        error = errno;
    }
    fprintf(stderr, "cpuDefend: couldn't start the Linux data plane that %s asks for: %s: %s\n",
            platformFile, error != 0 && *path == '\0' ? linuxName : path, strerror(error));
}

int32_t roleInit(const char *role)
{
    bool slave = role != nullptr && strcmp(role, "slave") == 0;
    if (role != nullptr && !slave && strcmp(role, "master") != 0) {
        fprintf(stderr, "cpuDefend: couldn't take the role %s: CPUDEFEND_ROLE is master or slave\n",
                role);
        return -1;
    }
    zynMemoryRoleSet(slave);
    return 0;
}

/** A stop waits for the end of a turn. There is nothing that a SIGHUP could have read anew. */
int32_t signalsInit()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    stopSignals = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (stopSignals < 0) {
        fprintf(stderr, "cpuDefend: couldn't wait for signals: %s\n", strerror(errno));
        return -1;
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGHUP, SIG_IGN);
    return 0;
}

} // namespace

const char *linuxPlatformAsked(const char *configured, const char *standard)
{
    if (configured != nullptr && *configured != '\0')
        return configured;
    struct stat info;
    if (lstat(standard, &info) == 0)
        return standard;
    // A file that can't be seen may be there: guessing that it is not would be a fall-back.
    return errno == ENOENT || errno == ENOTDIR ? nullptr : standard;
}

int32_t zynPlatformInit(char *const argv[])
{
    const char *platformFile = linuxPlatformAsked(setting("CPUDEFEND_PLATFORM"), standardFile);
    if (platformFile != nullptr) {
        startLinux(platformFile, argv);
        return ZYN_EXIT_CONFIG;
    }
    const bool sound = roleInit(setting("CPUDEFEND_ROLE")) == 0 && journalInit() == 0;
    return sound ? 0 : ZYN_EXIT_CONFIG;
}

int32_t zynPlatformStart()
{
    return signalsInit();
}

int32_t zynPlatformFd()
{
    return stopSignals;
}

int32_t zynPlatformRun()
{
    signalfd_siginfo info;
    if (read(stopSignals, &info, sizeof info) == sizeof info)
        exit(EXIT_SUCCESS);
    return 0;
}
