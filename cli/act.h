/**
 * What the commands have in common: how failures are told, settings sent and records read.
 */
#ifndef CPUDEFENDCTL_ACT_H
#define CPUDEFENDCTL_ACT_H

#include <span>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/values.h"
#include "client/text.h"

namespace ctl
{

/** What a command is about, for the words in which a refusal is told. */
struct Subject {
    const char *absent = nullptr; /**< said when there is no such entry */
    std::string policy = "";      /**< the policy that must be there first, if there must be one */
    bool isSlot = false;
};

const Subject kSystem{};
const Subject kSlot{nullptr, "", true};
Subject policySubject(const std::string &name);

std::string quoted(const std::string &policy);

/** @return the failure of "couldn't @a what" */
CommandFailed failureOf(Context &context, const std::string &what, const Subject &subject,
                        const cpudefend::Error &error);

/** Do something; what fails becomes "couldn't @a what: reason". */
template <class Action>
auto attempt(Context &context, const std::string &what, const Subject &subject, Action action)
{
    try {
        return action();
    } catch (const cpudefend::Error &error) {
        throw failureOf(context, what, subject, error);
    }
}

void warn(Context &context, const std::string &message);

/**
 * Send settings one by one.
 * @param what what they are for
 *
 * The first failure ends it and says how far it came. What is stored and not programmed is warned
 * of.
 */
template <class Index>
void apply(Context &context, const std::string &what, const Subject &subject, const Index &index,
           const std::vector<Setting> &steps);

/** The words from the given place on. */
std::span<const std::string> from(const Words &words, std::size_t first);

/** The attributes of these ids, read. */
template <class Index>
Record recordOf(Context &context, Record head, const Index &index,
                std::span<const cpudefend::Attribute> attributes, std::span<const uint32_t> ids)
{
    for (const uint32_t id : ids) {
        const cpudefend::Attribute &wanted = cpudefend::attribute(attributes, id);
        head.push_back(fieldOf(wanted, context.client.get(index, wanted)));
    }
    return head;
}

std::vector<uint32_t> allIds(std::span<const cpudefend::Attribute> attributes);

uint32_t globalNumber(Context &context, uint32_t id);

/** The settings of levels in the order in which no sample meets half of them. */
std::vector<Setting> levelSteps(std::vector<Setting> settings);

/** Send them, and warn when that unbinds the policy of the system. */
template <class Index>
void applyLevels(Context &context, const std::string &what, const Subject &subject,
                 const Index &index, const std::vector<Setting> &steps);

/** The commands' functions. */
namespace run
{

void policyAdd(Context &context, const Words &words);
void policySet(Context &context, const Words &words);
void policyShow(Context &context, const Words &words);
void policyList(Context &context, const Words &words);
void policyDel(Context &context, const Words &words);

void carSet(Context &context, const Words &words);
void carShow(Context &context, const Words &words);
void carList(Context &context, const Words &words);

void ruleAdd(Context &context, const Words &words);
void ruleSet(Context &context, const Words &words);
void ruleShow(Context &context, const Words &words);
void ruleList(Context &context, const Words &words);
void ruleDel(Context &context, const Words &words);

void slotSet(Context &context, const Words &words);
void slotShow(Context &context, const Words &words);
void slotList(Context &context, const Words &words);

void sourceShow(Context &context, const Words &words);
void sourceList(Context &context, const Words &words);
void sourceReset(Context &context, const Words &words);

void bindPolicy(Context &context, const Words &words);
void unbindPolicy(Context &context, const Words &words);
void setSystem(Context &context, const Words &words);
void showSystem(Context &context, const Words &words);
void setDebug(Context &context, const Words &words);

} // namespace run

} // namespace ctl

#endif
