/**
 * The packet program in the kernel, and the maps through which it is told what to do.
 */
#ifndef ZYNLINUX_DATAPLANE_H
#define ZYNLINUX_DATAPLANE_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/descriptor.h"
#include "bpf/acl_lookup.h"
#include "bpf/cpudefend_shared.h"
#include "kernel/pin_folder.h"

struct bpf_map;
struct cpudefend_bpf;

namespace zynlinux
{

/** An address as the program looks it up: IPv6, or IPv4 mapped into it (RFC 4291, 2.5.5.2). */
using Address = std::array<uint8_t, 16>;

/** A network, down to a single address. */
struct Prefix {
    uint32_t bits = 0; /**< that count, 8 * sizeof(Address) at most */
    Address address{};
    auto operator<=>(const Prefix &) const = default;
};
using Prefixes = std::set<Prefix>;

/** Tables that the program looks ACL entries up in; written while no policy refers to them. */
struct UnmapTables {
    void operator()(cpd_tables *tables) const;
};
using SharedTables = std::unique_ptr<cpd_tables, UnmapTables>;

/** A nanosecond count of the clock that the program reads. */
uint64_t monotonicNow();

/** A policy for each of some targets; null stands for one without rules. */
using Policies = std::map<uint32_t, const cpd_policy *>;

/** The same, in the kernel. */
using PreparedPolicies = std::map<uint32_t, Descriptor>;

/**
 * The program and its maps. Pinned, the maps outlive this object and are found again by the next
 * one; otherwise they end with it.
 */
class DataPlane
{
public:
    /**
     * Load the program; it is on no port yet.
     * @param pins must outlast this object
     * @throw Failure
     */
    explicit DataPlane(const PinFolder &pins);
    ~DataPlane();
    DataPlane(const DataPlane &) = delete;
    DataPlane &operator=(const DataPlane &) = delete;

    /** What is kept for the next daemon; after a change it has to be saved. */
    cpd_info &info() { return *info_; }
    void saveInfo();

    /** Whether the maps were found pinned: all of them, of one daemon, and of this layout. */
    bool takenOver() const { return takenOver_; }

    /** Pin again the maps that are not there any more. @param there the names that are
     *  @return how many. @throw Failure */
    size_t pinAgain(const PinFolder &pins, const std::set<std::string> &there) const;

    /** CPD_POLICERS of them, shared with the program. */
    cpd_policer *policers() { return policers_; }

    /**
     * Hand policies to the kernel, which makes room for them; nothing is in force yet.
     * @throw Failure
     */
    PreparedPolicies prepare(const Policies &policies) const;

    /**
     * Put policies in force, each in place of what its target had. When this returns, no packet is
     * judged by the former ones any more.
     * @throw Failure
     */
    void replace(const PreparedPolicies &policies);

    /** A target is not used any more. */
    void remove(uint32_t target);

    /**
     * Make a set of tables, below CPD_TABLE_SETS, that policies may refer to; empty at first. The
     * kernel takes its time for this, as for dropping one.
     * @throw Failure
     */
    SharedTables makeTables(uint32_t set);
    void dropTables(uint32_t set);
    bool hasTables(uint32_t set) const;

    /**
     * Which target a port belongs to; it is the system without being told.
     * @param segments whether its frames may hold several packets, which the program behind has to
     *                 judge then
     * @throw Failure
     */
    void placePort(uint32_t ifindex, uint32_t target, bool segments);
    void forgetPort(uint32_t ifindex);

    /**
     * What is addressed to the host itself, in place of what was told before.
     * @return whether there was room for all
     */
    bool setOwn(const Prefixes &prefixes);

    /** Begin the counters of a target anew. */
    void clearCounters(uint32_t target);

    int program() const;                              /**< for ports and test runs */
    uint32_t programId() const { return programId_; } /**< the kernel's number for it */
    int tcProgram() const; /**< behind it, where queue and priority are set */
    int counters() const;  /**< the map of counters, see counters.h */
    int samples() const;   /**< the ring of samples */

private:
    std::vector<bpf_map *> pinned() const;
    std::string wrongWithLeft(const PinFolder &pins) const;
    void load(const PinFolder &pins);
    int newPolicy(const cpd_policy &policy) const;
    int placeNear(uint32_t ifindex, __u32 port);
    int ownMap(const Prefix &prefix) const;
    Prefixes readOwn() const;

    std::unique_ptr<cpudefend_bpf, void (*)(cpudefend_bpf *)> skeleton_;
    std::unique_ptr<cpd_info> info_;
    bool takenOver_ = false;
    uint32_t programId_ = 0;
    cpd_policer *policers_ = nullptr;
    Prefixes own_; /**< what the program has been told */
};

} // namespace zynlinux

#endif
