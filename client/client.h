/**
 * The daemon's tables, over the management channel.
 *
 *     cpudefend::Client client;
 *     client.createPolicy("edge");
 *     client.set(CarPktIndex{"edge", CPUDEFEND_PKTTYPE_ARP}, CPUDEFEND_CARPKT_PPS, 200u);
 *     client.bind("edge");
 *
 * Every operation is one request and one reply on a connection of its own, and throws Error when
 * it fails. Nothing is cached.
 */
#ifndef CPUDEFEND_CLIENT_CLIENT_H
#define CPUDEFEND_CLIENT_CLIENT_H

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "client/channel.h"
#include "client/errors.h"
#include "client/tables.h"
#include "client/values.h"

namespace cpudefend
{

/** The system as a whole: the table without an index. */
struct GlobalIndex {
};

struct PolicyIndex {
    std::string name;
    bool operator==(const PolicyIndex &) const = default;
};

struct CarPktIndex {
    std::string policy;
    uint32_t pktType;
    bool operator==(const CarPktIndex &) const = default;
};

struct RuleIndex {
    std::string policy;
    uint32_t index;
    bool operator==(const RuleIndex &) const = default;
};

struct SlotIndex {
    uint32_t system;
    uint32_t slot;
    bool operator==(const SlotIndex &) const = default;
};

/** A traced source; or, for a walk, the fields that it must have. */
struct SourceIndex {
    uint32_t interface = 0;
    std::array<uint8_t, 4> ip{};
    uint8_t pktType = 0;
    std::array<uint8_t, 6> mac{};
    uint8_t filter = 0; /**< fields that a walk must match, 0x80 >> CPUDEFEND_SRCTRACEIDX_* */
    bool operator==(const SourceIndex &) const = default;
};

/** Outcome of a set that did not fail. */
enum class SetResult {
    Done,
    StoredOnly /**< kept, but the policy is bound: programmed when it is bound the next time */
};

class Client
{
public:
    explicit Client(Channel channel = Channel()) : channel_(std::move(channel)) {}

    /** Read an attribute. @a octets is the room for an attribute of bytes, 0 for a number. */
    template <class Index> Value get(const Index &index, uint32_t attributeId, std::size_t octets);

    /** Read an attribute of the index's table. */
    template <class Index> Value get(const Index &index, const Attribute &attribute);

    template <class Index>
    SetResult set(const Index &index, uint32_t attributeId, const Value &value);

    /**
     * Walk a table in the daemon's order.
     * @param from carries the filter of a walk of sources; nothing else looks at it
     * @return no index when there is none further
     */
    template <class Index> std::optional<Index> first(const Index &from = {});
    template <class Index> std::optional<Index> next(const Index &index);

    bool policyExists(const std::string &name);
    std::vector<std::string> policyNames();

    /** The packet types for which a policy has a CAR entry. */
    std::vector<uint32_t> carPktTypes(const std::string &policy);

    /** Create a policy. One of that name stays as it is. */
    void createPolicy(const std::string &name);
    void activatePolicy(const std::string &name);

    /** Destroy a policy, if there is one of that name. */
    void destroyPolicy(const std::string &name);

    /** Numbers of a policy's rules. */
    std::vector<uint32_t> ruleIndexes(const std::string &policy);
    bool ruleExists(const RuleIndex &index);

    /** Create a rule. It has the settings of the last one in its record. */
    void createRule(const RuleIndex &index);

    /** Destroy a rule, if there is such a one. */
    void destroyRule(const RuleIndex &index);

    /** The slots, but for those that the daemon's walk passes over: each behind a greater one. */
    std::vector<SlotIndex> slots();

    /** Traced sources that match the filter and its fields. Each is given without a filter. */
    std::vector<SourceIndex> sources(const SourceIndex &filter);

    /** Forget all traced sources, or those of a slot. */
    void resetSources();
    void resetSources(const SlotIndex &slot);

    /** Bind a policy to the system or a slot in place of the one bound now; empty for none. */
    void bind(const std::string &name);
    void bind(const SlotIndex &slot, const std::string &name);
    void unbind();
    std::string boundPolicy();
    std::string boundPolicy(const SlotIndex &slot);

private:
    Reply call(Request request);
    template <class Index> std::optional<Index> walk(uint32_t function, const Index &index);
    template <class Index> bool exists(const Index &index, uint32_t attributeId);

    Channel channel_;
    uint32_t lastId_ = 0;
};

} // namespace cpudefend

#endif
