/**
 * The daemon on this data plane, as a process of its own: what it asks of the layer, and what the
 * layer answers, as its journal tells.
 */
#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <nlohmann/json.hpp>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "acls_on_wire.h"
#include "channel/request.h"
#include "cpuDefend_nm.h"
#include "daemon_process.h"
#include "layer_on_wire.h"
#include "memory/scratch.h"

using namespace std::chrono_literals;
using nlohmann::json;

namespace
{

class DaemonOnWire : public OnWire
{
protected:
    /** @param more lines of the platform file */
    void start(const std::string &more = "")
    {
        file.emplace(unpinned + "ports = [\"" + protectedPort + "\"]\n" + more);
        daemon.emplace(
            std::vector<std::string>{},
            std::map<std::string, std::string>{{"CPUDEFEND_PLATFORM", file->path()},
                                               {"CPUDEFEND_JOURNAL", scratch.path("journal")}});
    }

    /** Set a global attribute over the socket. @return the return code */
    int32_t setGlobal(uint32_t attribute, const channel::Value &value)
    {
        return ask(CPUDEFEND_GLOBAL_SETAPI, attribute, channel::globalIndex(), value);
    }

    int32_t setPolicy(const std::string &name, uint32_t attribute, uint32_t value)
    {
        return ask(CPUDEFEND_POLICY_SETAPI, attribute, channel::policyIndex(name),
                   channel::number(value));
    }

    int32_t ask(uint32_t code, uint32_t attribute, const channel::Index &index,
                const channel::Value &value)
    {
        Bytes reply;
        Bytes body = channel::request(code, attribute, index, value, 64);
        if (!::exchange(body, &reply) || reply.size() < channel::CODE_AT + 4)
            return INT32_MIN;
        uint32_t answer = 0;
        for (size_t i = 0; i < 4; i++)
            answer = answer << 8 | reply[channel::CODE_AT + i];
        return static_cast<int32_t>(answer);
    }

    /** The journal's whole lines of a call. */
    std::vector<json> journal(const std::string &call) const
    {
        std::vector<json> found;
        std::string text = scratch.read("journal");
        text.resize(text.rfind('\n') + 1); // the daemon may be writing
        std::istringstream all(text);
        for (std::string line; std::getline(all, line);) {
            json object = json::parse(line);
            if (object.at("call") == call)
                found.push_back(std::move(object));
        }
        return found;
    }

    Scratch scratch;
    std::optional<PlatformFile> file;
    std::optional<DaemonProcess> daemon;
};

TEST_F(DaemonOnWire, ReadsTheKernelsCpuUsageInCpuRateMode)
{
    start();
    ASSERT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICYMODE, channel::number(1)), 0);
    ASSERT_TRUE(within(10s, [&] { return journal("zynHwCpuGet").size() >= 2; }));
    for (const json &line : journal("zynHwCpuGet")) {
        EXPECT_EQ(line.at("selector"), 1);
        EXPECT_EQ(line.at("id"), "HW_CPU_USED");
        EXPECT_EQ(line.at("result"), 0);
        EXPECT_LE(line.at("value").get<uint32_t>(), 10000u);
    }
}

TEST_F(DaemonOnWire, BindingIsProgrammedSynchronisedAndJournaled)
{
    start();
    ASSERT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, channel::octets("default")), 0);
    auto syncs = journal("zynHwScalarSync");
    ASSERT_EQ(syncs.size(), 1u);
    EXPECT_EQ(syncs[0].at("scalarId"), 8000);
    EXPECT_EQ(syncs[0].at("value"), "default");
    EXPECT_EQ(syncs[0].at("result"), 0);

    auto entries = journal("zynScalarSetApi");
    ASSERT_EQ(entries.size(), 10u);
    for (size_t type = 0; type < entries.size(); type++) {
        EXPECT_EQ(entries[type].at("func").at("hwCmd"), "HW_SYS_CPUDEFENDPKTCARADD");
        EXPECT_EQ(entries[type].at("entry").at("pktType"), type);
        EXPECT_EQ(entries[type].at("result"), 0) << type;
    }
}

/** How often a text stands in another. */
size_t times(const std::string &text, const std::string &in)
{
    size_t n = 0;
    for (size_t at = in.find(text); at != in.npos; at = in.find(text, at + 1))
        n++;
    return n;
}

TEST_F(DaemonOnWire, ListThatDidNotFitIsInForceWithinASecondOnceItFits)
{
    start(hugeList(102));
    ASSERT_EQ(setPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_CREATE), 0);
    ASSERT_EQ(setPolicy("p", CPUDEFEND_POLICY_BLACKLISTENABLE, CPUDEFEND_ENABLE), 0);
    ASSERT_EQ(setPolicy("p", CPUDEFEND_POLICY_BLACKLISTIP4ACL, 102), 0);
    const int32_t result = setGlobal(CPUDEFEND_GLOBAL_POLICY, channel::octets("p"));
    EXPECT_TRUE(result == ENOSPC || result == 0) << result; // 0 where it takes a while to find out
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_DEBUG, channel::number(2)), 0);
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
    const std::string lost = "[platform] ACL 102 (deny) is not put in force on the system: with "
                             "those before it, its tables do not fit\n";
    EXPECT_TRUE(within(5s, [&] { return times(lost, daemon->errors()) == 1; }));
    const size_t asked = journal("acl_cpudefend_add").size();
    kill(daemon->pid(), SIGHUP);
    EXPECT_TRUE(within(5s, [&] { return journal("acl_cpudefend_add").size() > asked; }))
        << "it is asked for again";
    EXPECT_EQ(times(lost, daemon->errors()), 1u) << daemon->errors();

    file.reset();
    file.emplace(unpinned + "ports = [\"" + protectedPort + "\"]\n[[acl]]\nnumber = 102\n" +
                 "family = \"ipv4\"\nrules = [\"permit udp 192.0.2.7 any\"]\n");
    kill(daemon->pid(), SIGHUP);
    EXPECT_TRUE(within(3s, [&] { return !udpArrives("192.0.2.7", 5000); }));
    EXPECT_EQ(times(lost, daemon->errors()), 1u) << daemon->errors();
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, channel::octets("")), 0);
    EXPECT_TRUE(udpArrives("192.0.2.7", 5000));
}

TEST_F(DaemonOnWire, SlaveProgramsNothing)
{
    start("role = \"slave\"\n");
    ASSERT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, channel::octets("default")), 0);
    auto roles = journal("zynHwScalarGet");
    ASSERT_FALSE(roles.empty());
    for (const json &line : roles)
        EXPECT_EQ(line.at("result"), line.at("id") == "HW_SYS_SWRUNNINGROLEISSLAVE" ? 0 : 1);
    EXPECT_TRUE(journal("zynScalarSetApi").empty());
}

/** Keep for this process, and all that it starts, the capabilities of the service alone. */
bool keepServiceCapabilities()
{
    for (unsigned long capability = 0; prctl(PR_CAPBSET_READ, capability) >= 0; capability++) {
        bool kept =
            capability == CAP_NET_ADMIN || capability == CAP_PERFMON || capability == CAP_BPF;
        if (!kept && prctl(PR_CAPBSET_DROP, capability) != 0)
            return false;
    }
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

TEST_F(DaemonOnWire, NeedsOnlyTheCapabilitiesOfItsService)
{
    pid_t child = fork();
    if (child == 0) {
        EXPECT_TRUE(keepServiceCapabilities());
        start();
        EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, channel::octets("default")), 0);
        auto entries = journal("zynScalarSetApi");
        EXPECT_EQ(entries.size(), 10u);
        for (const json &line : entries)
            EXPECT_EQ(line.at("result"), 0);
        daemon.reset();
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST_F(DaemonOnWire, StartIsRefusedBeforeAnyPortIsTouchedWhileAnotherDaemonServes)
{
    DaemonProcess other;
    PlatformFile own(unpinned + "ports = [\"" + protectedPort + "\"]\n");
    std::string errors;
    EXPECT_EQ(runDaemon({}, {{"CPUDEFEND_PLATFORM", own.path()}}, 20, &errors), 255);
    EXPECT_EQ(errors, "cpuDefend: couldn't take " CPUDEFEND_CMD_SOCKET ": another daemon has it\n");
    EXPECT_EQ(programOn(protectedPort), 0u);
}

TEST_F(DaemonOnWire, TakesItsSocketWithItWhenItIsToldToStop)
{
    start();
    int status = daemon->stop(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) << status;
    EXPECT_NE(access(CPUDEFEND_CMD_SOCKET, F_OK), 0);
}

TEST_F(DaemonOnWire, JournalThatCannotBeOpenedKeepsTheDaemonFromStarting)
{
    PlatformFile own(unpinned + std::string("ports = [\"") + protectedPort + "\"]\n");
    std::string errors;
    EXPECT_EQ(runDaemon({}, {{"CPUDEFEND_PLATFORM", own.path()}, {"CPUDEFEND_JOURNAL", "/none/j"}},
                        20, &errors),
              ZYN_EXIT_CONFIG);
    EXPECT_NE(errors.find("couldn't open the journal /none/j: No such file or directory\n"),
              std::string::npos)
        << errors;
}

/** A daemon whose start fails at one step or another, with the data plane pinned. */
class DaemonThatFails : public LayerOnWire
{
protected:
    std::map<std::string, std::string> platform(const std::string &ports) const
    {
        std::ofstream(scratch.path("platform.toml"))
            << "pin = \"" + pinFolder + "\"\nports = [" + ports + "]\n";
        return {{"CPUDEFEND_PLATFORM", scratch.path("platform.toml")},
                {"ASAN_OPTIONS", "allocator_may_return_null=1"}};
    }

    /** More records than any machine has room for. */
    void failForWantOfMemory(std::string *errors) const
    {
        EXPECT_EQ(runDaemon({"4294967295"}, platform("\"port0\""), 20, errors), 255);
    }

    Scratch scratch;
};

TEST_F(DaemonThatFails, LeavesNothingBehindForWantOfMemory)
{
    std::string errors;
    failForWantOfMemory(&errors);
    EXPECT_EQ(errors.find("[platform]"), std::string::npos) << errors;
    EXPECT_EQ(programOn(protectedPort), 0u);
    EXPECT_FALSE(std::filesystem::exists(pinFolder));
    EXPECT_NE(access(CPUDEFEND_CMD_SOCKET, F_OK), 0);
}

TEST_F(DaemonThatFails, LeavesAFormerProtectionAsItWasForWantOfMemory)
{
    DaemonProcess former({}, platform("\"port0\""));
    former.stop(SIGKILL);
    const uint32_t left = programOn(protectedPort);
    ASSERT_NE(left, 0u);
    std::string errors;
    failForWantOfMemory(&errors);
    EXPECT_EQ(programOn(protectedPort), left);
    DaemonProcess next({}, platform("\"port0\""));
    EXPECT_NE(next.errors().find("as it was left"), std::string::npos) << next.errors();
}

TEST_F(DaemonThatFails, LeavesNoSocketBehindWhenAPortIsTaken)
{
    command(std::string("ip link add other0 type veth peer name other1"));
    const zynlinux::Descriptor other = constantProgram(XDP_PASS);
    ASSERT_EQ(bpf_xdp_attach(static_cast<int>(if_nametoindex("other0")), other.get(), 0, nullptr),
              0);
    std::string errors;
    EXPECT_EQ(runDaemon({}, platform("\"port0\", \"other0\""), 20, &errors), 255);
    EXPECT_NE(errors.find("another XDP program is on it"), std::string::npos) << errors;
    EXPECT_NE(access(CPUDEFEND_CMD_SOCKET, F_OK), 0);
    EXPECT_EQ(programOn(protectedPort), 0u);
}

} // namespace
