/**
 * How the daemon's tables look in requests.
 */
#ifndef CPUDEFEND_CLIENT_REQUESTS_H
#define CPUDEFEND_CLIENT_REQUESTS_H

#include <algorithm>

#include "client/client.h"
#include "client/text.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

/** Function codes of a table; 0 where it has no such function. */
struct Functions {
    uint32_t first;
    uint32_t next;
    uint32_t get;
    uint32_t set;
};

/**
 * A table of the daemon: its functions, its index as items on the wire, and how it is spoken of. A
 * further table is a further specialization, and lines at the end of client.cpp.
 *
 *     ownCode   the return code that the daemon gives for this table, and the platform for others
 *     absent    said when there is no such entry
 *     policy    name of the policy without which there can be no such entry; empty for none
 *     subject   what an entry is called
 *     binding   attribute that says which policy is bound, where policies are bound
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

    static constexpr int32_t ownCode = CPUDEFEND_OK;
    static constexpr const char *absent = "there is no such entry";
    static constexpr auto attributes = globalAttributes;
    static constexpr uint32_t binding = CPUDEFEND_GLOBAL_POLICY;
    static std::string policy(const GlobalIndex &) { return ""; }
    static std::string subject(const GlobalIndex &) { return "the system"; }
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

    static constexpr int32_t ownCode = CPUDEFEND_OK;
    static constexpr const char *absent = "there is no policy of this name";
    static constexpr auto attributes = policyAttributes;
    static std::string policy(const PolicyIndex &index) { return index.name; }
    static std::string subject(const PolicyIndex &index)
    {
        return "policy " + printable(index.name);
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

    static constexpr int32_t ownCode = CPUDEFEND_OK;
    static constexpr const char *absent = "a policy has no CAR entry of this type";
    static constexpr auto attributes = carPktAttributes;
    static std::string policy(const CarPktIndex &index) { return index.policy; }
    static std::string subject(const CarPktIndex &index)
    {
        return pktTypeName(index.pktType) + " in policy " + printable(index.policy);
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

    static constexpr int32_t ownCode = CPUDEFEND_OK;
    static constexpr const char *absent = "there is no such rule";
    static constexpr auto attributes = ruleAttributes;
    static std::string policy(const RuleIndex &index) { return index.policy; }
    static std::string subject(const RuleIndex &index)
    {
        return "rule " + std::to_string(index.index) + " of policy " + printable(index.policy);
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

    static constexpr int32_t ownCode = CPUDEFEND_ENOSLOT;
    static constexpr const char *absent = "there is no such entry";
    static constexpr auto attributes = slotAttributes;
    static constexpr uint32_t binding = CPUDEFEND_SLOT_POLICY;
    static std::string policy(const SlotIndex &) { return ""; }
    static std::string subject(const SlotIndex &index)
    {
        return "slot " + std::to_string(index.system) + "/" + std::to_string(index.slot);
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

    static constexpr int32_t ownCode = CPUDEFEND_EBADINDEX;
    static constexpr const char *absent = "there is no such source";
    static constexpr auto attributes = sourceAttributes;
    static std::string policy(const SourceIndex &) { return ""; }
};

/** Shape of a request for one table; the base of every request that Client sends. */
template <class Index> Request requestFor(uint32_t function, const Index &index)
{
    Request request;
    request.function = function;
    request.indexCount = Table<Index>::indexCount;
    request.index = Table<Index>::items(index);
    return request;
}

/** @param octets the room for an attribute of bytes, 0 for a number */
template <class Index>
Request getRequest(const Index &index, uint32_t attributeId, std::size_t octets)
{
    Request request = requestFor(Table<Index>::functions.get, index);
    request.command = attributeId;
    if (octets > 0)
        request.value = std::string(octets, '\0');
    request.answer = {typeOf(request.value)};
    return request;
}

template <class Index> Request getRequest(const Index &index, const Attribute &attribute)
{
    return getRequest(index, attribute.id, attribute.isOctets() ? attribute.max : 0);
}

template <class Index> Request walkRequest(uint32_t function, const Index &index)
{
    Request request = requestFor(function, index);
    for (const Item &item : request.index)
        request.answer.push_back(typeOf(item));
    return request;
}

/** A refusal, in words of the table that it is about. */
template <class Index> Error refusal(int32_t code)
{
    const bool ofOneTable = code == CPUDEFEND_ENOSLOT || code == CPUDEFEND_EBADINDEX;
    if (ofOneTable && code != Table<Index>::ownCode)
        return {Failure::Platform, platformCodeText(code), code};
    if (code == CPUDEFEND_ENOENTRY)
        return {Failure::Refused, Table<Index>::absent, code};
    return Error(code);
}

/** What a get was answered. */
template <class Index> Value valueFrom(Reply reply)
{
    if (reply.code != CPUDEFEND_OK)
        throw refusal<Index>(reply.code);
    return std::move(reply.answer[0]);
}

/** What a step of a walk was answered; nothing at its end. */
template <class Index> std::optional<Index> indexFrom(const Reply &reply)
{
    if (reply.code == Table<Index>::endOfWalk)
        return std::nullopt;
    if (reply.code != CPUDEFEND_OK)
        throw refusal<Index>(reply.code);
    return Table<Index>::index(reply.answer);
}

} // namespace cpudefend

#endif
