#include "zynosal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// The functions that crash: exported, so that a backtrace names them.
extern "C" {

volatile int depthLimit = INT32_MAX;

__attribute__((noinline)) void crashWriting(volatile char *address)
{
    *address = 1;
}

__attribute__((noinline)) void crashRaising(int number)
{
    raise(number);
    depthLimit = depthLimit - 1; // no tail call, which would leave no frame
}

__attribute__((noinline)) int crashRecursing(int depth)
{
    volatile char frame[1024];
    frame[0] = static_cast<char>(depth);
    return depth < depthLimit ? crashRecursing(depth + 1) + frame[0] : 0;
}

// Under AddressSanitizer: crashes are this library's to report.
const char *__asan_default_options()
{
    return "handle_segv=0:handle_sigbus=0:handle_abort=0:handle_sigill=0:handle_sigfpe=0:"
           "use_sigaltstack=0";
}

} // extern "C"

namespace
{

/** What the report of a crash in or below the exported function @a name has after its first line.
 */
std::string frameOf(const char *name)
{
#if __has_include(<execinfo.h>)
    return std::string("\n.*\\(") + name + "\\+0x[0-9a-f]+\\)";
#else
    (void)name; // no backtrace from this C library
    return "\n";
#endif
}

/** A page that may not be touched. */
volatile char *forbiddenPage()
{
    void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(page, MAP_FAILED);
    return static_cast<volatile char *>(page);
}

std::string hex(const volatile void *address)
{
    char text[32];
    snprintf(text, sizeof text, "0x%jx", static_cast<uintmax_t>((uintptr_t)address));
    return text;
}

/** To be called in a process that is to die. */
void prepareToCrash()
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    zynCatchSegFault();
}

struct Fatal {
    int number;
    const char *name;
};

class FatalSignalDeathTest : public testing::TestWithParam<Fatal>
{
};

} // namespace

TEST(DebugOutput, PrintsOnStandardErrorAsPrintf)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    NM_DEBUG_OUTPUT("\r\n lenRx %d err in func %s in line %u!", -3, "f", 7u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "\r\n lenRx -3 err in func f in line 7!");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(DebugOutput, LeavesErrnoToAPerrorThatFollows)
{
    const int kept = dup(STDERR_FILENO);
    ASSERT_EQ(close(STDERR_FILENO), 0); // the output fails, and would set errno
    errno = EPIPE;
    NM_DEBUG_OUTPUT("text");
    const int after = errno;
    ASSERT_EQ(dup2(kept, STDERR_FILENO), STDERR_FILENO);
    close(kept);
    clearerr(stderr);
    EXPECT_EQ(after, EPIPE);
}

/* ---- How many there may be ------------------------------------------------------------ */

namespace
{

uint64_t testTime = 1'000'000; // ms; it goes on from test to test, as time does

/** Messages on a clock that the test steps, with nothing left of those before. */
class MessageLimit : public testing::Test
{
protected:
    void SetUp() override
    {
        osClockSet([] { return testTime; });
        saidAfter(1'000'000);
        testTime += 1'000'000;
    }
    void TearDown() override
    {
        osMessagesAbout(OS_MESSAGES_OF_START);
        osClockSet(nullptr);
    }

    /** Print so many messages about something. @return how many came */
    static size_t print(uint32_t about, unsigned count)
    {
        testing::internal::CaptureStderr();
        osMessagesAbout(about);
        for (unsigned i = 0; i < count; i++)
            NM_DEBUG_OUTPUT("#");
        const std::string text = testing::internal::GetCapturedStderr();
        return static_cast<size_t>(std::count(text.begin(), text.end(), '#'));
    }

    /** What is said when time has passed. */
    static std::string saidAfter(uint64_t ms)
    {
        testTime += ms;
        testing::internal::CaptureStderr();
        osMessagesAbout(OS_MESSAGES_OF_EVENTS);
        return testing::internal::GetCapturedStderr();
    }
};

} // namespace

TEST_F(MessageLimit, AStartSaysAll)
{
    EXPECT_EQ(print(OS_MESSAGES_OF_START, 5000), 5000u);
    EXPECT_EQ(saidAfter(1000), "");
}

TEST_F(MessageLimit, OfAFloodABurstIsPrintedAndThenARate)
{
    for (uint32_t about : {OS_MESSAGES_OF_EVENTS, OS_MESSAGES_OF_REQUESTS}) {
        EXPECT_EQ(print(about, 5000), OS_MESSAGES_BURST);
        testTime += 500;
        EXPECT_EQ(print(about, 5000), OS_MESSAGES_RATE / 2);
    }
}

TEST_F(MessageLimit, TheBurstIsThereAgainAfterItsTime)
{
    print(OS_MESSAGES_OF_EVENTS, 5000);
    saidAfter(1000 * OS_MESSAGES_BURST / OS_MESSAGES_RATE);
    EXPECT_EQ(print(OS_MESSAGES_OF_EVENTS, 5000), OS_MESSAGES_BURST);
}

TEST_F(MessageLimit, AFloodOfEventsLeavesTheRequestsTheirs)
{
    print(OS_MESSAGES_OF_EVENTS, 5000);
    EXPECT_EQ(print(OS_MESSAGES_OF_REQUESTS, 10), 10u);
}

TEST_F(MessageLimit, WhatWasLeftOutIsSaidOnceAndOnceASecondAtMost)
{
    print(OS_MESSAGES_OF_EVENTS, OS_MESSAGES_BURST + 7);
    EXPECT_EQ(saidAfter(0), "\r\n[cpuDefend] 7 messages were left out\r\n");
    EXPECT_EQ(saidAfter(0), "");
    print(OS_MESSAGES_OF_EVENTS, 3);
    EXPECT_EQ(saidAfter(999), "");
    EXPECT_EQ(saidAfter(1), "\r\n[cpuDefend] 3 messages were left out\r\n");
    EXPECT_EQ(saidAfter(5000), "");
}

TEST_F(MessageLimit, AnotherClockBeginsAnew)
{
    print(OS_MESSAGES_OF_EVENTS, 5000);
    osClockSet([] { return uint64_t{5}; });
    EXPECT_EQ(print(OS_MESSAGES_OF_EVENTS, 1), 1u);
}

TEST(CrashDeathTest, SegmentationFaultIsReportedWithItsAddress)
{
    volatile char *address = forbiddenPage() + 0x123;
    EXPECT_EXIT(
        {
            prepareToCrash();
            crashWriting(address);
        },
        testing::KilledBySignal(SIGSEGV),
        "cpuDefend: caught SIGSEGV \\(signal 11\\), fault address " + hex(address) +
            frameOf("crashWriting"));
}

TEST(CrashDeathTest, AbortIsReportedWithoutAnAddress)
{
    EXPECT_EXIT(
        {
            prepareToCrash();
            abort();
        },
        testing::KilledBySignal(SIGABRT),
        "cpuDefend: caught SIGABRT \\(signal 6\\)" + frameOf("abort"));
}

TEST(CrashDeathTest, StackOverflowIsReported)
{
    EXPECT_EXIT(
        {
            prepareToCrash();
            exit(crashRecursing(0));
        },
        testing::KilledBySignal(SIGSEGV),
        "cpuDefend: caught SIGSEGV \\(signal 11\\), fault address 0x[0-9a-f]+" +
            frameOf("crashRecursing"));
}

TEST_P(FatalSignalDeathTest, IsNamedAndEndsTheProcess)
{
    const Fatal fatal = GetParam();
    EXPECT_EXIT(
        {
            prepareToCrash();
            crashRaising(fatal.number);
        },
        testing::KilledBySignal(fatal.number),
        "cpuDefend: caught " + std::string(fatal.name) + " \\(signal " +
            std::to_string(fatal.number) + "\\)" + frameOf("crashRaising"));
}

INSTANTIATE_TEST_SUITE_P(Every, FatalSignalDeathTest,
                         testing::Values(Fatal{SIGSEGV, "SIGSEGV"}, Fatal{SIGBUS, "SIGBUS"},
                                         Fatal{SIGILL, "SIGILL"}, Fatal{SIGFPE, "SIGFPE"},
                                         Fatal{SIGABRT, "SIGABRT"}),
                         [](const auto &tested) { return std::string(tested.param.name); });

TEST(Crash, OfAProcessWhoseStandardErrorNobodyReadsIsStillItsOwn)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        prepareToCrash();
        dup2(ends[1], STDERR_FILENO);
        crashRaising(SIGSEGV);
        _exit(0);
    }
    close(ends[1]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
}
