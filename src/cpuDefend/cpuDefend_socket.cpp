/**
 * The place of the management socket, where one daemon at a time serves.
 *
 * It is in a folder where anybody may put things. What belongs to another user is therefore no bar:
 * it is neither believed nor followed, only replaced.
 */
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <linux/fs.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "cpuDefend.h"

namespace
{

/** Held for as long as a daemon lives, so that of two that start at once one serves. */
constexpr char LOCK_FILE[] = CPUDEFEND_CMD_SOCKET ".lock";

/** Each has an even chance at least, whatever a stranger does. */
constexpr int MOVE_ATTEMPTS = 64;

/** A file with a second name may be another daemon's, and have its name here from a stranger. */
bool isTrusted(const struct stat &status)
{
    return (status.st_uid == 0 || status.st_uid == geteuid()) &&
           (S_ISDIR(status.st_mode) || status.st_nlink == 1);
}

/** A file that others may open they can hold the lock of, too, whosever it is. */
bool isOurLock(int fd)
{
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && isTrusted(status) &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
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
            gCpuDefend.claim.lock = fd;
            return true;
        }
        close(fd);
    }
    fprintf(stderr, "cpuDefend: couldn't lock %s: two starts at once are not told apart\n",
            LOCK_FILE);
    return true;
}

sockaddr_un addressOf(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    return address;
}

/** Whether somebody listens on the socket. */
bool isServed()
{
    const sockaddr_un address = addressOf(CPUDEFEND_CMD_SOCKET);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool served =
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno == EAGAIN; // by one that is busy
    close(fd);
    return served;
}

/** What keeps a daemon from serving here; null when nothing does. */
const char *hindrance()
{
    struct stat status;
    if (lstat(CPUDEFEND_CMD_SOCKET, &status) != 0)
        return nullptr;
    if (!isTrusted(status)) {
        fprintf(stderr, "cpuDefend: %s is user %u's: it is replaced\n", CPUDEFEND_CMD_SOCKET,
                static_cast<unsigned>(status.st_uid));
        return nullptr;
    }
    if (S_ISDIR(status.st_mode))
        return "a folder is in its place";
    return S_ISSOCK(status.st_mode) && isServed() ? "another daemon serves it" : nullptr;
}

/** Say what keeps the daemon from serving. errno stays what it was. */
void complain(const char *reason)
{
    const int error = errno;
    fprintf(stderr, "cpuDefend: couldn't take %s: %s\n", CPUDEFEND_CMD_SOCKET, reason);
    errno = error;
}

int bindTo(int fd, const char *path)
{
    const sockaddr_un address = addressOf(path);
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

/** Whether a folder is in the place that is not to be replaced. */
bool isTrustedFolderInPlace()
{
    struct stat status;
    return lstat(CPUDEFEND_CMD_SOCKET, &status) == 0 && S_ISDIR(status.st_mode) &&
           isTrusted(status);
}

/** Let two names stand for what the other one stands for, in one step. */
bool exchangeNames(const char *one, const char *other)
{
    return syscall(SYS_renameat2, AT_FDCWD, one, AT_FDCWD, other, RENAME_EXCHANGE) == 0;
}

/**
 * Move a socket into the place, whatever is made and removed there meanwhile. A rename fails where
 * a folder is, and an exchange where nothing is; everything else gives way to either. A coin
 * decides between them, as whoever changed the place in step with us could foil any fixed order.
 * @return whether it is there, or else with errno set
 */
bool moveIntoPlace(const char *socket, uint64_t coins)
{
    for (int i = 0; i < MOVE_ATTEMPTS && !isTrustedFolderInPlace(); i++)
        if (coins >> i & 1 ? exchangeNames(socket, CPUDEFEND_CMD_SOCKET)
                           : rename(socket, CPUDEFEND_CMD_SOCKET) == 0)
            return true;
    return rename(socket, CPUDEFEND_CMD_SOCKET) == 0;
}

/** Remove what has a name, if anything has. errno stays what it was. */
void tidy(const char *path)
{
    const int error = errno;
    if (remove(path) != 0 && errno != ENOENT)
        fprintf(stderr, "cpuDefend: what was there is %s now\n", path);
    errno = error;
}

/**
 * Bind a socket under a name that nobody guesses, and move it into the place. That name is beside
 * the place, since a stranger's folder goes to no other parent without rights to that folder, which
 * a service that has few capabilities lacks, also as root.
 */
int bindBeside(int fd)
{
    uint64_t random[2];
    char beside[sizeof CPUDEFEND_CMD_SOCKET ".0123456789abcdef"];
    if (getentropy(random, sizeof random) != 0)
        return -1;
    snprintf(beside, sizeof beside, CPUDEFEND_CMD_SOCKET ".%016" PRIx64, random[0]);
    if (bindTo(fd, beside) != 0)
        return -1;
    const int result = moveIntoPlace(beside, random[1]) ? 0 : -1;
    tidy(beside);
    return result;
}

/** Note that the socket in the place is ours. */
void keep()
{
    struct stat status;
    if (lstat(CPUDEFEND_CMD_SOCKET, &status) == 0)
        gCpuDefend.cmdSocketInode = status.st_ino;
}

} // namespace

int32_t cpuDefendSocketClaim()
{
    gCpuDefend.claim.isMade = 1;
    const char *hindered = lock() ? hindrance() : "another daemon has it";
    if (hindered)
        complain(hindered);
    return hindered ? -1 : 0;
}

// Its own name is tried first: the one that it is bound to is what lists of sockets show, and by
// that those who clean up in /tmp know a socket in use.
int32_t cpuDefendSocketBind(int32_t fd)
{
    const mode_t before = umask(S_IXUSR | S_IRWXG | S_IRWXO);
    int result = bindTo(fd, CPUDEFEND_CMD_SOCKET);
    if (result != 0 && errno == EADDRINUSE)
        result = bindBeside(fd);
    umask(before);
    if (result == 0)
        keep();
    else if (gCpuDefend.claim.isMade)
        complain(strerror(errno));
    return result;
}

void cpuDefendSocketRemove()
{
    struct stat status;
    if (gCpuDefend.cmdSocketInode != 0 && lstat(CPUDEFEND_CMD_SOCKET, &status) == 0 &&
        status.st_ino == gCpuDefend.cmdSocketInode)
        unlink(CPUDEFEND_CMD_SOCKET);
    gCpuDefend.cmdSocketInode = 0;
}

void cpuDefendSocketUnclaim()
{
    const int lock = gCpuDefend.claim.lock;
    gCpuDefend.claim = {};
    if (lock == 0)
        return;
    if (isOurLock(lock)) // still the file of that name
        unlink(LOCK_FILE);
    close(lock);
}
