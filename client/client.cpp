#include "client/client.h"

#include <algorithm>

#include "client/requests.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

Reply Client::call(Request request)
{
    request.id = ++lastId_;
    return decode(request, channel_.exchange(encode(request)));
}

template <class Index>
Value Client::get(const Index &index, uint32_t attributeId, std::size_t octets)
{
    Request request = requestFor(Table<Index>::functions.get, index);
    request.command = attributeId;
    if (octets > 0)
        request.value = std::string(octets, '\0');
    request.answer = {typeOf(request.value)};
    const Reply reply = call(std::move(request));
    if (reply.code != CPUDEFEND_OK)
        throw Error(reply.code);
    return reply.answer[0];
}

template <class Index> Value Client::get(const Index &index, const Attribute &attribute)
{
    return get(index, attribute.id, attribute.isOctets() ? attribute.max : 0);
}

template <class Index>
SetResult Client::set(const Index &index, uint32_t attributeId, const Value &value)
{
    Request request = requestFor(Table<Index>::functions.set, index);
    request.command = attributeId;
    request.value = value;
    const int32_t code = call(std::move(request)).code;
    if (code != CPUDEFEND_OK && code != CPUDEFEND_EINUSE)
        throw Error(code);
    return code == CPUDEFEND_OK ? SetResult::Done : SetResult::StoredOnly;
}

template <class Index> std::optional<Index> Client::walk(uint32_t function, const Index &index)
{
    Request request = requestFor(function, index);
    for (const Item &item : request.index)
        request.answer.push_back(typeOf(item));
    const Reply reply = call(std::move(request));
    if (reply.code == Table<Index>::endOfWalk)
        return std::nullopt;
    if (reply.code != CPUDEFEND_OK)
        throw Error(reply.code);
    return Table<Index>::index(reply.answer);
}

template <class Index> std::optional<Index> Client::first(const Index &from)
{
    return walk(Table<Index>::functions.first, from);
}

template <class Index> std::optional<Index> Client::next(const Index &index)
{
    return walk(Table<Index>::functions.next, index);
}

template <class Index> bool Client::exists(const Index &index, uint32_t attributeId)
{
    try {
        get(index, attributeId, 0);
    } catch (const Error &error) {
        if (error.code() == CPUDEFEND_ENOENTRY)
            return false;
        throw;
    }
    return true;
}

bool Client::policyExists(const std::string &name)
{
    return exists(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS);
}

std::vector<std::string> Client::policyNames()
{
    std::vector<std::string> names;
    for (auto index = first<PolicyIndex>(); index; index = next(*index))
        names.push_back(index->name);
    return names;
}

// Asked type by type: the table's own walk also meets what destroyed policies left behind, and
// passes over entries of others where it does.
std::vector<uint32_t> Client::carPktTypes(const std::string &policy)
{
    std::vector<uint32_t> types;
    for (uint32_t type = 0; type < CPUDEFEND_PKTTYPE_MAX; ++type)
        if (exists(CarPktIndex{policy, type}, CPUDEFEND_CARPKT_MODE))
            types.push_back(type);
    return types;
}

// One by one for the same reason.
std::vector<uint32_t> Client::ruleIndexes(const std::string &policy)
{
    std::vector<uint32_t> indexes;
    if (!first<RuleIndex>())
        return indexes;
    for (uint32_t index = 0; index <= UINT8_MAX; ++index)
        if (ruleExists({policy, index}))
            indexes.push_back(index);
    return indexes;
}

bool Client::ruleExists(const RuleIndex &index)
{
    return exists(index, CPUDEFEND_USERDEFINED_ENTRYSTATUS);
}

void Client::createRule(const RuleIndex &index)
{
    set(index, CPUDEFEND_USERDEFINED_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_CREATE});
}

void Client::destroyRule(const RuleIndex &index)
{
    set(index, CPUDEFEND_USERDEFINED_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_DESTROY});
}

std::vector<SlotIndex> Client::slots()
{
    std::vector<SlotIndex> slots;
    for (auto index = first<SlotIndex>(); index; index = next(*index))
        slots.push_back(*index);
    return slots;
}

// Interfaces 2^31 apart have no order in the daemon, and could lead a walk round in a circle.
std::vector<SourceIndex> Client::sources(const SourceIndex &filter)
{
    std::vector<SourceIndex> sources;
    for (auto index = first(filter); index; index = next(*index)) {
        SourceIndex source = *index;
        source.filter = 0;
        if (std::ranges::find(sources, source) != sources.end())
            break;
        sources.push_back(source);
    }
    return sources;
}

void Client::resetSources()
{
    set(GlobalIndex{}, CPUDEFEND_GLOBAL_RESETSRCTRACE, 0u);
}

void Client::resetSources(const SlotIndex &slot)
{
    set(slot, CPUDEFEND_SLOT_RESETSRCTRACE, 0u);
}

void Client::createPolicy(const std::string &name)
{
    set(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_CREATE});
}

void Client::activatePolicy(const std::string &name)
{
    set(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_ACTIVATE});
}

void Client::destroyPolicy(const std::string &name)
{
    set(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_DESTROY});
}

void Client::bind(const std::string &name)
{
    set(GlobalIndex{}, CPUDEFEND_GLOBAL_POLICY, name);
}

void Client::bind(const SlotIndex &slot, const std::string &name)
{
    set(slot, CPUDEFEND_SLOT_POLICY, name);
}

void Client::unbind()
{
    bind("");
}

std::string Client::boundPolicy()
{
    return std::get<std::string>(
        get(GlobalIndex{}, CPUDEFEND_GLOBAL_POLICY, CPUDEFEND_NAME_MAXLEN));
}

std::string Client::boundPolicy(const SlotIndex &slot)
{
    return std::get<std::string>(get(slot, CPUDEFEND_SLOT_POLICY, CPUDEFEND_NAME_MAXLEN));
}

#define READABLE(Index)                                                                            \
    template Value Client::get(const Index &, uint32_t, std::size_t);                              \
    template Value Client::get(const Index &, const Attribute &)
#define SETTABLE(Index) template SetResult Client::set(const Index &, uint32_t, const Value &)
#define WALKABLE(Index)                                                                            \
    template std::optional<Index> Client::first(const Index &);                                    \
    template std::optional<Index> Client::next(const Index &)

READABLE(GlobalIndex);
READABLE(PolicyIndex);
READABLE(CarPktIndex);
READABLE(RuleIndex);
READABLE(SlotIndex);
READABLE(SourceIndex);
SETTABLE(GlobalIndex);
SETTABLE(PolicyIndex);
SETTABLE(CarPktIndex);
SETTABLE(RuleIndex);
SETTABLE(SlotIndex);
WALKABLE(PolicyIndex);
WALKABLE(CarPktIndex);
WALKABLE(RuleIndex);
WALKABLE(SlotIndex);
WALKABLE(SourceIndex);

} // namespace cpudefend
