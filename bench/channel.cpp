/**
 * Requests per second over the real socket (connect, request, reply, close), beside a bare
 * accept, recv, send, close loop that answers the same bytes. Both are asked in turn, round by
 * round, so that a machine whose speed drifts slows them alike; the medians and the ratio are
 * printed, once with client and server on a CPU each, where waking the other one counts most, and
 * once on the same CPU, where nothing but work does. Then the daemon's resident memory and its time
 * from start to an accepting socket.
 */
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "cpuDefend_nm.h"
#include "daemon_process.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int ROUNDS = 15;
constexpr int REQUESTS = 4000;
constexpr char BARE_SOCKET[] = "/tmp/cpudefend-bench-bare.socket";

// clang-format off
/** Get of usePolicyNum, with its length before it. */
const uint8_t request[] = {
    0, 0, 0, 37,                                     // length of the body
    0, 0, 0, CPUDEFEND_GLOBAL_GETAPI,                // function code
    0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0,              // request id, reserved, return code
    0, 0, 0, CPUDEFEND_GLOBAL_USEPOLICYNUM,          // attribute
    ZYN_SECTION_INDEX, 0, 2, 0, 4, 0, 0, 0, 0, // no index; a unit
    ZYN_SECTION_VALUE, 2, 0, 4, 0, 0, 0, 0};   // an integer to answer into
// clang-format on

sockaddr_un addressOf(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path);
    return address;
}

[[noreturn]] void fail(const char *what)
{
    perror(what);
    exit(1);
}

/** The least a server of this protocol can do. Runs in a process of its own. */
[[noreturn]] void bareServer(int listener)
{
    uint8_t buf[4 + CPUDEFEND_CMD_MAXLEN];
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        const ssize_t len = recv(fd, buf, sizeof buf, 0);
        if (len > 0 && send(fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL) != len)
            _exit(1);
        close(fd);
    }
}

pid_t startBareServer()
{
    unlink(BARE_SOCKET);
    const sockaddr_un address = addressOf(BARE_SOCKET);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 10) != 0)
        fail("bench: couldn't listen");
    const pid_t pid = fork();
    if (pid == 0)
        bareServer(listener);
    close(listener);
    return pid;
}

void ask(const sockaddr_un &address)
{
    uint8_t reply[sizeof request];
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        send(fd, request, sizeof request, MSG_NOSIGNAL) != sizeof request ||
        recv(fd, reply, sizeof reply, MSG_WAITALL) != sizeof reply)
        fail("bench: no reply");
    close(fd);
}

/** Requests per second of one round. */
double round(const sockaddr_un &address)
{
    const auto begin = Clock::now();
    for (int i = 0; i < REQUESTS; i++)
        ask(address);
    const std::chrono::duration<double> took = Clock::now() - begin;
    return REQUESTS / took.count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/** Keep a process on one CPU; a process id of 0 is this one. */
void pin(pid_t pid, unsigned cpu)
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu, &cpus);
    if (sched_setaffinity(pid, sizeof cpus, &cpus) != 0)
        fail("bench: couldn't choose a CPU");
}

/** Ask both servers in turn, with the client on CPU 0. */
void compareWithBareLoop(const char *where, unsigned serverCpu)
{
    const pid_t bare = startBareServer();
    DaemonProcess daemon;
    pin(0, 0);
    pin(bare, serverCpu);
    pin(daemon.pid(), serverCpu);
    const sockaddr_un bareAddress = addressOf(BARE_SOCKET);
    const sockaddr_un daemonAddress = addressOf(CPUDEFEND_CMD_SOCKET);
    std::vector<double> bareRate, daemonRate, ratio;
    round(bareAddress);
    round(daemonAddress);
    for (int i = 0; i < ROUNDS; i++) {
        bareRate.push_back(round(bareAddress));
        daemonRate.push_back(round(daemonAddress));
        ratio.push_back(daemonRate.back() / bareRate.back());
    }
    kill(bare, SIGKILL);
    waitpid(bare, nullptr, 0);
    unlink(BARE_SOCKET);
    printf("requests/s, %s   bare loop %.0f   daemon %.0f   ratio %.3f (medians of %d)\n", where,
           median(bareRate), median(daemonRate), median(ratio), ROUNDS);
}

/** A line of /proc/PID/status, in kB. */
long statusOf(pid_t pid, const std::string &name)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(name + ":", 0) == 0)
            return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
    return -1;
}

void measureMemory()
{
    DaemonProcess daemon;
    usleep(200000); // idle, one turn of its loop done
    printf("resident memory, idle   %ld kB (of it private %ld kB)\n",
           statusOf(daemon.pid(), "VmRSS"), statusOf(daemon.pid(), "RssAnon"));
}

void measureStart()
{
    std::vector<double> took;
    for (int i = 0; i < ROUNDS; i++) {
        unlink(CPUDEFEND_CMD_SOCKET);
        const auto begin = Clock::now();
        DaemonProcess daemon;
        took.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    printf("start to accepting      %.1f ms (median of %d, polled every 2 ms)\n", median(took),
           ROUNDS);
}

} // namespace

int main()
{
    if (sysconf(_SC_NPROCESSORS_ONLN) > 1)
        compareWithBareLoop("two CPUs", 1);
    compareWithBareLoop("one CPU ", 0);
    measureMemory();
    measureStart();
}
