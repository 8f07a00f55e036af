#include "client/client.h"

#include "client/pipeline.h"
#include "cpuDefend_nm.h"

namespace cpudefend
{

namespace
{

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
    return valueFrom<Index>(call(getRequest(index, attributeId, octets)));
}

template <class Index> Value Client::get(const Index &index, const Attribute &attribute)
{
    return valueFrom<Index>(call(getRequest(index, attribute)));
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

template <class Index> std::optional<Index> Client::first(const Index &from)
{
    return indexFrom<Index>(call(walkRequest(Table<Index>::functions.first, from)));
}

template <class Index> std::optional<Index> Client::next(const Index &index)
{
    return indexFrom<Index>(call(walkRequest(Table<Index>::functions.next, index)));
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
std::vector<Row<Index>> Client::list(const std::vector<Index> &indexes,
                                     std::span<const uint32_t> attributeIds)
{
    Pipeline pipeline(channel_, &lastId_);
    Lister<Index> lister(&pipeline, attributeIds);
    for (const Index &index : indexes)
        lister.ask(index);
    for (const Index &index : indexes)
        lister.take(index);
    return std::move(lister.rows);
}

template <class Index>
std::vector<Row<Index>> Client::listAll(std::span<const uint32_t> attributeIds)
{
    Pipeline pipeline(channel_, &lastId_);
    Lister<Index> lister(&pipeline, attributeIds);
    walkAhead<Index>(
        &pipeline, [&](const Index &index) { lister.ask(index); },
        [&](const Index &index) { lister.take(index); });
    return std::move(lister.rows);
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
    template std::vector<Row<Index>> Client::list(const std::vector<Index> &,                      \
                                                  std::span<const uint32_t>);                      \
    template std::vector<Row<Index>> Client::listAll(std::span<const uint32_t>);                   \
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
