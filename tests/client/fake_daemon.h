/**
 * A server in the test's own process that answers as the test wants, also wrongly.
 */
#ifndef FAKE_DAEMON_H
#define FAKE_DAEMON_H

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

#include "client/codec.h"

/** Serves one connection after the other. */
class FakeDaemon
{
public:
    /** @param serve given the connection and the body of the request that came on it */
    explicit FakeDaemon(std::function<void(int fd, const cpudefend::Bytes &body)> serve)
        : path_("/tmp/fake-daemon." + std::to_string(getpid()))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path_.c_str());
        unlink(path_.c_str());
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener_, 1) != 0)
            throw std::runtime_error("no socket for the fake daemon");
        thread_ = std::thread([this, serve = std::move(serve)] { run(serve); });
    }

    ~FakeDaemon()
    {
        shutdown(listener_, SHUT_RDWR); // ends the wait for the next one
        thread_.join();
        close(listener_);
        unlink(path_.c_str());
    }

    const std::string &path() const { return path_; }

private:
    void run(const std::function<void(int, const cpudefend::Bytes &)> &serve)
    {
        for (int fd; (fd = accept(listener_, nullptr, nullptr)) >= 0; close(fd)) {
            uint8_t head[4];
            if (recv(fd, head, sizeof head, MSG_WAITALL) != sizeof head)
                continue;
            cpudefend::Bytes body(cpudefend::Decoder(head).u32());
            recv(fd, body.data(), body.size(), MSG_WAITALL);
            serve(fd, body);
        }
    }

    std::string path_;
    int listener_;
    std::thread thread_;
};

/** Send a body with its length in front. */
inline void reply(int fd, const cpudefend::Bytes &body)
{
    const cpudefend::Bytes framed = cpudefend::frame(body);
    send(fd, framed.data(), framed.size(), MSG_NOSIGNAL);
}

#endif
