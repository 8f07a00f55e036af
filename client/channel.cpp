#include "client/channel.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "client/errors.h"

namespace cpudefend
{

namespace
{

using Clock = std::chrono::steady_clock;

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

/** One connection. Each call blocks no longer than what is left until the deadline. */
class Connection
{
public:
    explicit Connection(Clock::time_point deadline)
        : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)), deadline_(deadline)
    {
        if (fd_ < 0)
            failWithErrno("socket");
    }
    ~Connection() { close(fd_); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    void connectTo(const std::string &path);
    void sendAll(const Bytes &bytes);
    Bytes receive(std::size_t length, const char *atOnceEnded);

private:
    void limit(int option);

    int fd_;
    Clock::time_point deadline_;
};

void Connection::limit(int option)
{
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline_ - Clock::now()).count();
    if (left <= 0)
        fail(Failure::TimedOut, kTooLate);
    const timeval time{left / 1000000, left % 1000000};
    if (setsockopt(fd_, SOL_SOCKET, option, &time, sizeof time) < 0)
        failWithErrno("setsockopt");
}

// A send limit bounds the wait for a place in the listener's queue, too.
void Connection::connectTo(const std::string &path)
{
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path)
        fail(Failure::System, "the socket's path is too long: " + path);
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    do {
        limit(SO_SNDTIMEO);
        if (connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
            return checkPeer(fd_, path);
    } while (errno == EINTR);
    failToConnect(path);
}

void Connection::sendAll(const Bytes &bytes)
{
    for (std::size_t at = 0; at < bytes.size();) {
        limit(SO_SNDTIMEO);
        const ssize_t n = send(fd_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR)
            failWithErrno("send");
        at += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
}

/** @param atOnceEnded what it means when not one byte comes */
Bytes Connection::receive(std::size_t length, const char *atOnceEnded)
{
    Bytes bytes(length);
    for (std::size_t at = 0; at < length;) {
        limit(SO_RCVTIMEO);
        const ssize_t n = recv(fd_, bytes.data() + at, length - at, 0);
        if (n == 0)
            fail(Failure::Closed, at == 0 ? atOnceEnded : kCutShort);
        if (n < 0 && errno != EINTR)
            failWithErrno("recv");
        at += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
    return bytes;
}

} // namespace

Channel::Channel(std::string path, std::chrono::milliseconds timeout)
    : path_(std::move(path)), timeout_(timeout)
{
}

Bytes Channel::exchange(const Bytes &body) const
{
    Connection connection(Clock::now() + timeout_);
    connection.connectTo(path_);
    connection.sendAll(frame(body));
    const uint32_t length = Decoder(connection.receive(kFrameHeader, kNoReply)).u32();
    if (length > CPUDEFEND_CMD_MAXLEN)
        fail(Failure::ReplyMalformed, "the daemon's reply is longer than a reply can be");
    return connection.receive(length, kCutShort);
}

} // namespace cpudefend
