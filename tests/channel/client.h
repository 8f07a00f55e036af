/**
 * A client of the channel within the daemon's own process.
 */
#ifndef CHANNEL_CLIENT_H
#define CHANNEL_CLIENT_H

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cpuDefend.h"
#include "request.h"

namespace channel
{

/** A client's end of the channel. */
class Client
{
public:
    Client() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, CPUDEFEND_CMD_SOCKET);
        EXPECT_EQ(0, connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address));
    }
    ~Client() { hangUp(); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /** @return false when the other end is gone */
    bool write(const Bytes &data) const
    {
        return send(fd_, data.data(), data.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(data.size());
    }

    /** All that arrives until the daemon closes the connection. */
    Bytes readAll() const
    {
        Bytes got;
        uint8_t buf[2048];
        for (ssize_t n; (n = ::read(fd_, buf, sizeof buf)) != 0;) {
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                break;
            got.insert(got.end(), buf, buf + n);
        }
        return got;
    }

    void hangUp()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

/** A body behind its length. */
inline Bytes framed(const Bytes &body)
{
    return be32(static_cast<uint32_t>(body.size())) + body;
}

} // namespace channel

#endif
