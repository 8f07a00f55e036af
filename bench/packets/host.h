/**
 * What the benchmark asks of the machine it runs on.
 */
#ifndef BENCH_PACKETS_HOST_H
#define BENCH_PACKETS_HOST_H

#include <stdexcept>
#include <string>
#include <sys/types.h>

/** The message is "couldn't do this to that: reason", without the program's name before it. */
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/** "couldn't WHAT: reason of errno" */
[[noreturn]] void fail(const std::string &what);

/** Run a command of the shell's, which must succeed; what it says is part of the failure. */
void command(const std::string &text);

/** Replace a file's content. */
void write(const std::string &path, const std::string &text);

/** CPU time of a thread so far, in seconds. */
double cpuTime(pid_t thread);

/** Keep a thread on the CPU of the protected side: the last one. */
void keepOnLastCpu(pid_t thread);

/**
 * While this object lives the calling thread has the first CPU for itself, so that what else the
 * machine does is felt less. For a second or so.
 */
class FirstCpu
{
public:
    FirstCpu();
    ~FirstCpu();
    FirstCpu(const FirstCpu &) = delete;
    FirstCpu &operator=(const FirstCpu &) = delete;
};

#endif
