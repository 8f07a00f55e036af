#include "daemon_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "cpuDefend_nm.h"

namespace
{

using Clock = std::chrono::steady_clock;

/** The command line: the emulator's words, where there is one, then the program's. */
std::vector<std::string> commandLine(const std::string &program,
                                     const std::vector<std::string> &args)
{
    std::vector<std::string> words;
    std::istringstream emulator(CPUDEFEND_TEST_EMULATOR);
    for (std::string word; emulator >> word;)
        words.push_back(word);
    words.push_back(program.empty() ? CPUDEFEND_TEST_DAEMON : program);
    words.insert(words.end(), args.begin(), args.end());
    return words;
}

pid_t start(const std::string &program, const std::vector<std::string> &args,
            const std::map<std::string, std::string> &env, int errFd)
{
    std::vector<std::string> words = commandLine(program, args);
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    for (const auto &[name, value] : env)
        setenv(name.c_str(), value.c_str(), 1);
    dup2(errFd, STDERR_FILENO);
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
}

int openErrors()
{
    char name[] = "/tmp/cpudefend-test-XXXXXX";
    const int lowest = mkstemp(name);
    const int fd = fcntl(lowest, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); // not one that a test closed
    if (fd < 0)
        throw std::runtime_error("no file for the daemon's messages");
    close(lowest);
    unlink(name);
    return fd;
}

std::string contents(int fd)
{
    std::string text;
    char buf[4096];
    off_t at = 0;
    for (ssize_t n; (n = pread(fd, buf, sizeof buf, at)) > 0; at += n)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

bool readFully(int fd, void *buf, size_t len)
{
    auto *at = static_cast<uint8_t *>(buf);
    while (len > 0) {
        const ssize_t n = recv(fd, at, len, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        at += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

/** Whether the daemon answers, if only to a request that is none: it may listen before it serves.
 */
bool answers()
{
    const int fd = connectToDaemon();
    if (fd < 0)
        return false;
    const uint8_t empty[4] = {};
    uint8_t reply[4];
    pollfd ready{fd, POLLIN, 0};
    const bool answered = send(fd, empty, sizeof empty, MSG_NOSIGNAL) == sizeof empty &&
                          poll(&ready, 1, 1000) == 1 && readFully(fd, reply, sizeof reply);
    close(fd);
    return answered;
}

} // namespace

DaemonProcess::DaemonProcess(std::vector<std::string> args, std::map<std::string, std::string> env,
                             const std::string &program, int errFd)
    : errFd_(errFd >= 0 ? errFd : openErrors())
{
    pid_ = start(program, args, env, errFd_);
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (Clock::now() < deadline) {
        if (answers())
            return;
        if (!running())
            break;
        usleep(2000);
    }
    throw std::runtime_error("the daemon did not start: " + errors());
}

DaemonProcess::~DaemonProcess()
{
    if (pid_ > 0)
        stop(SIGKILL);
    close(errFd_);
}

bool DaemonProcess::running()
{
    int status;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_)
        pid_ = -1;
    return pid_ > 0;
}

int DaemonProcess::stop(int signal)
{
    int status = 0;
    kill(pid_, signal);
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR)
        ;
    pid_ = -1;
    return status;
}

std::string DaemonProcess::errors() const
{
    return contents(errFd_);
}

int runDaemon(const std::vector<std::string> &args, const std::map<std::string, std::string> &env,
              int seconds, std::string *errors)
{
    const int errFd = openErrors();
    const pid_t pid = start("", args, env, errFd);
    const auto deadline = Clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    int result = -1;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            status = -1;
            break;
        }
        usleep(2000);
    }
    if (status != -1)
        result = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (errors)
        *errors = contents(errFd);
    close(errFd);
    return result;
}

int connectToDaemon()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, CPUDEFEND_CMD_SOCKET);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return fd;
    close(fd);
    return -1;
}

bool exchange(const Bytes &body, Bytes *reply)
{
    const int fd = connectToDaemon();
    if (fd < 0)
        return false;
    auto framed =
        Bytes{static_cast<uint8_t>(body.size() >> 24), static_cast<uint8_t>(body.size() >> 16),
              static_cast<uint8_t>(body.size() >> 8), static_cast<uint8_t>(body.size())};
    framed.insert(framed.end(), body.begin(), body.end());
    uint8_t head[4];
    bool done = send(fd, framed.data(), framed.size(), MSG_NOSIGNAL) ==
                    static_cast<ssize_t>(framed.size()) &&
                readFully(fd, head, sizeof head);
    if (done) {
        reply->resize(static_cast<size_t>(head[0]) << 24 | head[1] << 16 | head[2] << 8 | head[3]);
        done = readFully(fd, reply->data(), reply->size());
    }
    close(fd);
    return done;
}
