#include "client/client.h"

#include <algorithm>

#include "cpuDefend_nm.h"

namespace cpudefend
{

namespace
{

/** Function codes of a table; 0 where it has no such function. */
struct Functions {
    uint32_t first;
    uint32_t next;
    uint32_t get;
    uint32_t set;
};

/**
 * A table of the daemon: its functions, and its index as items on the wire. A further table is a
 * further specialization, and lines at the end of this file.
 */
template <class Index> struct Table;

template <std::size_t N> std::string octetsOf(const std::array<uint8_t, N> &bytes)
{
    return {bytes.begin(), bytes.end()};
}

template <std::size_t N> std::array<uint8_t, N> bytesOf(const Item &item)
{
    const auto &octets = std::get<std::string>(item);
    std::array<uint8_t, N> bytes;
    if (octets.size() != N)
        throw Error(Failure::ReplyMalformed, "the daemon's reply makes no sense: its index has a "
                                             "field of another length");
    std::copy(octets.begin(), octets.end(), bytes.begin());
    return bytes;
}

template <> struct Table<GlobalIndex> {
    static constexpr Functions functions{0, 0, CPUDEFEND_GLOBAL_GETAPI, CPUDEFEND_GLOBAL_SETAPI};
    static constexpr uint8_t indexCount = 0;

    // One integer stands there all the same. The daemon reads over it.
    static std::vector<Item> items(const GlobalIndex &) { return {0u}; }
};

template <> struct Table<PolicyIndex> {
    static constexpr Functions functions{CPUDEFEND_POLICY_GETFIRST, CPUDEFEND_POLICY_GETNEXT,
                                         CPUDEFEND_POLICY_GETAPI, CPUDEFEND_POLICY_SETAPI};
    static constexpr uint8_t indexCount = 2;
    static constexpr int32_t endOfWalk = CPUDEFEND_FAIL;

    static std::vector<Item> items(const PolicyIndex &index)
    {
        return {static_cast<uint32_t>(index.name.size()), index.name};
    }
    static PolicyIndex index(const std::vector<Item> &items)
    {
        return {std::get<std::string>(items[1])};
    }
};

template <> struct Table<CarPktIndex> {
    static constexpr Functions functions{CPUDEFEND_CARPKT_GETFIRST, CPUDEFEND_CARPKT_GETNEXT,
                                         CPUDEFEND_CARPKT_GETAPI, CPUDEFEND_CARPKT_SETAPI};
    static constexpr uint8_t indexCount = 3;
    static constexpr int32_t endOfWalk = CPUDEFEND_FAIL;

    static std::vector<Item> items(const CarPktIndex &index)
    {
        return {static_cast<uint32_t>(index.policy.size()), index.policy, index.pktType};
    }
    static CarPktIndex index(const std::vector<Item> &items)
    {
        return {std::get<std::string>(items[1]), std::get<uint32_t>(items[2])};
    }
};

template <> struct Table<RuleIndex> {
    static constexpr Functions functions{
        CPUDEFEND_USERDEFINED_GETFIRST, CPUDEFEND_USERDEFINED_GETNEXT, CPUDEFEND_USERDEFINED_GETAPI,
        CPUDEFEND_USERDEFINED_SETAPI};
    static constexpr uint8_t indexCount = 3;
    static constexpr int32_t endOfWalk = CPUDEFEND_FAIL;

    static std::vector<Item> items(const RuleIndex &index)
    {
        return {static_cast<uint32_t>(index.policy.size()), index.policy, index.index};
    }
    static RuleIndex index(const std::vector<Item> &items)
    {
        return {std::get<std::string>(items[1]), std::get<uint32_t>(items[2])};
    }
};

template <> struct Table<SlotIndex> {
    static constexpr Functions functions{CPUDEFEND_SLOT_GETFIRST, CPUDEFEND_SLOT_GETNEXT,
                                         CPUDEFEND_SLOT_GETAPI, CPUDEFEND_SLOT_SETAPI};
    static constexpr uint8_t indexCount = 2;
    static constexpr int32_t endOfWalk = CPUDEFEND_FAIL;

    static std::vector<Item> items(const SlotIndex &index) { return {index.system, index.slot}; }
    static SlotIndex index(const std::vector<Item> &items)
    {
        return {std::get<uint32_t>(items[0]), std::get<uint32_t>(items[1])};
    }
};

template <> struct Table<SourceIndex> {
    static constexpr Functions functions{CPUDEFEND_SRCTRACE_GETFIRST, CPUDEFEND_SRCTRACE_GETNEXT,
                                         CPUDEFEND_SRCTRACE_GETAPI, 0};
    static constexpr uint8_t indexCount = 5;
    static constexpr int32_t endOfWalk = CPUDEFEND_ENOENTRY;

    static std::vector<Item> items(const SourceIndex &index)
    {
        return {index.interface, octetsOf(index.ip),
                std::string(1, static_cast<char>(index.pktType)), octetsOf(index.mac),
                std::string(1, static_cast<char>(index.filter))};
    }
    static SourceIndex index(const std::vector<Item> &items)
    {
        return {std::get<uint32_t>(items[0]), bytesOf<4>(items[1]), bytesOf<1>(items[2])[0],
                bytesOf<6>(items[3]), bytesOf<1>(items[4])[0]};
    }
};

} // namespace

template <class Index> Request requestFor(uint32_t function, const Index &index)
{
    Request request;
    request.function = function;
    request.indexCount = Table<Index>::indexCount;
    request.index = Table<Index>::items(index);
    return request;
}

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
    template Value Client::get(const Index &, const Attribute &);                                  \
    template Request requestFor(uint32_t, const Index &)
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
