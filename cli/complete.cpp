#include "cli/complete.h"

#include <algorithm>
#include <set>

#include "cli/commands.h"
#include "cli/values.h"

namespace ctl
{

using cpudefend::Attribute;

namespace
{

using Candidates = std::vector<std::string>;

constexpr const char *kOptions[] = {"--help", "--json", "--socket", "--timeout", "--version"};

/** The option of a command of that name; null when none has such a one. */
const Option *findOption(const std::string &name)
{
    for (const Command &command : commands())
        for (const Option &option : command.options)
            if (option.name == name)
                return &option;
    return nullptr;
}

bool takesWord(const std::string &option)
{
    return option == "--socket" || option == "--timeout" || findOption(option);
}

/** The words that are not options, the last word always among them. */
Words withoutOptions(const Words &words)
{
    Words rest;
    for (std::size_t i = 0; i + 1 < words.size(); ++i) {
        if (takesWord(words[i]))
            ++i;
        else if (!words[i].starts_with("--"))
            rest.push_back(words[i]);
    }
    rest.push_back(words.back());
    return rest;
}

Candidates policies(cpudefend::Client &client)
{
    try {
        return client.policyNames();
    } catch (const cpudefend::Error &) {
        return {};
    }
}

Candidates slots(cpudefend::Client &client)
{
    Candidates names;
    try {
        for (const cpudefend::SlotIndex &slot : client.slots())
            names.push_back(slotText(slot));
    } catch (const cpudefend::Error &) {
        return {};
    }
    return names;
}

Candidates settings(const Arg &arg, cpudefend::Client &client)
{
    Candidates candidates;
    for (const Attribute &attribute : arg.attributes()) {
        if (!attribute.isSettable())
            continue;
        const std::string key = std::string(attribute.name) + "=";
        candidates.push_back(key);
        for (const cpudefend::Choice &choice : attribute.choices)
            candidates.push_back(key + std::string(choice.word));
        if (attribute.kind == cpudefend::Kind::Policy)
            for (const std::string &name : policies(client))
                candidates.push_back(key + name);
    }
    return candidates;
}

/** A key completes to "key="; its values come only behind the "=". */
void keepOneStep(Candidates *candidates, const std::string &current)
{
    const bool atValue = current.find('=') != std::string::npos;
    std::erase_if(*candidates, [&](const std::string &candidate) {
        const std::size_t equals = candidate.find('=');
        return equals != std::string::npos && (equals + 1 < candidate.size()) != atValue;
    });
}

/** Values of what is no setting. */
Candidates valuesOf(ArgKind kind, cpudefend::Client &client)
{
    switch (kind) {
    case ArgKind::Policy: return policies(client);
    case ArgKind::Slot: return slots(client);
    case ArgKind::PktType: {
        const auto names = cpudefend::pktTypeNames();
        return {names.begin(), names.end()};
    }
    case ArgKind::OnOff: return {"on", "off"};
    default: return {};
    }
}

Candidates candidatesFor(const Arg &arg, cpudefend::Client &client)
{
    return arg.isSettings() ? settings(arg, client) : valuesOf(arg.kind, client);
}

Words pathOf(const Command &command)
{
    return *command.object ? Words{command.object, command.verb} : Words{command.verb};
}

/** Whether the words before the last agree with the path, as far as both go. */
bool leadsTo(const Words &words, const Words &path)
{
    const auto shared = static_cast<std::ptrdiff_t>(std::min(words.size() - 1, path.size()));
    return std::equal(path.begin(), path.begin() + shared, words.begin());
}

/** The words that can follow @a words in the tree, its last word not counted. */
Candidates following(const Words &words, cpudefend::Client &client)
{
    std::set<std::string> next;
    for (const Command &command : commands()) {
        const Words path = pathOf(command);
        const std::size_t done = words.size() - 1;
        if (!leadsTo(words, path))
            continue;
        if (done < path.size()) {
            next.insert(path[done]);
            continue;
        }
        const std::size_t at = done - path.size();
        if (at < command.args.size())
            return candidatesFor(command.args[at], client);
        if (!command.args.empty() && command.args.back().isSettings())
            return candidatesFor(command.args.back(), client);
    }
    return {next.begin(), next.end()};
}

/** The options of the program, and of the command that the words name. */
Candidates optionsFor(const Words &words)
{
    Candidates names{std::begin(kOptions), std::end(kOptions)};
    for (const Command &command : commands()) {
        if (words.size() <= pathOf(command).size() || !leadsTo(words, pathOf(command)))
            continue;
        for (const Option &option : command.options)
            names.push_back(option.name);
    }
    return names;
}

/** What the last word may be. */
Candidates candidatesFor(const Words &words, cpudefend::Client &client)
{
    const Option *before = words.size() > 1 ? findOption(words[words.size() - 2]) : nullptr;
    if (before)
        return valuesOf(before->kind, client);
    if (words.back().starts_with("-"))
        return optionsFor(withoutOptions(words));
    return following(withoutOptions(words), client);
}

} // namespace

std::vector<std::string> complete(const Words &words, cpudefend::Client &client)
{
    if (words.empty())
        return {};
    const std::string &current = words.back();
    Candidates candidates = candidatesFor(words, client);
    std::erase_if(candidates,
                  [&](const std::string &candidate) { return !candidate.starts_with(current); });
    keepOneStep(&candidates, current);
    return candidates;
}

} // namespace ctl
