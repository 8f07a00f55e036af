/**
 * What the tests of policy switching and its tables share: policies that show in the recorded
 * calls by one letter, and those calls as one short line.
 */
#ifndef ENGINE_H
#define ENGINE_H

#include <array>
#include <cstring>

#include "core_test.h"

namespace engine
{

/** A policy named by one letter, which programs nothing but the ACL of that number. */
inline tCpuDefendPolicyEntry *addLetter(char letter)
{
    tCpuDefendPolicyEntry *policy = addBarePolicy(std::string(1, letter));
    policy->whiteListIp4Acl = static_cast<uint8_t>(letter);
    return policy;
}

/** Name the policy of a level; an empty name leaves it unconfigured. */
inline void nameLevel(tCpuDefendCpuRatControl &level, const std::string &name)
{
    memset(level.policyName, 0, sizeof level.policyName);
    memcpy(level.policyName, name.data(), name.size());
    level.policyNameLen = static_cast<uint8_t>(name.size());
}

/** Levels with these thresholds and the policies a, b and c. */
inline void setLevels(tCpuDefendCpuRatControl *levels, const std::array<uint8_t, 3> &thresholds)
{
    for (size_t i = 0; i < thresholds.size(); i++) {
        levels[i].cpuRat = thresholds[i];
        nameLevel(levels[i], std::string(1, static_cast<char>('a' + i)));
    }
}

inline void bind(tCpuDefendSlotEntry *slot, const std::string &name)
{
    memcpy(slot->policyName, name.data(), name.size());
    slot->policyNameLen = static_cast<uint8_t>(name.size());
    slot->policyEntry = findPolicy(name);
}

inline std::string place(const scripted::Record &call)
{
    if (!call.slot)
        return "";
    return "@" + std::to_string(call.slot->first) + "/" + std::to_string(call.slot->second) +
           (call.slotType ? "!" : "");
}

/** Records of selected levels: "1/5=3", or "sys=3". */
inline std::string levelRecords(const std::string &octets)
{
    std::string text;
    for (size_t at = 0; at + 12 <= octets.size(); at += 12) {
        const std::string head = octets.substr(at, 11);
        const auto byte = [&](size_t i) {
            return std::to_string(static_cast<uint8_t>(octets[at + i]));
        };
        const bool system = head == std::string(11, '\0');
        text +=
            (text.empty() ? "" : " ") + (system ? "sys" : byte(3) + "/" + byte(7)) + "=" + byte(11);
    }
    return text;
}

/**
 * The calls that programmed or synchronised something, in order: "+a" adds policy a to the system,
 * "-b@1/5" removes b from a slot, "sync(1/5=3)" tells the standby card.
 */
inline std::string trail()
{
    std::string text;
    for (const scripted::Record &call : scripted::calls) {
        std::string word;
        switch (call.call) {
        case scripted::Call::AclAdd:
            word = std::string("+") + static_cast<char>(call.acl) + place(call);
            break;
        case scripted::Call::AclDel:
            word = std::string("-") + static_cast<char>(call.acl) + place(call);
            break;
        case scripted::Call::ScalarSync: word = "sync(" + levelRecords(call.octets) + ")"; break;
        case scripted::Call::ScalarGet:
        case scripted::Call::CpuGet: continue;
        default: word = call.text();
        }
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

/** The same, of the calls since the last one asked for. */
inline std::string nextTrail()
{
    const std::string text = trail();
    scripted::calls.clear();
    return text;
}

} // namespace engine

#endif
