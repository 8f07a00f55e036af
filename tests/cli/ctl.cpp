#include "ctl.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>

extern char **environ;

namespace
{

/** A nameless file that takes a program's output. */
class Capture
{
public:
    Capture() : file_(std::tmpfile())
    {
        if (!file_)
            throw std::runtime_error("no temporary file");
    }
    ~Capture() { std::fclose(file_); }
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    int fd() const { return fileno(file_); }

    std::string text() const
    {
        std::string text;
        std::rewind(file_);
        for (int c; (c = std::fgetc(file_)) != EOF;)
            text += static_cast<char>(c);
        return text;
    }

private:
    std::FILE *file_;
};

std::string commandLine(const std::vector<std::string> &args)
{
    std::string line = "cpudefendctl";
    for (const std::string &arg : args)
        line += " " + arg;
    return line;
}

} // namespace

Outcome runProgram(std::vector<std::string> words)
{
    Capture out, err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out.fd(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.fd(), STDERR_FILENO);
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid;
    const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::runtime_error("cannot run " + words[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out.text(),
            err.text()};
}

Outcome runCtl(std::vector<std::string> args)
{
    args.insert(args.begin(), CPUDEFEND_TEST_CTL);
    return runProgram(std::move(args));
}

std::string ctlOutput(const std::vector<std::string> &args)
{
    SCOPED_TRACE(commandLine(args));
    const Outcome outcome = runCtl(args);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
}

void expectDone(const std::vector<std::string> &args)
{
    EXPECT_EQ(ctlOutput(args), "") << commandLine(args);
}

void expectFailure(const std::vector<std::string> &args, int status, const std::string &message)
{
    SCOPED_TRACE(commandLine(args));
    const Outcome outcome = runCtl(args);
    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "cpudefendctl: " + message + "\n");
}

std::string outputWithWarning(const std::vector<std::string> &args, const std::string &message)
{
    SCOPED_TRACE(commandLine(args));
    const Outcome outcome = runCtl(args);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "cpudefendctl: warning: " + message + "\n");
    return outcome.out;
}

CtlTest::CtlTest(const std::string &program)
    : journal_("/tmp/cli-test-journal." + std::to_string(getpid())),
      daemon_({}, {{"CPUDEFEND_JOURNAL", journal_}}, program)
{
}

CtlTest::~CtlTest()
{
    unlink(journal_.c_str());
}

bool CtlTest::journalGets(const std::string &text) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (journal(text).empty()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        usleep(10000);
    }
    return true;
}

std::vector<std::string> CtlTest::journal(const std::string &text) const
{
    std::vector<std::string> lines;
    std::ifstream file(journal_);
    for (std::string line; std::getline(file, line);)
        if (line.find(text) != std::string::npos)
            lines.push_back(line);
    return lines;
}
