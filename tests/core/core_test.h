/**
 * What the tests of the core share: a fixture that starts the daemon's state on a stepped clock,
 * short ways to its tables, and the seams that the linker opens (see CMakeLists.txt).
 */
#ifndef CORE_TEST_H
#define CORE_TEST_H

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cpuDefend.h"
#include "cpuDefend_nm_api.h"
#include "scripted_hw.h"

/** Calls that are led through the tests. */
namespace seam
{

/** A call made by cpuDefendInit. */
struct Call {
    std::string function;
    std::vector<long> args;
    std::string address; /**< bind: the address as bytes */
    long mask = 0;       /**< bind: the file creation mask in force */
    long result = 0;
};

/** Note the calls below, and let them fail where `fail` says so. Off outside start-up tests. */
extern bool armed;
/** Have debugging on from the semaphore on, which start-up itself never does. */
extern bool debugging;
/** Have no policy record left when the default policy is made. */
extern bool noPolicies;
extern std::vector<Call> calls;
/** Result of the nth call (from 0) of a function, instead of the call itself. */
extern std::map<std::pair<std::string, int>, long> fail;
constexpr int failure = EDOM; /**< what errno says of it: no call of start-up fails so */
/** Blocks from calloc while armed that were not freed. */
extern int blocks;

extern int semDepth; /**< takes less gives of the semaphore */
extern int semTakes; /**< takes since the fixture started */

/** A call of a per-table synchronisation hook. */
struct Hook {
    std::string table; /**< "policy" or "carPkt" */
    std::string name;  /**< of the policy */
    uint32_t pktType;  /**< carPkt only */
    uint32_t id;
    uint32_t flag;
    uint32_t number;    /**< the value, unless the flag calls it an octetstring */
    std::string octets; /**< the value otherwise */
};

extern std::vector<Hook> hooks;
extern int32_t hookResult; /**< what the hooks answer */

/** What recvfrom receives of a netlink socket. */
struct Datagram {
    std::string data;
    uint32_t senderPort = 0; /**< 0 is the kernel's */
};

/** What comes, one after the other, instead of what the kernel sends; then nothing does. */
extern std::optional<std::deque<Datagram>> datagrams;
extern int requests; /**< calls of sendto that did not get to the kernel because of that */

/** Close every socket that was opened. */
void closeSockets();
/** Sockets that are open. */
std::vector<int> sockets();

} // namespace seam

/** A result code and what was read with it. */
template <typename T> struct Answer {
    int32_t code;
    T value;
    bool operator==(const Answer &) const = default;
};

template <typename T> std::ostream &operator<<(std::ostream &out, const Answer<T> &answer)
{
    return out << "code 0x" << std::hex << answer.code << std::dec << " value " << answer.value;
}

inline const uint8_t *bytes(const std::string &text)
{
    return reinterpret_cast<const uint8_t *>(text.data());
}

/** The whole of a record, for comparing before with after. */
template <typename T> std::string image(const T &record)
{
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
}

std::string nameOf(const tCpuDefendPolicyEntry *policy);

tCpuDefendPolicyIdx policyIdx(const std::string &name);
tcpuDefendCarPktIdx carIdx(const std::string &name, uint32_t pktType);

/* Tables. */
tCpuDefendPolicyEntry *addPolicy(const std::string &name);
tCpuDefendPolicyEntry *findPolicy(const std::string &name);
tCpuDefendUserDefinedEntry *addRule(const std::string &policy, uint32_t index);
tCpuDefendUserDefinedEntry *findRule(const std::string &policy, uint32_t index);
tCpuDefendCarPktEntry *addCar(const std::string &policy, uint32_t pktType);
tCpuDefendCarPktEntry *findCar(const std::string &policy, uint32_t pktType);

/** A policy on which no CAR entry is left. */
tCpuDefendPolicyEntry *addBarePolicy(const std::string &name);

/** A slot record on the list, as far as the tables look at it. */
tCpuDefendSlotEntry *addSlot(uint8_t sysId, uint8_t slotId, const std::string &policyName);

/* Lists, in order. */
std::vector<tCpuDefendCarPktEntry *> carEntries();
std::vector<tCpuDefendCarPktEntry *> carEntries(tCpuDefendPolicyEntry *policy);
std::vector<tCpuDefendUserDefinedEntry *> rules();
std::vector<tCpuDefendUserDefinedEntry *> rules(tCpuDefendPolicyEntry *policy);
uint32_t length(const list_head &head);

/** The entries' "policy/type" or "policy/index". */
std::vector<std::string> keys(const std::vector<tCpuDefendCarPktEntry *> &entries);
std::vector<std::string> keys(const std::vector<tCpuDefendUserDefinedEntry *> &entries);
/** "name/0" to "name/9", the keys of a policy as it was created. */
std::vector<std::string> tenKeys(const std::string &name);
std::vector<std::string> operator+(std::vector<std::string> a, const std::vector<std::string> &b);

/* Management API. */
int32_t setPolicy(const std::string &name, uint32_t cmd, uint32_t value);
int32_t setPolicy(const std::string &name, uint32_t cmd, const std::string &octets);
Answer<uint32_t> getPolicy(const std::string &name, uint32_t cmd);
Answer<std::string> getPolicy(const std::string &name, uint32_t cmd, uint32_t room);
int32_t setCar(const std::string &name, uint32_t pktType, uint32_t cmd, uint32_t value);
Answer<uint32_t> getCar(const std::string &name, uint32_t pktType, uint32_t cmd);
int32_t setGlobal(uint32_t attr, uint32_t value);
int32_t setGlobal(uint32_t attr, const std::string &octets);
int32_t syncGlobal(uint32_t attr, const std::string &octets);
Answer<uint32_t> getGlobal(uint32_t attr);
Answer<std::string> getGlobal(uint32_t attr, uint32_t room);

/** What a get writes to when it writes nothing. */
constexpr uint32_t untouched = 0xA5A5A5A5;

/** The recorded calls, one line each. */
std::vector<std::string> texts(const std::vector<scripted::Record> &records);

/**
 * The core started with eight policies and two slots on a clock that stands still. After each
 * test the tables are checked against their invariants.
 */
class CoreTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /** Start over with other pools. */
    void restart(uint32_t policies, uint32_t slots);
    /** Let @a ms pass, and run what is due then. */
    void advance(uint32_t ms);
    static uint64_t now();

    /** Release everything that start-up made. */
    static void release();
};

#endif
