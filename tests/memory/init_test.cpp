/**
 * How the platform comes up, seen from outside: a probe process under chosen environments.
 */
#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "memory/init.h"
#include "scratch.h"

namespace
{

const char standardFile[] = "/etc/cpudefend/platform.toml";

struct Outcome {
    int status; /**< exit status; -1 when a signal ended it */
    std::string out;
    std::string err;
};

/** Within the child: its output into files, its environment as wanted, and off. */
[[noreturn]] void become(const Scratch &scratch, const std::map<std::string, std::string> &env,
                         const std::vector<std::string> &command)
{
    dup2(open(scratch.path("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
    dup2(open(scratch.path("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
    for (const char *name : {"CPUDEFEND_PLATFORM", "CPUDEFEND_JOURNAL", "CPUDEFEND_ROLE"})
        unsetenv(name);
    for (const auto &[name, value] : env)
        setenv(name.c_str(), value.c_str(), 1);
    std::vector<char *> argv;
    for (const std::string &word : command)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
}

struct PlatformInit : testing::Test {
    /** The probe stands in a folder of its own, so that the test decides what is beside it. */
    PlatformInit()
    {
        mkdir(scratch.path("bin").c_str(), 0700);
        std::filesystem::copy_file(MEMORY_INIT_PROBE, probe);
    }

    /** Run the probe with further arguments. */
    Outcome run(const std::map<std::string, std::string> &env,
                const std::vector<std::string> &arguments = {})
    {
        std::istringstream emulator(MEMORY_INIT_EMULATOR);
        std::vector<std::string> command;
        for (std::string word; emulator >> word;)
            command.push_back(word);
        command.push_back(probe);
        command.insert(command.end(), arguments.begin(), arguments.end());
        pid_t child = fork();
        if (child == 0)
            become(scratch, env, command);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, scratch.read("out"),
                scratch.read("err")};
    }

    Scratch scratch;
    const std::string probe = scratch.path("bin/probe");
    const std::string sibling = scratch.path("bin/cpuDefend.linux");
};

/** The same on a host that has no platform file of its own. */
struct MemoryServes : PlatformInit {
    void SetUp() override
    {
        if (access(standardFile, F_OK) == 0)
            GTEST_SKIP() << standardFile << " asks for the Linux data plane on this host";
    }
};

/** A temporary stand-in for the executable of the Linux data plane. */
void writeScript(const std::string &path, const std::string &text)
{
    std::ofstream(path) << "#!/bin/sh\n" << text;
    chmod(path.c_str(), 0700);
}

} // namespace

TEST_F(MemoryServes, WithoutConfiguration)
{
    Outcome outcome = run({});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "init 0\nmaster\n");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(MemoryServes, WithEmptyVariablesAsWithout)
{
    Outcome outcome =
        run({{"CPUDEFEND_PLATFORM", ""}, {"CPUDEFEND_JOURNAL", ""}, {"CPUDEFEND_ROLE", ""}});
    EXPECT_EQ(outcome.out, "init 0\nmaster\n");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(MemoryServes, AsTheRoleThatIsConfigured)
{
    EXPECT_EQ(run({{"CPUDEFEND_ROLE", "slave"}}).out, "init 0\nslave\n");
    EXPECT_EQ(run({{"CPUDEFEND_ROLE", "master"}}).out, "init 0\nmaster\n");
}

TEST_F(MemoryServes, NotAnUnknownRole)
{
    Outcome outcome = run({{"CPUDEFEND_ROLE", "Slave"}});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "init 78\n");
    EXPECT_EQ(outcome.err,
              "cpuDefend: couldn't take the role Slave: CPUDEFEND_ROLE is master or slave\n");
}

TEST_F(MemoryServes, WithAJournal)
{
    std::string journal = scratch.path("journal");
    EXPECT_EQ(run({{"CPUDEFEND_JOURNAL", journal}}).status, 0);
    EXPECT_EQ(run({{"CPUDEFEND_JOURNAL", journal}}).status, 0); // goes behind the first
    std::string text = scratch.read("journal");
    size_t first = text.find(R"({"seq":1,)");
    ASSERT_EQ(first, 0u);
    EXPECT_NE(text.find(R"("call":"zynHwScalarGet","index":0,)"), std::string::npos) << text;
    EXPECT_NE(text.find("\n{\"seq\":1,"), std::string::npos) << text;
}

TEST_F(MemoryServes, NotWithAJournalThatCannotBeOpened)
{
    std::string journal = scratch.path("none/journal");
    Outcome outcome = run({{"CPUDEFEND_JOURNAL", journal}});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "init 78\n");
    EXPECT_EQ(outcome.err,
              "cpuDefend: couldn't open the journal " + journal + ": No such file or directory\n");
}

TEST_F(MemoryServes, NotWithAJournalThatIsAPipeOrALink)
{
    const std::string pipe = scratch.path("pipe"), link = scratch.path("link");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(symlink("elsewhere", link.c_str()), 0);
    EXPECT_EQ(run({{"CPUDEFEND_JOURNAL", pipe}}).err,
              "cpuDefend: couldn't open the journal " + pipe + ": it is no regular file\n");
    EXPECT_EQ(run({{"CPUDEFEND_JOURNAL", link}}).err,
              "cpuDefend: couldn't open the journal " + link + ": it is a symbolic link\n");
    EXPECT_FALSE(std::filesystem::exists(scratch.path("elsewhere")));
}

TEST_F(PlatformInit, LinuxDataPlaneGetsArgumentsAndEnvironment)
{
    writeScript(sibling, "echo \"$CPUDEFEND_PLATFORM|$OTHER\"\nfor a; do echo \"<$a>\"; done\n");
    Outcome outcome = run({{"CPUDEFEND_PLATFORM", "box.toml"}, {"OTHER", "kept"}}, {"8", "a b"});
    EXPECT_EQ(outcome.out, "box.toml|kept\n<8>\n<a b>\n");
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(PlatformInit, LinuxDataPlaneReplacesTheProcess)
{
    writeScript(sibling, "exit 42\n");
    Outcome outcome = run({{"CPUDEFEND_PLATFORM", "box.toml"}});
    EXPECT_EQ(outcome.status, 42);
    EXPECT_EQ(outcome.out, ""); // nothing of the probe after the call
}

TEST_F(PlatformInit, MissingLinuxDataPlaneIsAnErrorNotAFallBack)
{
    Outcome outcome = run({{"CPUDEFEND_PLATFORM", "box.toml"}});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "init 78\n");
    EXPECT_EQ(outcome.err,
              "cpuDefend: couldn't start the Linux data plane that box.toml asks for: " + sibling +
                  ": No such file or directory\n");
}

TEST_F(PlatformInit, LinuxDataPlaneThatIsNoProgramIsAnError)
{
    std::ofstream(sibling) << "";
    Outcome outcome = run({{"CPUDEFEND_PLATFORM", "box.toml"}});
    EXPECT_EQ(outcome.out, "init 78\n");
    EXPECT_EQ(outcome.err,
              "cpuDefend: couldn't start the Linux data plane that box.toml asks for: " + sibling +
                  ": Permission denied\n");
}

/* ---- Which file asks ------------------------------------------------------------------ */

struct LinuxPlatformAsked : testing::Test {
    Scratch scratch;
    const std::string absent = scratch.path("platform.toml");
};

TEST_F(LinuxPlatformAsked, TheVariableComesFirst)
{
    std::string there = scratch.write("there.toml", "");
    EXPECT_STREQ(linuxPlatformAsked("box.toml", there.c_str()), "box.toml");
    EXPECT_STREQ(linuxPlatformAsked("box.toml", absent.c_str()), "box.toml");
}

TEST_F(LinuxPlatformAsked, TheFileAsksByBeingThere)
{
    std::string there = scratch.write("there.toml", "");
    EXPECT_STREQ(linuxPlatformAsked(nullptr, there.c_str()), there.c_str());
    EXPECT_STREQ(linuxPlatformAsked("", there.c_str()), there.c_str());
}

TEST_F(LinuxPlatformAsked, NothingAsks)
{
    EXPECT_EQ(linuxPlatformAsked(nullptr, absent.c_str()), nullptr);
    EXPECT_EQ(linuxPlatformAsked("", absent.c_str()), nullptr);
    std::string file = scratch.write("file", "");
    EXPECT_EQ(linuxPlatformAsked(nullptr, (file + "/platform.toml").c_str()), nullptr);
    EXPECT_EQ(linuxPlatformAsked(nullptr, scratch.path("none/platform.toml").c_str()), nullptr);
}

TEST_F(LinuxPlatformAsked, LinkToNowhereAsks)
{
    ASSERT_EQ(symlink("nowhere", absent.c_str()), 0);
    EXPECT_STREQ(linuxPlatformAsked(nullptr, absent.c_str()), absent.c_str());
}

TEST_F(LinuxPlatformAsked, FileThatCannotBeSeenAsks)
{
    std::string loop = scratch.path("loop");
    ASSERT_EQ(symlink("loop", loop.c_str()), 0); // ELOOP, whoever asks
    std::string beyond = loop + "/platform.toml";
    EXPECT_STREQ(linuxPlatformAsked(nullptr, beyond.c_str()), beyond.c_str());
}
