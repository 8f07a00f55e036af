/**
 * The stream socket to the daemon.
 */
#ifndef CPUDEFEND_CLIENT_CHANNEL_H
#define CPUDEFEND_CLIENT_CHANNEL_H

#include <chrono>
#include <string>

#include "client/codec.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

/** Where the daemon listens, and how long to wait for it. Holds no connection. */
class Channel
{
public:
    static constexpr std::chrono::milliseconds kTimeout{5000};

    explicit Channel(std::string path = CPUDEFEND_CMD_SOCKET,
                     std::chrono::milliseconds timeout = kTimeout);

    /**
     * Connect, send one request, receive its reply, close. Nothing is sent to a daemon that runs
     * neither as root nor as this process's user.
     * @param body the request's body
     * @return the reply's body
     *
     * Throws Error with any Failure but Refused and RequestMalformed. The time limit holds for
     * the whole exchange.
     */
    Bytes exchange(const Bytes &body) const;

private:
    std::string path_;
    std::chrono::milliseconds timeout_;
};

} // namespace cpudefend

#endif
