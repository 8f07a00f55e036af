/**
 * The layer in the test's own process, on a wire of the test's own, with a folder to pin into.
 */
#ifndef LAYER_ON_WIRE_H
#define LAYER_ON_WIRE_H

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

#include <bpf/libbpf.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "on_wire.h"
#include "platform_file.h"
#include "zynacl.h"
#include "zynhwal.h"
#include "zynif.h"

/** The kernel's id of the XDP program on a port, 0 for none. */
inline uint32_t programOn(const char *port, int flags = 0)
{
    uint32_t id = 0;
    uint32_t ifindex = if_nametoindex(port);
    if (ifindex != 0)
        bpf_xdp_query_id(static_cast<int>(ifindex), flags, &id);
    return id;
}

struct Outcome {
    int32_t result;
    std::string text; /**< on standard error */
};

/** Bring the layer up as main does. */
inline Outcome init()
{
    testing::internal::CaptureStderr();
    int32_t result = zynPlatformInit(nullptr);
    if (result == 0)
        result = zynPlatformStart();
    return {result, testing::internal::GetCapturedStderr()};
}

/** As long as it lives, standard error is heard here. Takes no descriptor while it listens. */
class Heard
{
public:
    Heard() : own_(dup(STDERR_FILENO))
    {
        if (pipe2(ends_, O_NONBLOCK | O_CLOEXEC) != 0 || dup2(ends_[1], STDERR_FILENO) < 0)
            throw std::runtime_error("couldn't listen to standard error");
    }
    ~Heard()
    {
        dup2(own_, STDERR_FILENO);
        for (int fd : {own_, ends_[0], ends_[1]})
            close(fd);
    }
    Heard(const Heard &) = delete;
    Heard &operator=(const Heard &) = delete;

    /** All that was said so far. */
    const std::string &text()
    {
        char buffer[4096];
        for (ssize_t got; (got = read(ends_[0], buffer, sizeof buffer)) > 0;)
            text_.append(buffer, static_cast<size_t>(got));
        return text_;
    }

    bool has(const std::string &part) { return text().find(part) != std::string::npos; }

private:
    int own_;
    int ends_[2];
    std::string text_;
};

/** Have the layer do what it finds to do, as the daemon does. @return as zynPlatformRun() */
inline int32_t runPlatform()
{
    zynHwChangeBegin();
    const int32_t result = zynPlatformRun();
    zynHwChangeEnd();
    return result;
}

/** Have the layer do what it finds to do, until a condition holds. @return whether it does */
inline bool runUntil(const std::function<bool()> &condition)
{
    return within(std::chrono::seconds(20), [&] {
        pollfd ready{zynPlatformFd(), POLLIN, 0};
        if (poll(&ready, 1, 0) > 0)
            runPlatform();
        return condition();
    });
}

/** Whether a frame that is sent by one port arrives at the other. */
inline bool arrives(const std::vector<uint8_t> &frame, const char *from, const char *to,
                    uint16_t ethertype)
{
    PacketSocket receiver(to, ethertype), sender(from, ethertype);
    sender.send(frame, 1);
    return within(std::chrono::milliseconds(200), [&] { return receiver.received() > 0; });
}

/** Let pass what is still heard of, as of how the ports came, and the rest behind it: what happens
 *  next is looked at in the next run. */
inline void beQuiet()
{
    pollfd ready{zynPlatformFd(), POLLIN, 0};
    while (poll(&ready, 1, 300) > 0)
        runPlatform();
}

class LayerOnWire : public OnWire
{
protected:
    void SetUp() override
    {
        OnWire::SetUp();
        if (IsSkipped())
            return;
        char folder[] = "/tmp/bpf-XXXXXX";
        ASSERT_NE(mkdtemp(folder), nullptr);
        mounted = folder;
        if (mount("bpf", mounted.c_str(), "bpf", 0, nullptr) != 0)
            GTEST_SKIP() << "no BPF file system: " << std::strerror(errno);
        pinFolder = mounted + "/pinned";
    }

    void TearDown() override
    {
        umount2(mounted.c_str(), MNT_DETACH);
        rmdir(mounted.c_str());
    }

    /** Start the layer, or let a successor take over. @param text of the platform file */
    Outcome start(const std::string &text)
    {
        PlatformFile file("pin = \"" + pinFolder + "\"\n" + text);
        return init();
    }

    Outcome startOnPort(const std::string &more = "")
    {
        return start("ports = [\"port0\"]\n" + more);
    }

    /** Let a daemon program something, and die of SIGKILL. */
    void leaveBehind(const std::string &text, const std::function<void()> &program)
    {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        pid_t child = fork();
        if (child == 0) {
            if (start(text).result != 0)
                _exit(1);
            program();
            (void)!write(ready[1], "", 1);
            for (;;)
                pause();
        }
        close(ready[1]);
        char byte;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }

    static tHwCpuDefendPktCarEntry arpEntry(uint32_t pps, uint8_t op = ZYN_HW_OP_PERMIT)
    {
        tHwCpuDefendPktCarEntry entry{};
        entry.pktType = 1;
        entry.pps = pps;
        entry.op = op;
        return entry;
    }

    static int32_t set(const tSlotIndex *slot, bool add, tHwCpuDefendPktCarEntry entry)
    {
        if (slot)
            return zynHwSlotSet(slot, add ? HW_SLOT_CPUDEFENDPKTCARADD : HW_SLOT_CPUDEFENDPKTCARDEL,
                                &entry, 3);
        tHwApiFunc func{};
        func.hwCmd = add ? HW_SYS_CPUDEFENDPKTCARADD : HW_SYS_CPUDEFENDPKTCARDEL;
        func.arg = &entry;
        return zynScalarSetApi(0, 0, &func);
    }

    bool arpArrives(const char *from = peerPort, const char *to = protectedPort) const
    {
        return arrives(arp, from, to, 0x0806);
    }

    std::string mounted, pinFolder;
};

#endif
