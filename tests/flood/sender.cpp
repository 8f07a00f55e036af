#include "sender.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <future>
#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdexcept>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <linux/if_packet.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include "base/descriptor.h"
#include "sender.skel.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr uint32_t kernelBatch = 64;   // frames between two turns of the receiver
constexpr uint32_t endless = 1u << 30; // frames; more than any flood here has
constexpr uint32_t batchesPerSecond = 5000;
constexpr std::chrono::milliseconds latest{10}; // behind its time that a batch is still sent

std::runtime_error failure(const std::string &what)
{
    return std::runtime_error("couldn't " + what + ": " + std::strerror(errno));
}

sender_bpf *loadSender(const std::string &port, uint32_t sources)
{
    sender_bpf *program = sender_bpf__open();
    if (!program)
        throw failure("open the sender's program");
    program->rodata->ifindex = if_nametoindex(port.c_str());
    program->rodata->sources = sources;
    if (sender_bpf__load(program) == 0)
        return program;
    sender_bpf__destroy(program);
    throw failure("load the sender's program");
}

/** A signal that does nothing but end a system call. */
constexpr int nudge = SIGUSR1;

void listenToNudges()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(nudge, &action, nullptr);
}

/** Keep to the n-th CPU that this thread may use. */
void keepTo(unsigned n)
{
    cpu_set_t allowed, one;
    CPU_ZERO(&one);
    sched_getaffinity(0, sizeof allowed, &allowed);
    n %= static_cast<unsigned>(CPU_COUNT(&allowed));
    for (size_t cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &allowed) && n-- == 0)
            CPU_SET(cpu, &one);
    sched_setaffinity(0, sizeof one, &one);
}

zynlinux::Descriptor openPort(const std::string &port)
{
    zynlinux::Descriptor fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(port.c_str()));
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        throw failure("open port " + port);
    return fd;
}

/** Be woken on time, also while CPUs are flooded. */
void bePunctual()
{
    const sched_param priority{.sched_priority = 10};
    if (sched_setscheduler(0, SCHED_FIFO, &priority) != 0)
        prctl(PR_SET_TIMERSLACK, 1);
}

void sleepUntil(Clock::time_point time)
{
    const auto ns = std::chrono::nanoseconds(time.time_since_epoch()).count();
    const timespec deadline{ns / 1'000'000'000, ns % 1'000'000'000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR)
        ;
}

/** Send a frame so many times; what the port had no room for is sent again. */
void sendBatch(int fd, const Octets &frame, uint32_t count)
{
    iovec part{const_cast<uint8_t *>(frame.data()), frame.size()};
    std::array<mmsghdr, 64> messages{};
    for (mmsghdr &each : messages) {
        each.msg_hdr.msg_iov = &part;
        each.msg_hdr.msg_iovlen = 1;
    }
    while (count > 0) {
        int done = sendmmsg(fd, messages.data(), std::min<uint32_t>(count, messages.size()), 0);
        if (done < 0 && errno != ENOBUFS && errno != EINTR)
            throw failure("send");
        count -= static_cast<uint32_t>(std::max(done, 0));
    }
}

Stream stream(const std::string &port, const Octets &frame, uint32_t rate, uint64_t count)
{
    const zynlinux::Descriptor fd = openPort(port);
    const uint32_t batch = std::max(1u, rate / batchesPerSecond);
    const auto gap = std::chrono::nanoseconds(1'000'000'000ull * batch / rate);
    const auto begin = Clock::now();
    auto due = begin;
    for (uint64_t left = count; left > 0; due += gap) {
        sleepUntil(due);
        if (Clock::now() - due > latest)
            due = Clock::now();
        const auto now = static_cast<uint32_t>(std::min<uint64_t>(batch, left));
        sendBatch(fd.get(), frame, now);
        left -= now;
    }
    return {count, static_cast<double>(count) / std::chrono::duration<double>(due - begin).count()};
}

} // namespace

Generator::Generator(const std::string &port, uint32_t sources)
    : program_(loadSender(port, sources), sender_bpf__destroy)
{
}

Generator::~Generator() = default;

bool Generator::send(const Octets &frame, uint32_t count) const
{
    xdp_md context{};
    context.data_end = static_cast<uint32_t>(frame.size());
    LIBBPF_OPTS(bpf_test_run_opts, options);
    options.data_in = frame.data();
    options.data_size_in = static_cast<uint32_t>(frame.size());
    options.ctx_in = &context;
    options.ctx_size_in = sizeof context;
    options.repeat = static_cast<int>(count);
    options.flags = BPF_F_TEST_XDP_LIVE_FRAMES;
    options.batch_size = kernelBatch;
    if (bpf_prog_test_run_opts(bpf_program__fd(program_->progs.send_away), &options) == 0)
        return true;
    if (errno != EINTR)
        throw failure("send frames from the kernel");
    return false;
}

uint64_t Generator::sent() const
{
    uint64_t sum = 0;
    for (const __u64 &each : program_->bss->sent)
        sum += __atomic_load_n(&each, __ATOMIC_RELAXED);
    return sum;
}

Flood::Flood(const std::string &port, const std::vector<Octets> &frames, unsigned cpus,
             uint32_t sources)
    : generator_(port, sources)
{
    listenToNudges();
    running_ = frames.size() * cpus;
    for (const Octets &frame : frames)
        for (unsigned cpu = 0; cpu < cpus; cpu++)
            threads_.emplace_back([this, frame, cpu] { run(frame, cpu); });
}

Flood::~Flood()
{
    stop();
}

void Flood::run(const Octets &frame, unsigned cpu)
{
    keepTo(cpu);
    while (!stop_)
        generator_.send(frame, endless);
    running_--;
}

uint64_t Flood::stop()
{
    stop_ = true;
    while (running_ > 0) { // a nudge between two calls is lost
        for (std::thread &thread : threads_)
            pthread_kill(thread.native_handle(), nudge);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (std::thread &thread : threads_)
        thread.join();
    threads_.clear();
    return sent();
}

Stream sendEvenly(const std::string &port, const Octets &frame, uint32_t rate, uint64_t count)
{
    return std::async(std::launch::async,
                      [&] {
                          bePunctual();
                          return stream(port, frame, rate, count);
                      })
        .get();
}
