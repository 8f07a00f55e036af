/**
 * What the commands have in common: how failures are told and records made.
 */
#ifndef CPUDEFENDCTL_ACT_H
#define CPUDEFENDCTL_ACT_H

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/values.h"
#include "client/text.h"

namespace ctl
{

std::string quoted(const std::string &policy);

/** @return the failure of "couldn't @a what"; a step of it that failed was for @a subject */
CommandFailed failureOf(const std::string &what, const std::string &subject,
                        const cpudefend::Error &error);

/** Do something; what fails becomes "couldn't @a what: reason". */
template <class Action>
auto attempt(const std::string &what, const std::string &subject, Action action)
{
    try {
        return action();
    } catch (const cpudefend::Error &error) {
        throw failureOf(what, subject, error);
    }
}

template <class Action> auto attempt(const std::string &what, Action action)
{
    return attempt(what, "", action);
}

/** The words from the given place on. */
std::span<const std::string> from(const Words &words, std::size_t first);

/** The first word, where there is one. */
std::optional<std::string> firstOf(const Words &words);

/** A record of attributes that were read; of each nothing where there are no values. */
Record recordOf(Record head, std::span<const cpudefend::Attribute> attributes,
                std::span<const uint32_t> ids, const std::vector<cpudefend::Value> &values);

std::vector<uint32_t> allIds(std::span<const cpudefend::Attribute> attributes);

/** Print rows as a table, each as the record that @a record makes of it. */
template <class Rows, class ToRecord>
void writeRows(Context &context, const Rows &rows, ToRecord toRecord)
{
    std::vector<Record> records;
    for (const auto &row : rows)
        records.push_back(toRecord(row));
    write(context.out, context.format, Layout::Table, records);
}

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
