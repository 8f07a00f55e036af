#include "client/client.h"

#include "client/requests.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

namespace
{

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

/** "; set before that: a=1 b=2", or nothing. */
std::string doneBefore(std::span<const Setting> done)
{
    std::string text;
    for (const Setting &setting : done)
        text += (text.empty() ? "; set before that: " : " ") + labelOf(setting);
    return text;
}

} // namespace

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
        throw refusal<Index>(reply.code);
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
        throw refusal<Index>(code);
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
        throw refusal<Index>(reply.code);
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

/** An entry may be missing because its policy is. */
template <class Index> Error Client::explained(const Index &index, const Error &error)
{
    const std::string policy = Table<Index>::policy(index);
    if (error.code() == CPUDEFEND_ENOENTRY && !policy.empty() && !policyExists(policy))
        return refusal<PolicyIndex>(CPUDEFEND_ENOENTRY);
    return error;
}

template <class Index>
std::vector<Value> Client::read(const Index &index, std::span<const uint32_t> attributeIds)
{
    std::vector<Value> values;
    try {
        for (const uint32_t id : attributeIds)
            values.push_back(get(index, attribute(Table<Index>::attributes(), id)));
    } catch (const Error &error) {
        throw explained(index, error);
    }
    return values;
}

template <class Index>
void Client::append(const Index &index, std::span<const uint32_t> attributeIds,
                    std::vector<Row<Index>> *rows)
{
    try {
        rows->push_back({index, read(index, attributeIds)});
    } catch (const Error &error) {
        if (error.code() != CPUDEFEND_ENOENTRY)
            throw;
    }
}

template <class Index> void Client::warnStoredOnly(const Index &index)
{
    warn(Warning::StoredOnly, Table<Index>::subject(index) +
                                  " is bound: the change is stored, and takes effect when the "
                                  "policy is unbound and bound again");
}

template <class Index> void Client::apply(const Index &index, const std::vector<Setting> &steps)
{
    bool storedOnly = false;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        try {
            const SetResult result = set(index, steps[i].attribute->id, steps[i].value);
            storedOnly |= result == SetResult::StoredOnly;
        } catch (const Error &error) {
            if (storedOnly)
                warnStoredOnly(index);
            const Error why = explained(index, error);
            throw Error(why.failure(), why.what() + doneBefore(std::span(steps).first(i)),
                        why.code(),
                        {"set " + labelOf(steps[i]) + " for", Table<Index>::subject(index)});
        }
    }
    if (storedOnly)
        warnStoredOnly(index);
}

uint32_t Client::globalNumber(uint32_t attributeId)
{
    return std::get<uint32_t>(get(GlobalIndex{}, attributeId, 0));
}

void Client::warn(Warning::Kind kind, const std::string &text)
{
    if (onWarning_)
        onWarning_({kind, text});
}

#define READABLE(Index)                                                                            \
    template Value Client::get(const Index &, uint32_t, std::size_t);                              \
    template Value Client::get(const Index &, const Attribute &);                                  \
    template std::vector<Value> Client::read(const Index &, std::span<const uint32_t>)
#define SETTABLE(Index)                                                                            \
    template SetResult Client::set(const Index &, uint32_t, const Value &);                        \
    template void Client::apply(const Index &, const std::vector<Setting> &)
#define WALKABLE(Index)                                                                            \
    template bool Client::exists(const Index &, uint32_t);                                         \
    template Error Client::explained(const Index &, const Error &);                                \
    template void Client::append(const Index &, std::span<const uint32_t>,                         \
                                 std::vector<Row<Index>> *);                                       \
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
