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
 * further specialization, and a line at the end of this file.
 */
template <class Index> struct Table;

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

    static std::vector<Item> items(const CarPktIndex &index)
    {
        return {static_cast<uint32_t>(index.policy.size()), index.policy, index.pktType};
    }
    static CarPktIndex index(const std::vector<Item> &items)
    {
        return {std::get<std::string>(items[1]), std::get<uint32_t>(items[2])};
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
    if (reply.code == CPUDEFEND_FAIL)
        return std::nullopt;
    if (reply.code != CPUDEFEND_OK)
        throw Error(reply.code);
    return Table<Index>::index(reply.answer);
}

template <class Index> std::optional<Index> Client::first()
{
    return walk(Table<Index>::functions.first, Index{});
}

template <class Index> std::optional<Index> Client::next(const Index &index)
{
    return walk(Table<Index>::functions.next, index);
}

bool Client::policyExists(const std::string &name)
{
    try {
        get(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS, 0);
    } catch (const Error &error) {
        if (error.code() == CPUDEFEND_ENOENTRY)
            return false;
        throw;
    }
    return true;
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
    for (uint32_t type = 0; type < CPUDEFEND_PKTTYPE_MAX; ++type) {
        try {
            get(CarPktIndex{policy, type}, CPUDEFEND_CARPKT_MODE, 0);
            types.push_back(type);
        } catch (const Error &error) {
            if (error.code() != CPUDEFEND_ENOENTRY)
                throw;
        }
    }
    return types;
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

void Client::unbind()
{
    bind("");
}

std::string Client::boundPolicy()
{
    return std::get<std::string>(
        get(GlobalIndex{}, CPUDEFEND_GLOBAL_POLICY, CPUDEFEND_NAME_MAXLEN));
}

template Value Client::get(const GlobalIndex &, uint32_t, std::size_t);
template Value Client::get(const PolicyIndex &, uint32_t, std::size_t);
template Value Client::get(const CarPktIndex &, uint32_t, std::size_t);
template Value Client::get(const GlobalIndex &, const Attribute &);
template Value Client::get(const PolicyIndex &, const Attribute &);
template Value Client::get(const CarPktIndex &, const Attribute &);
template SetResult Client::set(const GlobalIndex &, uint32_t, const Value &);
template SetResult Client::set(const PolicyIndex &, uint32_t, const Value &);
template SetResult Client::set(const CarPktIndex &, uint32_t, const Value &);
template std::optional<PolicyIndex> Client::first();
template std::optional<CarPktIndex> Client::first();
template std::optional<PolicyIndex> Client::next(const PolicyIndex &);
template std::optional<CarPktIndex> Client::next(const CarPktIndex &);
template Request requestFor(uint32_t, const GlobalIndex &);
template Request requestFor(uint32_t, const PolicyIndex &);
template Request requestFor(uint32_t, const CarPktIndex &);

} // namespace cpudefend
