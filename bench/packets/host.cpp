#include "host.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <sched.h>
#include <unistd.h>

namespace
{

constexpr char OUTPUT[] = "/tmp/bench-command.log";

void allow(pid_t thread, long first, long last)
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    for (long cpu = first; cpu <= last; cpu++)
        CPU_SET(static_cast<size_t>(cpu), &cpus);
    if (sched_setaffinity(thread, sizeof cpus, &cpus) != 0)
        fail("choose a CPU");
}

long lastCpu()
{
    return sysconf(_SC_NPROCESSORS_ONLN) - 1;
}

} // namespace

void fail(const std::string &what)
{
    throw Failure(fmt::format("couldn't {}: {}", what, strerror(errno)));
}

void command(const std::string &text)
{
    if (std::system(fmt::format("{} >{} 2>&1", text, OUTPUT).c_str()) == 0)
        return;
    std::ifstream said(OUTPUT);
    const std::string all{std::istreambuf_iterator<char>(said), {}};
    throw Failure(fmt::format("couldn't run {}: {}", text, all.substr(0, all.find('\n'))));
}

void write(const std::string &path, const std::string &text)
{
    std::ofstream file(path);
    if (!(file << text << std::flush))
        fail("write to " + path);
}

double cpuTime(pid_t thread)
{
    uint64_t ns = 0;
    if (!(std::ifstream(fmt::format("/proc/{}/schedstat", thread)) >> ns))
        fail("read the CPU time of a thread");
    return static_cast<double>(ns) / 1e9;
}

void keepOnLastCpu(pid_t thread)
{
    allow(thread, lastCpu(), lastCpu());
}

FirstCpu::FirstCpu()
{
    allow(0, 0, 0);
    const sched_param priority{.sched_priority = 10};
    if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0)
        fail("get real-time priority");
}

FirstCpu::~FirstCpu()
{
    const sched_param none{};
    sched_setscheduler(0, SCHED_OTHER, &none);
    allow(0, 0, lastCpu());
}
