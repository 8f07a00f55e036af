#include "cli/act.h"

#include <algorithm>

#include "cpuDefend_nm.h"

namespace ctl
{

using namespace cpudefend;

namespace
{

constexpr const char *kNoPolicy = "there is no policy of this name";

Exit statusOf(const Error &error)
{
    switch (error.failure()) {
    case Failure::BadArgument: return kExitUsage;
    case Failure::Refused:
    case Failure::Platform:
    case Failure::InPart:
    case Failure::Exists:
    case Failure::NotTracing: return kExitRefused;
    default: return kExitUnreachable;
    }
}

/** The reason in the words of what was asked for. */
std::string reasonOf(Context &context, const Error &error, const Subject &subject)
{
    switch (error.code()) {
    case CPUDEFEND_ENOENTRY:
        if (!subject.policy.empty() && !context.client.policyExists(subject.policy))
            return kNoPolicy;
        return subject.absent ? subject.absent : error.what();
    // The daemon says these of slots and of sources only; elsewhere they are the platform's.
    case CPUDEFEND_ENOSLOT: return subject.isSlot ? error.what() : platformCodeText(error.code());
    case CPUDEFEND_EBADINDEX: return platformCodeText(error.code());
    default: return error.what();
    }
}

std::string label(const Setting &setting)
{
    return std::string(setting.attribute->name) + "=" + printable(setting.word);
}

/** "; set before that: a=1 b=2", or nothing. */
std::string doneBefore(std::span<const Setting> done)
{
    std::string text;
    for (const Setting &setting : done)
        text += (text.empty() ? "; set before that: " : " ") + label(setting);
    return text;
}

void warnStoredOnly(Context &context, const std::string &what)
{
    warn(context, what + " is bound: the change is stored, and takes effect when the policy is "
                         "unbound and bound again");
}

bool isMode(const Setting &setting, uint32_t mode)
{
    return setting.attribute->name == "mode" && setting.value == Value{mode};
}

/** Fixed comes first and CPU-rate control last, so that levels change outside of it. */
int levelOrder(const Setting &setting)
{
    return isMode(setting, CPUDEFEND_CPURAT_CONTROL) - isMode(setting, CPUDEFEND_FIXED);
}

} // namespace

Subject policySubject(const std::string &name)
{
    return {kNoPolicy, name};
}

std::string quoted(const std::string &policy)
{
    return "policy " + printable(policy);
}

CommandFailed failureOf(Context &context, const std::string &what, const Subject &subject,
                        const Error &error)
{
    return {statusOf(error), "couldn't " + what + ": " + reasonOf(context, error, subject)};
}

void warn(Context &context, const std::string &message)
{
    context.err << "cpudefendctl: warning: " << message << '\n';
}

template <class Index>
void apply(Context &context, const std::string &what, const Subject &subject, const Index &index,
           const std::vector<Setting> &steps)
{
    bool storedOnly = false;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        try {
            const SetResult result =
                context.client.set(index, steps[i].attribute->id, steps[i].value);
            storedOnly |= result == SetResult::StoredOnly;
        } catch (const Error &error) {
            if (storedOnly)
                warnStoredOnly(context, what);
            const CommandFailed failed =
                failureOf(context, "set " + label(steps[i]) + " for " + what, subject, error);
            throw CommandFailed(failed.status(),
                                failed.what() + doneBefore(std::span(steps).first(i)));
        }
    }
    if (storedOnly)
        warnStoredOnly(context, what);
}

std::span<const std::string> from(const Words &words, std::size_t first)
{
    return std::span(words).subspan(std::min(first, words.size()));
}

std::vector<uint32_t> allIds(std::span<const Attribute> attributes)
{
    std::vector<uint32_t> ids(attributes.size());
    std::ranges::transform(attributes, ids.begin(), &Attribute::id);
    return ids;
}

uint32_t globalNumber(Context &context, uint32_t id)
{
    return std::get<uint32_t>(context.client.get(GlobalIndex{}, id, 0));
}

std::vector<Setting> levelSteps(std::vector<Setting> settings)
{
    std::ranges::stable_sort(settings, {}, levelOrder);
    return settings;
}

template <class Index>
void applyLevels(Context &context, const std::string &what, const Subject &subject,
                 const Index &index, const std::vector<Setting> &steps)
{
    const auto bound = [&] {
        return attempt(context, "set up " + what, subject,
                       [&] { return context.client.boundPolicy(); });
    };
    const bool controls = std::ranges::any_of(
        steps, [](const Setting &step) { return isMode(step, CPUDEFEND_CPURAT_CONTROL); });
    const std::string before = controls ? bound() : "";
    apply(context, what, subject, index, steps);
    if (!before.empty() && bound().empty())
        warn(context, quoted(before) + " is no longer bound to the system");
}

template void apply(Context &, const std::string &, const Subject &, const PolicyIndex &,
                    const std::vector<Setting> &);
template void apply(Context &, const std::string &, const Subject &, const CarPktIndex &,
                    const std::vector<Setting> &);
template void apply(Context &, const std::string &, const Subject &, const RuleIndex &,
                    const std::vector<Setting> &);
template void applyLevels(Context &, const std::string &, const Subject &, const SlotIndex &,
                          const std::vector<Setting> &);
template void applyLevels(Context &, const std::string &, const Subject &, const GlobalIndex &,
                          const std::vector<Setting> &);

} // namespace ctl
