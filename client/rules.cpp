/**
 * The user-defined rules of a policy.
 */
#include <algorithm>
#include <iterator>

#include "client/requests.h"

namespace cpudefend
{

namespace
{

/** All settings of a new rule: those given, then the others. */
std::vector<Setting> stepsOfNew(std::vector<Setting> steps)
{
    constexpr std::pair<uint32_t, uint32_t> kDefaults[] = {
        {CPUDEFEND_USERDEFINED_DENY, 0},
        {CPUDEFEND_USERDEFINED_IP4ACL, 0},
        {CPUDEFEND_USERDEFINED_IP6ACL, 0},
        {CPUDEFEND_USERDEFINED_CIR, CPUDEFEND_DEFAULT_CIR},
        {CPUDEFEND_USERDEFINEDT_CBS, CPUDEFEND_DEFAULT_CBS}};
    check(ruleAttributes(), steps);
    for (const auto &[id, value] : kDefaults) {
        const Setting missing = setting(ruleAttributes(), id, value);
        if (std::ranges::count(steps, missing.attribute, &Setting::attribute) == 0)
            steps.push_back(missing);
    }
    return steps;
}

} // namespace

// One by one, as the table's own walk passes over entries: see carEntries.
std::vector<RuleIndex> Client::rulesOf(const std::string &policy)
{
    constexpr uint32_t kStatus[] = {CPUDEFEND_USERDEFINED_ENTRYSTATUS};
    std::vector<RuleIndex> rules;
    for (uint32_t number = 0; number <= UINT8_MAX; ++number)
        rules.push_back({policy, number});
    const auto rows = list(rules, kStatus);
    rules.clear();
    for (const Row<RuleIndex> &row : rows)
        rules.push_back(row.index);
    return rules;
}

std::vector<uint32_t> Client::ruleIndexes(const std::string &policy)
{
    std::vector<uint32_t> numbers;
    if (first<RuleIndex>())
        for (const RuleIndex &rule : rulesOf(policy))
            numbers.push_back(rule.index);
    return numbers;
}

bool Client::ruleExists(const RuleIndex &index)
{
    return exists(index, CPUDEFEND_USERDEFINED_ENTRYSTATUS);
}

std::vector<Row<RuleIndex>> Client::rules(std::span<const uint32_t> attributeIds,
                                          const std::optional<std::string> &policy)
{
    if (policy)
        mustExist(*policy);
    if (!first<RuleIndex>())
        return {};
    std::vector<RuleIndex> all;
    for (const std::string &name : policy ? std::vector{*policy} : policyNames())
        std::ranges::copy(rulesOf(name), std::back_inserter(all));
    return list(all, attributeIds);
}

void Client::createRule(const RuleIndex &index, const std::vector<Setting> &settings)
{
    checkedName(index.policy);
    checkedRule(index.index);
    const std::vector<Setting> steps = stepsOfNew(settings);
    if (ruleExists(index))
        throw Error(Failure::Exists, "it exists already");
    set(index, CPUDEFEND_USERDEFINED_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_CREATE});
    apply(index, steps);
}

void Client::setRule(const RuleIndex &index, const std::vector<Setting> &settings)
{
    checkedName(index.policy);
    check(ruleAttributes(), settings);
    apply(index, settings);
}

void Client::destroyRule(const RuleIndex &index)
{
    checkedName(index.policy);
    if (!ruleExists(index))
        throw explained(index,
                        Error(Failure::Refused, Table<RuleIndex>::absent, CPUDEFEND_ENOENTRY));
    set(index, CPUDEFEND_USERDEFINED_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_DESTROY});
}

} // namespace cpudefend
