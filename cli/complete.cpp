#include "cli/complete.h"

#include <algorithm>
#include <set>

#include "cli/commands.h"

namespace ctl
{

using cpudefend::Attribute;

namespace
{

using Candidates = std::vector<std::string>;

constexpr const char *kOptions[] = {"--help", "--json", "--socket", "--timeout", "--version"};

bool takesWord(const std::string &option)
{
    return option == "--socket" || option == "--timeout";
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

Candidates settings(const Arg &arg)
{
    Candidates candidates;
    for (const Attribute &attribute : arg.attributes()) {
        if (!attribute.isSettable())
            continue;
        const std::string key = std::string(attribute.name) + "=";
        candidates.push_back(key);
        for (const cpudefend::Choice &choice : attribute.choices)
            candidates.push_back(key + std::string(choice.word));
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

Candidates candidatesFor(const Arg &arg, cpudefend::Client &client)
{
    switch (arg.kind) {
    case ArgKind::NewPolicy: return {};
    case ArgKind::Policy: return policies(client);
    case ArgKind::PktType: {
        const auto names = cpudefend::pktTypeNames();
        return {names.begin(), names.end()};
    }
    case ArgKind::OnOff: return {"on", "off"};
    case ArgKind::PolicySettings:
    case ArgKind::CarSettings: break;
    }
    return settings(arg);
}

/** The words that can follow @a words in the tree, its last word not counted. */
Candidates following(const Words &words, cpudefend::Client &client)
{
    std::set<std::string> next;
    for (const Command &command : commands()) {
        Words path = *command.object ? Words{command.object, command.verb} : Words{command.verb};
        const std::size_t done = words.size() - 1;
        const std::size_t shared = std::min(done, path.size());
        if (!std::equal(path.begin(), path.begin() + static_cast<std::ptrdiff_t>(shared),
                        words.begin()))
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

} // namespace

std::vector<std::string> complete(const Words &words, cpudefend::Client &client)
{
    if (words.empty())
        return {};
    const std::string &current = words.back();
    Candidates candidates = current.starts_with("-")
                                ? Candidates{std::begin(kOptions), std::end(kOptions)}
                                : following(withoutOptions(words), client);
    std::erase_if(candidates,
                  [&](const std::string &candidate) { return !candidate.starts_with(current); });
    keepOneStep(&candidates, current);
    return candidates;
}

} // namespace ctl
