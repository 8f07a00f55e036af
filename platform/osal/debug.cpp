#include "zynosal.h"

#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#if __has_include(<execinfo.h>)
#include <execinfo.h>
#define HAVE_BACKTRACE 1
#else
#define HAVE_BACKTRACE 0
#endif

namespace
{

constexpr struct {
    int number;
    const char *name;
} FATAL_SIGNALS[] = {
    {SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"},   {SIGILL, "SIGILL"},
    {SIGFPE, "SIGFPE"},   {SIGABRT, "SIGABRT"},
};

constexpr int MAX_FRAMES = 64;

/** The handler's stack: the ordinary one may be what ran out. */
alignas(16) char signalStack[64 * 1024];

/* ---- What follows runs in a signal handler: async-signal-safe functions only ---- */

/** A line put together without stdio, which a handler may not call. */
struct Line {
    char text[128];
    size_t len;
};

void append(Line *line, const char *text)
{
    while (*text && line->len < sizeof line->text)
        line->text[line->len++] = *text++;
}

void appendNumber(Line *line, uintptr_t value, unsigned base)
{
    char digits[3 * sizeof value + 1];
    char *first = digits + sizeof digits - 1;
    *first = '\0';
    do {
        *--first = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    append(line, first);
}

void writeAll(const Line *line)
{
    size_t done = 0;
    while (done < line->len) {
        const ssize_t written = write(STDERR_FILENO, line->text + done, line->len - done);
        if (written > 0)
            done += static_cast<size_t>(written);
        else if (errno != EINTR)
            return;
    }
}

const char *signalName(int number)
{
    for (const auto &fatal : FATAL_SIGNALS)
        if (fatal.number == number)
            return fatal.name;
    return "signal";
}

void writeBacktrace()
{
#if HAVE_BACKTRACE
    void *frames[MAX_FRAMES];
    backtrace_symbols_fd(frames, backtrace(frames, MAX_FRAMES), STDERR_FILENO);
#endif
}

void onFatalSignal(int number, siginfo_t *info, void *)
{
    signal(SIGPIPE, SIG_IGN); // a reader of standard error that is gone must not end the process

    Line line = {};
    append(&line, "cpuDefend: caught ");
    append(&line, signalName(number));
    append(&line, " (signal ");
    appendNumber(&line, static_cast<uintptr_t>(number), 10);
    append(&line, ")");
    if (info->si_code > 0) { // raised by the processor, not by kill()
        append(&line, ", fault address 0x");
        appendNumber(&line, reinterpret_cast<uintptr_t>(info->si_addr), 16);
    }
    append(&line, "\n");
    writeAll(&line);
    writeBacktrace();
    raise(number); // its default action is back in force, and it is not blocked
}

/* ---- End of what runs in a signal handler ---- */

/** The first backtrace loads the unwinder, which a handler may not do. */
void warmUpBacktrace()
{
#if HAVE_BACKTRACE
    void *frame;
    backtrace(&frame, 1);
#endif
}

/* ---- How many messages there may be ---- */

constexpr uint64_t MESSAGE_TIME = 1000 / OS_MESSAGES_RATE; // ms
constexpr uint64_t BURST_TIME = OS_MESSAGES_BURST * MESSAGE_TIME;
constexpr uint64_t SUMMARY_TIME = 1000;

struct {
    uint32_t about;                             // OS_MESSAGES_OF_*
    uint64_t full[OS_MESSAGES_OF_REQUESTS + 1]; // ms: when so many may come at once again
    uint32_t leftOut;
    uint64_t summary; // ms: when what was left out was said last
} messages;

/** Take a message out of a bucket, if there is one. */
bool take(uint64_t *full)
{
    const uint64_t now = osClockNow();
    if (*full < now || *full > now + BURST_TIME) // the latter with another clock
        *full = now;
    if (*full + MESSAGE_TIME > now + BURST_TIME)
        return false;
    *full += MESSAGE_TIME;
    return true;
}

void sayWhatWasLeftOut()
{
    const uint64_t now = osClockNow();
    if (messages.leftOut == 0 || now - messages.summary < SUMMARY_TIME)
        return;
    fprintf(stderr, "\r\n[cpuDefend] %u messages were left out\r\n", messages.leftOut);
    messages.leftOut = 0;
    messages.summary = now;
}

} // namespace

void osMessagesAbout(uint32_t about)
{
    messages.about = about <= OS_MESSAGES_OF_REQUESTS ? about : 0;
    sayWhatWasLeftOut();
}

int osMessageAdmitted(void)
{
    const bool admitted =
        messages.about == OS_MESSAGES_OF_START || take(&messages.full[messages.about]);
    messages.leftOut += !admitted;
    return admitted;
}

void NM_DEBUG_OUTPUT(const char *format, ...)
{
    if (!osMessageAdmitted())
        return;
    const int savedErrno = errno; // a perror may follow the message
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    errno = savedErrno;
}

void zynCatchSegFault(void)
{
    warmUpBacktrace();

    stack_t stack = {};
    stack.ss_sp = signalStack;
    stack.ss_size = sizeof signalStack;
    sigaltstack(&stack, nullptr);

    struct sigaction action = {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = static_cast<int>(SA_SIGINFO | SA_ONSTACK | SA_RESETHAND | SA_NODEFER);
    sigemptyset(&action.sa_mask);
    for (const auto &fatal : FATAL_SIGNALS)
        sigaction(fatal.number, &action, nullptr);
}
