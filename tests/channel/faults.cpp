#include "faults.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "zynosal.h"

using faults::Call;
using faults::plan;

faults::Plan faults::plan;

/** True when the plan fails this call; errno is set then. */
static bool fails(Call call)
{
    std::deque<int> &next = plan.next[call];
    if (next.empty())
        return false;
    const int error = next.front();
    next.pop_front();
    if (error)
        errno = error;
    return error != 0;
}

static int accepted(int fd)
{
    if (fd < 0)
        return fd;
    plan.acceptedCloseOnExec &= (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    if (plan.accepted)
        plan.accepted(fd);
    return fd;
}

extern "C" {

int __real_accept(int fd, sockaddr *address, socklen_t *length);
int __real_accept4(int fd, sockaddr *address, socklen_t *length, int flags);
int __real_setsockopt(int fd, int level, int option, const void *value, socklen_t length);
ssize_t __real_recv(int fd, void *buf, size_t length, int flags);
ssize_t __real_recvfrom(int fd, void *buf, size_t length, int flags, sockaddr *address,
                        socklen_t *addressLength);
ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
int __real_select(int count, fd_set *read, fd_set *write, fd_set *except, timeval *wait);
int __real_bind(int fd, const sockaddr *address, socklen_t length);
int __real_rename(const char *from, const char *to);
long __real_syscall(long number, ...);
int __real_chmod(const char *path, mode_t mode);
int __real_fchmod(int fd, mode_t mode);
int32_t __real_OsixTakeSem(tOsixSemId sem, int32_t wait);
int32_t __real_OsixGiveSem(tOsixSemId sem);

int __wrap_accept(int fd, sockaddr *address, socklen_t *length)
{
    return fails(Call::Accept) ? -1 : accepted(__real_accept(fd, address, length));
}

int __wrap_accept4(int fd, sockaddr *address, socklen_t *length, int flags)
{
    return fails(Call::Accept) ? -1 : accepted(__real_accept4(fd, address, length, flags));
}

int __wrap_setsockopt(int fd, int level, int option, const void *value, socklen_t length)
{
    if (fails(Call::SetSockOpt))
        return -1;
    if (level == SOL_SOCKET && option == SO_RCVLOWAT)
        memcpy(&plan.lowWaterMark, value, sizeof plan.lowWaterMark);
    return __real_setsockopt(fd, level, option, value, length);
}

ssize_t __wrap_recv(int fd, void *buf, size_t length, int flags)
{
    return fails(Call::Recv) ? -1 : __real_recv(fd, buf, length, flags);
}

ssize_t __wrap_recvfrom(int fd, void *buf, size_t length, int flags, sockaddr *address,
                        socklen_t *addressLength)
{
    if (fails(Call::RecvFrom))
        return -1;
    if (!plan.datagram)
        return __real_recvfrom(fd, buf, length, flags, address, addressLength);
    const size_t size = std::min(length, plan.datagram->data.size());
    memcpy(buf, plan.datagram->data.data(), size);
    sockaddr_nl sender{};
    sender.nl_family = AF_NETLINK;
    sender.nl_pid = plan.datagram->senderPort;
    memcpy(address, &sender, std::min<size_t>(*addressLength, sizeof sender));
    *addressLength = sizeof sender;
    plan.datagram.reset();
    return static_cast<ssize_t>(size);
}

/** Send the first bytes of a message alone. */
static ssize_t sendPart(int fd, const msghdr *message, int flags)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < message->msg_iovlen; i++) {
        const iovec &piece = message->msg_iov[i];
        const auto *at = static_cast<const uint8_t *>(piece.iov_base);
        bytes.insert(bytes.end(), at, at + piece.iov_len);
    }
    bytes.resize(std::min(bytes.size(), plan.sendAtMost));
    iovec part{bytes.data(), bytes.size()};
    msghdr shorter{};
    shorter.msg_iov = &part;
    shorter.msg_iovlen = 1;
    return __real_sendmsg(fd, &shorter, flags);
}

ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags)
{
    if (plan.sending)
        plan.sending();
    if (fails(Call::SendMsg))
        return -1;
    return plan.sendAtMost ? sendPart(fd, message, flags) : __real_sendmsg(fd, message, flags);
}

int __wrap_select(int count, fd_set *read, fd_set *write, fd_set *except, timeval *wait)
{
    plan.selects.push_back(
        {count, *read, write != nullptr, except != nullptr, wait ? *wait : timeval{-1, 0}});
    if (fails(Call::Select))
        return -1;
    if (plan.ready) {
        FD_ZERO(read);
        FD_SET(*plan.ready, read);
        plan.ready.reset();
        return 1;
    }
    if (plan.noWait)
        *wait = timeval{0, 0};
    return __real_select(count, read, write, except, wait);
}

int __wrap_bind(int fd, const sockaddr *address, socklen_t length)
{
    if (plan.binding)
        plan.binding();
    const int result = __real_bind(fd, address, length);
    struct stat status;
    if (result == 0 && address->sa_family == AF_UNIX &&
        stat(reinterpret_cast<const sockaddr_un *>(address)->sun_path, &status) == 0)
        plan.modeWhenBound = status.st_mode;
    return result;
}

int __wrap_rename(const char *from, const char *to)
{
    if (plan.moving)
        plan.moving();
    return __real_rename(from, to);
}

/** Of the system calls by number, what goes by here is renameat2. */
long __wrap_syscall(long number, int fromFolder, const char *from, int toFolder, const char *to,
                    unsigned flags)
{
    if (plan.moving)
        plan.moving();
    return __real_syscall(number, fromFolder, from, toFolder, to, flags);
}

int __wrap_chmod(const char *path, mode_t mode)
{
    ++plan.modeChanges;
    return __real_chmod(path, mode);
}

int __wrap_fchmod(int fd, mode_t mode)
{
    ++plan.modeChanges;
    return __real_fchmod(fd, mode);
}

int32_t __wrap_OsixTakeSem(tOsixSemId sem, int32_t wait)
{
    const int32_t result = __real_OsixTakeSem(sem, wait);
    plan.semDepth += result == 0;
    return result;
}

int32_t __wrap_OsixGiveSem(tOsixSemId sem)
{
    const int32_t result = __real_OsixGiveSem(sem);
    plan.semDepth -= result == 0;
    return result;
}

void __wrap_NM_DEBUG_OUTPUT(const char *format, ...)
{
    plan.depthAtMessage.push_back(plan.semDepth);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

} // extern "C"
