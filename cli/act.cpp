#include "cli/act.h"

#include <algorithm>

namespace ctl
{

using namespace cpudefend;

CommandFailed failureOf(const std::string &what, const std::string &subject, const Error &error)
{
    const std::string sentence = error.sentence(what, subject);
    switch (error.failure()) {
    case Failure::BadArgument: return {kExitUsage, sentence};
    case Failure::Refused:
    case Failure::Platform:
    case Failure::InPart:
    case Failure::Exists:
    case Failure::NotTracing: return {kExitRefused, sentence};
    default: return {kExitUnreachable, sentence};
    }
}

std::string quoted(const std::string &policy)
{
    return "policy " + printable(policy);
}

std::span<const std::string> from(const Words &words, std::size_t first)
{
    return std::span(words).subspan(std::min(first, words.size()));
}

std::optional<std::string> firstOf(const Words &words)
{
    return words.empty() ? std::nullopt : std::optional(words[0]);
}

Record recordOf(Record head, std::span<const Attribute> attributes, std::span<const uint32_t> ids,
                const std::vector<Value> &values)
{
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const Attribute &read = attribute(attributes, ids[i]);
        head.push_back(values.empty() ? Field{read.name, std::monostate(), read.unit}
                                      : fieldOf(read, values[i]));
    }
    return head;
}

std::vector<uint32_t> allIds(std::span<const Attribute> attributes)
{
    std::vector<uint32_t> ids(attributes.size());
    std::ranges::transform(attributes, ids.begin(), &Attribute::id);
    return ids;
}

} // namespace ctl
