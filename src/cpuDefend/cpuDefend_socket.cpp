/**
 * The place of the management socket, where one daemon at a time serves.
 *
 * It is in a folder where anybody may put things. What belongs to another user is therefore no bar:
 * it is neither believed nor followed, only replaced.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "cpuDefend.h"

namespace
{

/** Held for as long as a daemon lives, so that of two that start at once one serves. */
constexpr char LOCK_FILE[] = CPUDEFEND_CMD_SOCKET ".lock";

struct {
    int lock = -1;
    ino_t socket; // 0: not made yet
} ours;

/** A file with a second name may be another daemon's, and have its name here from a stranger. */
bool isTrusted(const struct stat &status)
{
    return (status.st_uid == 0 || status.st_uid == geteuid()) &&
           (S_ISDIR(status.st_mode) || status.st_nlink == 1);
}

bool isOurLock(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && isTrusted(status);
}

/** Open the lock file. What stands there instead is removed. @return -1 when that was so */
int openLock()
{
    const int fd =
        open(LOCK_FILE, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd >= 0 && isOurLock(fd))
        return fd;
    if (fd >= 0)
        close(fd);
    unlink(LOCK_FILE);
    return -1;
}

/** @return whether no other daemon has the lock; it is ours then, unless others keep us from it */
bool lock()
{
    for (int attempt = 0; attempt < 2; attempt++) {
        const int fd = openLock();
        if (fd < 0)
            continue;
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            close(fd);
            return false;
        }
        if (isOurLock(fd)) { // and was not removed by a daemon that has just ended
            ours.lock = fd;
            return true;
        }
        close(fd);
    }
    fprintf(stderr, "cpuDefend: couldn't lock %s: two starts at once are not told apart\n",
            LOCK_FILE);
    return true;
}

/** Whether somebody listens on the socket. */
bool isServed()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, CPUDEFEND_CMD_SOCKET);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const bool served = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ||
                        errno == EAGAIN; // by one that is busy
    close(fd);
    return served;
}

/** Give a folder another name, as it may hold what cannot be removed. */
bool moveAside()
{
    char aside[] = CPUDEFEND_CMD_SOCKET ".XXXXXX";
    return mkdtemp(aside) && rename(CPUDEFEND_CMD_SOCKET, aside) == 0;
}

/** What keeps a daemon from serving here; null when nothing does. */
const char *hindrance()
{
    struct stat status;
    if (lstat(CPUDEFEND_CMD_SOCKET, &status) != 0)
        return nullptr;
    const bool folder = S_ISDIR(status.st_mode);
    if (!isTrusted(status)) {
        fprintf(stderr, "cpuDefend: %s is user %u's: it is replaced\n", CPUDEFEND_CMD_SOCKET,
                static_cast<unsigned>(status.st_uid));
        return folder && !moveAside() ? "a folder is in its place" : nullptr;
    }
    if (folder)
        return "a folder is in its place";
    return S_ISSOCK(status.st_mode) && isServed() ? "another daemon serves it" : nullptr;
}

void leave()
{
    struct stat status;
    if (ours.socket != 0 && lstat(CPUDEFEND_CMD_SOCKET, &status) == 0 &&
        status.st_ino == ours.socket)
        unlink(CPUDEFEND_CMD_SOCKET);
    if (ours.lock >= 0 && isOurLock(ours.lock)) // still the file of that name
        unlink(LOCK_FILE);
}

} // namespace

int32_t cpuDefendSocketClaim()
{
    atexit(leave);
    const char *hindered = lock() ? hindrance() : "another daemon has it";
    if (hindered)
        fprintf(stderr, "cpuDefend: couldn't take %s: %s\n", CPUDEFEND_CMD_SOCKET, hindered);
    return hindered ? -1 : 0;
}

void cpuDefendSocketKeep()
{
    struct stat status;
    if (lstat(CPUDEFEND_CMD_SOCKET, &status) == 0)
        ours.socket = status.st_ino;
}
