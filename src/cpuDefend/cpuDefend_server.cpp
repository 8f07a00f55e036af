/**
 * The management channel: one request and one reply per connection.
 */
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include "cpuDefend.h"

namespace
{

constexpr uint32_t LENGTH_LEN = ZYN_FRAME_HEAD;
constexpr int RECEIVE_LOW_WATER = 30; // bytes
constexpr int64_t PATIENCE = 1000;    // ms for all of a request, and for all of a reply

/** Milliseconds of real time, whatever clock the timers have. */
int64_t now()
{
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

/** How long one client may keep us waiting. The second begins when it first does. */
class Patience
{
public:
    /** After a transfer that moved nothing: wait for @a event. @return whether to try again */
    bool retry(int fd, short event)
    {
        if (errno == EINTR)
            return true;
        if (errno != EAGAIN)
            return false;
        const int64_t left = remaining();
        pollfd wait{fd, event, 0};
        if (left > 0 && poll(&wait, 1, static_cast<int>(left)) != 0)
            return true; // also when cut by a signal: the next transfer tells
        errno = ETIMEDOUT;
        return false;
    }

private:
    int64_t remaining()
    {
        const int64_t time = now();
        if (deadline_ == 0)
            deadline_ = time + PATIENCE;
        return deadline_ - time;
    }

    int64_t deadline_ = 0; // 0: it has not kept us waiting yet
};

/** A request as it arrives: its length, then its body. */
struct tFrame {
    unsigned char bytes[LENGTH_LEN + CPUDEFEND_CMD_MAXLEN];
    uint32_t received;

    unsigned char *body() { return bytes + LENGTH_LEN; }
};

/**
 * Receive until at least @a wanted bytes of the frame are there. All that has come is taken at
 * once: mostly that is the whole request.
 * @return false with errno set
 */
bool receive(int fd, tFrame &frame, uint32_t wanted, Patience &patience)
{
    while (frame.received < wanted) {
        const ssize_t got = recv(fd, frame.bytes + frame.received,
                                 sizeof frame.bytes - frame.received, MSG_DONTWAIT);
        if (got > 0) {
            frame.received += static_cast<uint32_t>(got);
        } else if (got == 0) {
            errno = ECONNRESET;
            return false;
        } else if (!patience.retry(fd, POLLIN)) {
            return false;
        }
    }
    return true;
}

/** Send the length and the body. @return bytes sent, fewer than both with errno set */
uint32_t sendReply(int fd, unsigned char *length, unsigned char *body, uint32_t bodyLen)
{
    Patience patience;
    iovec pieces[2] = {{length, LENGTH_LEN}, {body, bodyLen}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    uint32_t sent = 0;
    while (sent < LENGTH_LEN + bodyLen) {
        const ssize_t moved = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (moved < 0) {
            if (!patience.retry(fd, POLLOUT))
                break;
            continue;
        }
        sent += static_cast<uint32_t>(moved);
        const uint32_t head = sent < LENGTH_LEN ? sent : LENGTH_LEN;
        pieces[0] = {length + head, LENGTH_LEN - head};
        pieces[1] = {body + (sent - head), bodyLen - (sent - head)};
    }
    return sent;
}

int32_t failed(const char *what)
{
    if (osMessageAdmitted())
        perror(what);
    return -1;
}

int32_t reply(int fd, unsigned char *body, uint32_t bodyLen)
{
    unsigned char length[LENGTH_LEN];
    adr_t adr;
    adr_start(&adr, length, sizeof length);
    adr_int32(&adr, static_cast<int32_t>(bodyLen));
    const uint32_t sent = sendReply(fd, length, body, bodyLen);
    if (sent == LENGTH_LEN + bodyLen)
        return 0;
    const int reason = errno;
    CPUDEFEND_DEBUG("\r\n send %d bytes was different from %d in line %d in func %s!",
                    static_cast<int>(sent), static_cast<int>(LENGTH_LEN + bodyLen), __LINE__,
                    "cpudefendCmdServer");
    errno = reason;
    return failed("cpudefendCmdServer sendto failed!");
}

uint32_t lengthOf(tFrame &frame)
{
    uint32_t length;
    adr_t adr;
    adr_start(&adr, frame.bytes, LENGTH_LEN);
    return adr_getuint32(&adr, &length) == 0 ? length : 0;
}

bool receiveBody(int fd, tFrame &frame, uint32_t len, Patience &patience)
{
    if (len > CPUDEFEND_CMD_MAXLEN) {
        errno = EMSGSIZE;
        return false;
    }
    return receive(fd, frame, LENGTH_LEN + len, patience);
}

int32_t serve(int fd)
{
    tFrame frame;
    frame.received = 0;
    Patience patience;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &RECEIVE_LOW_WATER, sizeof RECEIVE_LOW_WATER) != 0)
        return failed("\r\n cpudefendCmdServer setsockopt failed!");
    if (!receive(fd, frame, LENGTH_LEN, patience))
        return failed("\r\n cpudefendCmdServer recv buflen failed!");
    const uint32_t len = lengthOf(frame);
    if (!receiveBody(fd, frame, len, patience))
        return failed("\r\n cpudefendCmdServer recv buf failed!");
    const uint32_t replyLen = cpudefendCmdProcess(frame.body(), len);
    if (replyLen == 0)
        CPUDEFEND_DEBUG("\r\n call cpudefendCmdProcess failed in line %d in func %s", __LINE__,
                        "cpudefendCmdServer");
    return reply(fd, frame.body(), replyLen);
}

int acceptClient()
{
    int fd;
    do {
        fd = accept4(gCpuDefend.cmdSock, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

} // namespace

int32_t cpudefendCmdServer()
{
    const int fd = acceptClient();
    if (fd <= 0)
        return failed("\r\n cpudefendCmdServer accept failed!");
    const int32_t result = serve(fd);
    close(fd);
    return result;
}
