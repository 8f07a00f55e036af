#include "client/channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "client/errors.h"

namespace cpudefend
{

namespace
{

constexpr const char *kNoReply = "the daemon closed the connection without a reply";
constexpr const char *kCutShort = "the daemon's reply is cut short";
constexpr const char *kTooLate = "the daemon did not answer in time";

[[noreturn]] void fail(Failure failure, const std::string &reason)
{
    throw Error(failure, reason);
}

[[noreturn]] void failWithErrno(const char *call)
{
    const int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK)
        fail(Failure::TimedOut, kTooLate);
    if (error == EPIPE || error == ECONNRESET)
        fail(Failure::Closed, kNoReply);
    fail(Failure::System, std::string(call) + ": " + std::strerror(error));
}

[[noreturn]] void failToConnect(const std::string &path)
{
    if (errno == ENOENT || errno == ECONNREFUSED)
        fail(Failure::NotRunning, "the daemon is not running (nothing listens on " + path + ")");
    if (errno == EACCES || errno == EPERM)
        fail(Failure::NotPermitted, "permission denied on " + path);
    failWithErrno("connect");
}

/**
 * The socket lies where everybody may put one: what is sent is for the daemon alone, not for
 * somebody who has taken its place.
 */
void checkPeer(int fd, const std::string &path)
{
    ucred peer{};
    struct stat place {
    };
    if (lstat(path.c_str(), &place) == 0 && !S_ISSOCK(place.st_mode))
        fail(Failure::NotTrusted, path + " is no socket: a link may lead to anybody's");
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) < 0)
        failWithErrno("getsockopt");
    if (peer.uid != 0 && peer.uid != geteuid())
        fail(Failure::NotTrusted, "user " + std::to_string(peer.uid) + " listens on " + path +
                                      ", who is neither root nor you");
}

} // namespace

Pending::Pending(Clock::time_point deadline)
    : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), deadline_(deadline)
{
    if (fd_ < 0)
        failWithErrno("socket");
}

Pending::~Pending()
{
    if (fd_ >= 0)
        close(fd_);
}

Pending::Clock::duration Pending::left() const
{
    const auto left = deadline_ - Clock::now();
    if (left <= Clock::duration::zero())
        fail(Failure::TimedOut, kTooLate);
    return left;
}

// A send limit bounds the wait for a place in the listener's queue.
void Pending::connectTo(const std::string &path)
{
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path)
        fail(Failure::System, "the socket's path is too long: " + path);
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    do {
        const auto us = std::chrono::ceil<std::chrono::microseconds>(left()).count();
        const timeval time{us / 1000000, us % 1000000};
        if (setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time) < 0)
            failWithErrno("setsockopt");
        if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return checkPeer(fd_, path);
    } while (errno == EINTR);
    failToConnect(path);
}

/** After a transfer that moved nothing: wait until the next one can. */
void Pending::await(short event)
{
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left()).count();
    pollfd wait{fd_, event, 0};
    if (poll(&wait, 1, static_cast<int>(ms)) < 0 && errno != EINTR)
        failWithErrno("poll");
}

void Pending::sendAll(const Bytes &bytes)
{
    for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t n =
            send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0)
            at += static_cast<std::size_t>(n);
        else if (errno == EAGAIN)
            await(POLLOUT);
        else if (errno != EINTR)
            failWithErrno("send");
    }
}

/** Receive until at least @a wanted bytes are there: mostly all of them have come at once. */
void Pending::receive(std::size_t wanted, std::span<uint8_t> bytes, std::size_t *received)
{
    while (*received < wanted) {
        const auto rest = bytes.subspan(*received);
        const ssize_t n = recv(fd_, rest.data(), rest.size(), MSG_DONTWAIT);
        if (n > 0)
            *received += static_cast<std::size_t>(n);
        else if (n == 0)
            fail(Failure::Closed, *received == 0 ? kNoReply : kCutShort);
        else if (errno == EAGAIN)
            await(POLLIN);
        else if (errno != EINTR)
            failWithErrno("recv");
    }
}

Bytes Pending::reply()
{
    std::array<uint8_t, kFrameHeader + CPUDEFEND_CMD_MAXLEN> bytes;
    std::size_t received = 0;
    receive(kFrameHeader, bytes, &received);
    const uint32_t length = Decoder(bytes).u32();
    if (length > CPUDEFEND_CMD_MAXLEN)
        fail(Failure::ReplyMalformed, "the daemon's reply is longer than a reply can be");
    receive(kFrameHeader + length, bytes, &received);
    return {bytes.begin() + kFrameHeader, bytes.begin() + kFrameHeader + length};
}

Channel::Channel(std::string path, std::chrono::milliseconds timeout)
    : path_(std::move(path)), timeout_(timeout)
{
}

Pending Channel::begin(const Bytes &body) const
{
    Pending pending(Pending::Clock::now() + timeout_);
    pending.connectTo(path_);
    pending.sendAll(frame(body));
    return pending;
}

} // namespace cpudefend
