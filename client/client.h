/**
 * The daemon, over the management channel.
 *
 *     cpudefend::Client client;
 *     client.createPolicy("edge", {cpudefend::setting(cpudefend::policyAttributes(),
 *                                                     CPUDEFEND_POLICY_SRCTRACEENABLE, 1u)});
 *     client.bind("edge");
 *
 * Everything here throws Error when it fails. Nothing is cached.
 *
 * get, set, first and next are one request each and tell what the daemon tells. What stands below
 * them is made of these, and does what its name says also where the daemon, asked in the plain
 * way, answers success to something else.
 */
#ifndef CPUDEFEND_CLIENT_CLIENT_H
#define CPUDEFEND_CLIENT_CLIENT_H

#include <array>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "channel.h"
#include "errors.h"
#include "tables.h"
#include "values.h"

namespace cpudefend
{

/** The system as a whole: the table without an index. */
struct GlobalIndex {
};

struct PolicyIndex {
    std::string name; /**< 1 to 32 bytes */
    bool operator==(const PolicyIndex &) const = default;
};

struct CarPktIndex {
    std::string policy;
    uint32_t pktType; /**< CPUDEFEND_PKTTYPE_* */
    bool operator==(const CarPktIndex &) const = default;
};

struct RuleIndex {
    std::string policy;
    uint32_t index; /**< 1 to 255 */
    bool operator==(const RuleIndex &) const = default;
};

struct SlotIndex {
    uint32_t system; /**< 0 to 255 */
    uint32_t slot;   /**< 0 to 255 */
    bool operator==(const SlotIndex &) const = default;
};

/** A traced source; or, for a walk, the fields that it must have. */
struct SourceIndex {
    uint32_t interface = 0;
    std::array<uint8_t, 4> ip{}; /**< as in the packet */
    uint8_t pktType = 0;
    std::array<uint8_t, 6> mac{};
    uint8_t filter = 0; /**< fields that a walk must match: filterBit of each */
    bool operator==(const SourceIndex &) const = default;
};

/** @param field CPUDEFEND_SRCTRACEIDX_*. @return its bit in SourceIndex::filter */
constexpr uint8_t filterBit(int field)
{
    return static_cast<uint8_t>(0x80 >> field);
}

/** Outcome of a set that did not fail. */
enum class SetResult {
    Done,
    StoredOnly /**< kept, but the policy is bound: programmed when it is bound the next time */
};

/** An entry as it was read. */
template <class Index> struct Row {
    Index index;
    std::vector<Value> values; /**< one for each attribute asked for, in that order */
};

using OnWarning = std::function<void(const Warning &)>;

class Client
{
public:
    /** @param onWarning called at once with what an operation did otherwise than expected */
    explicit Client(Channel channel = Channel(), OnWarning onWarning = {})
        : channel_(std::move(channel)), onWarning_(std::move(onWarning))
    {
    }

    // ---- One request each ------------------------------------------------------------------

    /** Read an attribute. @a octets is the room for an attribute of bytes, 0 for a number. */
    template <class Index> Value get(const Index &index, uint32_t attributeId, std::size_t octets);

    /** Read an attribute of the index's table. */
    template <class Index> Value get(const Index &index, const Attribute &attribute);

    /** Change an attribute. The daemon cuts a number to its field's width, and checks none. */
    template <class Index>
    SetResult set(const Index &index, uint32_t attributeId, const Value &value);

    /**
     * Walk a table in the daemon's order.
     * @param from carries the filter of a walk of sources; nothing else looks at it
     * @return no index when there is none further
     */
    template <class Index> std::optional<Index> first(const Index &from = {});
    template <class Index> std::optional<Index> next(const Index &index);

    // ---- All tables ------------------------------------------------------------------------

    /**
     * Read attributes of an entry, one after the other.
     * @param attributeIds those of the index's table
     * @return their values, in the order of the ids
     *
     * When there is no such entry, the error says whether its policy is missing or it alone.
     */
    template <class Index>
    std::vector<Value> read(const Index &index, std::span<const uint32_t> attributeIds);

    // The lists below read attributes of many entries, with several requests under way. An entry
    // that goes away meanwhile is left out.

    // Every operation with settings checks all of them before the first is sent (BadValue), and
    // then sends them one by one. Where the daemon refuses one, those before it stay, and the
    // error's sentence names them.

    // ---- Policies --------------------------------------------------------------------------

    bool policyExists(const std::string &name);
    std::vector<std::string> policyNames(); /**< in the order of their bytes */
    std::vector<Row<PolicyIndex>> policies(std::span<const uint32_t> attributeIds);

    /**
     * Create a policy, give it settings, activate it.
     * @param name 1 to 32 bytes. Failure::Exists when there is one of that name
     *
     * A record that was another policy's may come with rules of that one: these are destroyed.
     * Warning::FewLimits when the daemon has not the CAR entries left for all of its limits.
     */
    void createPolicy(const std::string &name, const std::vector<Setting> &settings = {});

    /**
     * Change settings of a policy. Lists and tracing are switched on before all else and off after
     * it: the daemon refuses the numbers of a list that is off.
     *
     * Warning::StoredOnly when the policy is bound, and what was set is not in force for that.
     */
    void setPolicy(const std::string &name, const std::vector<Setting> &settings);

    /** Destroy a policy. CPUDEFEND_ENONAME when there is none, CPUDEFEND_EBOUND when it is bound.
     */
    void destroyPolicy(const std::string &name);

    // ---- CAR entries: a policy's limits for packet types ------------------------------------

    /** CAR entries of all policies, or of one: CPUDEFEND_ENONAME when there is none. */
    std::vector<Row<CarPktIndex>> carEntries(std::span<const uint32_t> attributeIds,
                                             const std::optional<std::string> &policy = {});

    /**
     * Change settings of a CAR entry, in the order given.
     *
     * A mode replaces the one before it. The daemon alone adds each mode to those set before, and
     * then holds packets to all of them. CPUDEFEND_EBOUND when the policy is bound.
     */
    void setCar(const CarPktIndex &index, const std::vector<Setting> &settings);

    // ---- Rules -----------------------------------------------------------------------------

    /** Numbers of a policy's rules, ascending. */
    std::vector<uint32_t> ruleIndexes(const std::string &policy);
    bool ruleExists(const RuleIndex &index);

    /** Rules of all policies, or of one: CPUDEFEND_ENONAME when there is none. */
    std::vector<Row<RuleIndex>> rules(std::span<const uint32_t> attributeIds,
                                      const std::optional<std::string> &policy = {});

    /**
     * Create a rule. Failure::Exists when there is such a one; CPUDEFEND_EBOUND when the policy is
     * bound.
     * @param index    with a number from 1 to 255: a rule 0 is kept and never programmed
     * @param settings what is not given is set to permit, no ACL, 16 kbit/s and 6400 bytes: the
     *                 daemon leaves a new rule those of the last one in its record
     */
    void createRule(const RuleIndex &index, const std::vector<Setting> &settings = {});

    /** Change settings of a rule. CPUDEFEND_EBOUND when the policy is bound. */
    void setRule(const RuleIndex &index, const std::vector<Setting> &settings);

    /** Destroy a rule. CPUDEFEND_ENOENTRY when there is none. */
    void destroyRule(const RuleIndex &index);

    // ---- The system and its slots ------------------------------------------------------------

    /** The slots, but for those that the daemon's walk passes over: each behind a greater one. */
    std::vector<SlotIndex> slots();
    std::vector<Row<SlotIndex>> slots(std::span<const uint32_t> attributeIds);

    /** Warning::PassedOver when the daemon has more slots than the @a listed ones. */
    void warnOfPassedOver(std::size_t listed);

    /**
     * Change mode and levels of the system, or of a slot. The mode fixed is set first and cpu-rate
     * last, so that no sample meets half of the levels.
     *
     * Warning::Unbound when the mode cpu-rate took the policy of the system off it, which that of
     * a slot does, too.
     */
    void setSystem(const std::vector<Setting> &settings);
    void setSlot(const SlotIndex &slot, const std::vector<Setting> &settings);

    /**
     * Bind a policy to the system or a slot, in place of the one bound now.
     * @param name 1 to 32 bytes. CPUDEFEND_ENONAME when there is none
     *
     * When the platform refuses it, the error says what is bound now: Failure::InPart when it is
     * this policy all the same, else Failure::Platform. The platform tells of its last call only.
     */
    void bind(const std::string &name);
    void bind(const SlotIndex &slot, const std::string &name);

    /** Take the bound policy off the system or a slot; nothing when none is bound. */
    void unbind();
    void unbind(const SlotIndex &slot);

    /** The bound policy's name; empty for none. */
    std::string boundPolicy();
    std::string boundPolicy(const SlotIndex &slot);

    // ---- Traced sources ----------------------------------------------------------------------

    /** Traced sources that match the filter and its fields. Each is given without a filter. */
    std::vector<SourceIndex> sources(const SourceIndex &filter);

    // Of a source of packet type 0, or on interface 0, the daemon tells its index only: there are
    // no values of it.

    std::vector<Row<SourceIndex>> sources(const SourceIndex &filter,
                                          std::span<const uint32_t> attributeIds);

    /** Read attributes of a source. CPUDEFEND_ENOENTRY when there is none. */
    Row<SourceIndex> source(SourceIndex index, std::span<const uint32_t> attributeIds);

    /**
     * Forget all traced sources, or those of a slot: Failure::NotTracing when no policy that
     * traces sources is bound to the slot, for the daemon forgets nothing then.
     */
    void resetSources();
    void resetSources(const SlotIndex &slot);

private:
    Reply call(Request request);
    template <class Index> bool exists(const Index &index, uint32_t attributeId);
    template <class Index>
    std::vector<Row<Index>> list(const std::vector<Index> &indexes,
                                 std::span<const uint32_t> attributeIds);
    template <class Index> std::vector<Row<Index>> listAll(std::span<const uint32_t> attributeIds);
    template <class Index> Error explained(const Index &index, const Error &error);
    template <class Index> void warnStoredOnly(const Index &index);
    template <class Index> void apply(const Index &index, const std::vector<Setting> &steps);
    template <class Index> void applyLevels(const Index &index, std::vector<Setting> settings);
    template <class Index> std::string bound(const Index &index);
    template <class Index> void rebind(const Index &index, const std::string &name);
    std::vector<RuleIndex> rulesOf(const std::string &policy);
    void mustExist(const std::string &policy);
    void addPolicy(const std::string &name);
    bool tracesSources(const SlotIndex &slot);
    uint32_t globalNumber(uint32_t attributeId);
    void warn(Warning::Kind kind, const std::string &text);

    Channel channel_;
    OnWarning onWarning_;
    uint32_t lastId_ = 0;
};

} // namespace cpudefend

#endif
