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

#include <optional>
#include <string>
#include <vector>

#include "client/channel.h"
#include "client/errors.h"
#include "client/tables.h"

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

/** An integer or bytes, as the attribute has it. */
using Value = Item;

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

    /** Walk a table in the daemon's order. @return no index when there is none further */
    template <class Index> std::optional<Index> first();
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

    /** Bind a policy to the system in place of the one bound now. */
    void bind(const std::string &name);
    void unbind();
    std::string boundPolicy();

private:
    Reply call(Request request);
    template <class Index> std::optional<Index> walk(uint32_t function, const Index &index);

    Channel channel_;
    uint32_t lastId_ = 0;
};

/** Shape of a request for one table; the base of every request that Client sends. */
template <class Index> Request requestFor(uint32_t function, const Index &index);

} // namespace cpudefend

#endif
