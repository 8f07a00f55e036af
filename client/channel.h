/**
 * The stream socket to the daemon.
 */
#ifndef CPUDEFEND_CLIENT_CHANNEL_H
#define CPUDEFEND_CLIENT_CHANNEL_H

#include <chrono>
#include <span>
#include <string>
#include <utility>

#include "codec.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

/** A request under way, on a connection of its own. */
class Pending
{
public:
    using Clock = std::chrono::steady_clock;

    Pending(Pending &&other) noexcept
        : fd_(std::exchange(other.fd_, -1)), deadline_(other.deadline_)
    {
    }
    Pending &operator=(Pending &&) = delete;
    ~Pending();

    /**
     * Receive the reply, once.
     * @return its body
     *
     * Throws Error as Channel::exchange does. The time began with the request; a reply that is
     * there is taken however late.
     */
    Bytes reply();

private:
    friend class Channel;

    explicit Pending(Clock::time_point deadline);
    void connectTo(const std::string &path);
    void sendAll(const Bytes &bytes);
    void await(short event);
    void receive(std::size_t wanted, std::span<uint8_t> bytes, std::size_t *received);
    Clock::duration left() const;

    int fd_;
    Clock::time_point deadline_;
};

/** Where the daemon listens, and how long to wait for it. Holds no connection. */
class Channel
{
public:
    static constexpr std::chrono::milliseconds kTimeout{5000};

    explicit Channel(std::string path = CPUDEFEND_CMD_SOCKET,
                     std::chrono::milliseconds timeout = kTimeout);

    /**
     * Connect and send one request. Nothing is sent to a daemon that runs neither as root nor as
     * this process's user. The daemon serves requests one after the other, in this order.
     * @param body the request's body
     */
    Pending begin(const Bytes &body) const;

    /**
     * One request and its reply.
     * @param body the request's body
     * @return the reply's body
     *
     * Throws Error with one of the failures that come before a whole reply, or ReplyMalformed. The
     * time limit holds for the whole exchange.
     */
    Bytes exchange(const Bytes &body) const { return begin(body).reply(); }

private:
    std::string path_;
    std::chrono::milliseconds timeout_;
};

} // namespace cpudefend

#endif
