#include "protection.h"

#include "client/client.h"
#include "host.h"
#include "wire.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <linux/if_link.h>
#include <net/if.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char PLATFORM_FILE[] = "/tmp/platform.toml";
constexpr char LOG[] = "/tmp/daemon.log";
constexpr char RULES_FILE[] = "/tmp/bench.rules";
constexpr unsigned MOST_LISTS = 16;
constexpr unsigned FIRST_LIST = 101; // its number
constexpr char POLICY[] = "bench";

/** Protocols that a policy has limits for; the one of the flood first. */
constexpr const char *PROTOCOLS[] = {"dhcpsnoopip", "dot1x", "arp", "igmpsnoop", "stpcustomer",
                                     "gvrp",        "udld",  "vtp", "igmp",      "alb"};

void control(const std::string &arguments)
{
    command(CPUDEFEND_BIN_DIR "/cpudefendctl " + arguments);
}

bool channelAnswers()
{
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    strcpy(to.sun_path, CPUDEFEND_CMD_SOCKET);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answers = connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0;
    close(fd);
    return answers;
}

/** Wait for a process to end. @return whether it did in time */
bool ended(pid_t pid, milliseconds time)
{
    const auto deadline = Clock::now() + time;
    while (waitpid(pid, nullptr, WNOHANG) == 0) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

std::string lastLineOf(const char *path)
{
    std::ifstream file(path);
    std::string last;
    for (std::string line; std::getline(file, line);)
        last = line;
    return last;
}

/** The map of maps by a name that a program uses. @return its descriptor, or -1 */
int mapOfMaps(int program, const char *name)
{
    uint32_t ids[64];
    bpf_prog_info info{};
    info.nr_map_ids = std::size(ids);
    info.map_ids = reinterpret_cast<uintptr_t>(ids);
    uint32_t length = sizeof info;
    if (bpf_obj_get_info_by_fd(program, &info, &length) != 0)
        return -1;
    for (uint32_t i = 0; i < info.nr_map_ids && i < std::size(ids); i++) {
        const int map = bpf_map_get_fd_by_id(ids[i]);
        bpf_map_info found{};
        length = sizeof found;
        if (map >= 0 && bpf_obj_get_info_by_fd(map, &found, &length) == 0 &&
            found.type == BPF_MAP_TYPE_ARRAY_OF_MAPS && strcmp(found.name, name) == 0)
            return map;
        close(map);
    }
    return -1;
}

} // namespace

BareDrop::BareDrop() : port_(if_nametoindex(PORT))
{
    const bpf_insn instructions[] = {
        {BPF_ALU64 | BPF_MOV | BPF_K, BPF_REG_0, 0, 0, XDP_DROP},
        {BPF_JMP | BPF_EXIT, 0, 0, 0, 0},
    };
    program_ = bpf_prog_load(BPF_PROG_TYPE_XDP, "bench_drop", "MIT", instructions,
                             std::size(instructions), nullptr);
    if (program_ < 0 ||
        bpf_xdp_attach(static_cast<int>(port_), program_,
                       XDP_FLAGS_DRV_MODE | XDP_FLAGS_UPDATE_IF_NOEXIST, nullptr) != 0)
        fail("drop what comes to the port");
}

BareDrop::~BareDrop()
{
    bpf_xdp_detach(static_cast<int>(port_), XDP_FLAGS_DRV_MODE, nullptr);
    close(program_);
}

Nftables::Nftables(unsigned rules)
{
    std::string text = fmt::format("table netdev bench {{\n"
                                   " chain flood {{\n"
                                   "  type filter hook ingress device \"{}\" priority 0;\n",
                                   PORT);
    for (const AccessRule &rule : accessRules(rules))
        text += "  " + inNft(rule) + "\n";
    text += fmt::format("  udp dport 67 limit rate over {}/second burst {} packets drop\n }}\n}}\n",
                        LIMIT, LIMIT / 50);
    write(RULES_FILE, text);
    command(fmt::format("nft -f {}", RULES_FILE));
}

Nftables::~Nftables()
{
    command("nft delete table netdev bench");
}

Iptables::Iptables(unsigned rules)
{
    std::string text = "*filter\n";
    for (const AccessRule &rule : accessRules(rules))
        text += inIptables(rule) + "\n";
    text += fmt::format("-A INPUT -p udp --dport 67 -m hashlimit --hashlimit-above {}/sec "
                        "--hashlimit-burst {} --hashlimit-name bench -j DROP\nCOMMIT\n",
                        LIMIT, LIMIT / 50);
    write(RULES_FILE, text);
    command(fmt::format("iptables-restore {}", RULES_FILE));
}

Iptables::~Iptables()
{
    command("iptables -F INPUT");
}

Daemon::Daemon(unsigned rules) : rules_(accessRules(rules))
{
    writePlatformFile(rules_);
    unlink(CPUDEFEND_CMD_SOCKET);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        keepOnLastCpu(0);
        const int log = open(LOG, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        setenv("CPUDEFEND_PLATFORM", PLATFORM_FILE, 1);
        execl(CPUDEFEND_BIN_DIR "/cpuDefend", "cpuDefend", nullptr);
        _exit(127);
    }
    waitUntilItServes();
}

Daemon::~Daemon()
{
    kill(pid_, SIGTERM);
    if (!ended(pid_, milliseconds(3000))) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Daemon::writePlatformFile(const std::vector<AccessRule> &rules)
{
    std::string text = fmt::format("ports = [\"{}\"]\n", PORT);
    const size_t each = (rules.size() + MOST_LISTS - 1) / MOST_LISTS;
    lists_ = 0;
    for (size_t i = 0; i < rules.size(); i++) {
        if (i % each == 0)
            text += fmt::format("{}\n[[acl]]\nnumber = {}\nfamily = \"ipv4\"\nrules = [\n",
                                i ? "]\n" : "", FIRST_LIST + lists_++);
        text += fmt::format("  \"{}\",\n", inPlatformFile(rules[i]));
    }
    write(PLATFORM_FILE, text + (lists_ ? "]\n" : ""));
}

void Daemon::waitUntilItServes() const
{
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!channelAnswers()) {
        if (ended(pid_, milliseconds(0)))
            throw Failure(fmt::format("the daemon did not start: {}", lastLineOf(LOG)));
        if (Clock::now() > deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
            throw Failure("the daemon does not answer");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

double Daemon::ownTime() const
{
    return cpuTime(pid_);
}

void Daemon::configure(unsigned entries)
{
    control(fmt::format("policy add {}", POLICY));
    for (unsigned i = 0; i < entries; i++)
        set(PROTOCOLS[i], fmt::format("pps={} mode=pps", LIMIT));
    for (unsigned i = 0; i < lists_; i++)
        control(fmt::format("rule add {} {} ip4-acl={} cir=4294967295 cbs=1000000 action={}",
                            POLICY, i + 1, FIRST_LIST + i, i % 2 == 0 ? "permit" : "deny"));
}

void Daemon::set(const std::string &protocol, const std::string &settings)
{
    control(fmt::format("car set {} {} {}", POLICY, protocol, settings));
}

void Daemon::bind()
try {
    cpudefend::Client().bind(POLICY);
} catch (const cpudefend::Error &error) {
    throw Failure(fmt::format("couldn't bind the policy: {}", error.what()));
}

void Daemon::unbind()
try {
    cpudefend::Client().unbind();
} catch (const cpudefend::Error &error) {
    throw Failure(fmt::format("couldn't unbind the policy: {}", error.what()));
}

void Daemon::bindByCommand()
{
    control(fmt::format("bind {}", POLICY));
}

void Daemon::changeRule()
{
    if (!rules_.empty())
        rules_.back().permit = !rules_.back().permit;
    writePlatformFile(rules_);
}

void Daemon::reload()
{
    kill(pid_, SIGHUP);
}

int Daemon::program() const
{
    uint32_t id = 0;
    if (bpf_xdp_query_id(static_cast<int>(if_nametoindex(PORT)), 0, &id) != 0)
        fail("ask for the port's program");
    const int fd = bpf_prog_get_fd_by_id(id);
    if (fd < 0)
        fail("open the port's program");
    return fd;
}

uint32_t Daemon::policy() const
{
    const int hook = program();
    const int map = mapOfMaps(hook, "cpudefend_rules");
    close(hook);
    const uint32_t system = 0;
    uint32_t policy = 0;
    const bool there =
        map >= 0 && (bpf_map_lookup_elem(map, &system, &policy) == 0 || errno == ENOENT);
    close(map);
    if (!there)
        throw Failure("couldn't see which policy is in force");
    return policy;
}
