/**
 * A real daemon on a protected port, and a peer at the other end of its wire, in a network and a
 * mount name space of the test's own.
 */
#ifndef FLOOD_TEST_H
#define FLOOD_TEST_H

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "arrivals.h"
#include "daemon_process.h"
#include "frames.h"
#include "linux/platform_file.h"
#include "linux/test_net.h"
#include "memory/scratch.h"
#include "sender.h"

using namespace std::chrono_literals;

constexpr char onePort[] = "ports = [\"port0\"]\n";
constexpr char nothingPinned[] = "pin = \"none\"\n";

const Host attacker = {{0x02, 0, 0, 0, 0, 0xa0}, {192, 0, 2, 160}};
constexpr Ip4 wanted = {192, 0, 2, 1};

/** What a packet policer of this rate lets through at once. */
constexpr uint32_t bucketOf(uint32_t pps)
{
    return std::max(2u, (pps + 49) / 50);
}

/** Make a wire whose port polls, with and without a packet program, as hardware does. */
void addWire(const std::string &portName, const std::string &peerName);

/** Whether a packet program is on the port. */
bool isProtected(const std::string &portName);

/** Whether the whole program of measurements was asked for, and not the quick one. */
bool isFull();

/** Let time go by in which something is measured. */
void measure(Seconds time);

class FloodTest : public testing::Test
{
protected:
    static constexpr char policy[] = "flood";

    void SetUp() override;

    /** Start the daemon, in place of the one there is. @param platform the platform file */
    void start(const std::string &platform = std::string(onePort) + nothingPinned);

    /** The same with the platform file that there is. */
    void restart();

    /** Run cpudefendctl. @return its output @throw std::runtime_error when it fails */
    std::string ctl(const std::string &arguments) const;
    nlohmann::json ctlJson(const std::string &arguments) const;

    /** Make the policy, with limits such as "arp pps=200 mode=pps". */
    void makePolicy(std::initializer_list<std::string> limits) const;

    /** The same, and bind it to the system. */
    void bind(std::initializer_list<std::string> limits) const;

    Scratch scratch;
    std::optional<PlatformFile> file;
    std::unique_ptr<DaemonProcess> daemon;
};

#endif
