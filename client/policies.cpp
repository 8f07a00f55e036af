/**
 * Policies and their CAR entries.
 */
#include <algorithm>

#include "client/pipeline.h"

namespace cpudefend
{

namespace
{

/** -1 for what opens the way for other settings, 1 for what closes it. */
int order(const Setting &setting)
{
    if (setting.attribute->kind != Kind::Switch)
        return 0;
    return std::get<uint32_t>(setting.value) == CPUDEFEND_ENABLE ? -1 : 1;
}

/**
 * In the order in which the daemon takes them all: it refuses the numbers of a list that is off,
 * so that switching on comes first and switching off last.
 */
std::vector<Setting> policySteps(std::vector<Setting> settings)
{
    check(policyAttributes(), settings);
    std::ranges::stable_sort(settings, {}, order);
    return settings;
}

/**
 * The daemon adds each mode to those set before, and forgets them with mode 0: the mode asked for
 * is set behind a mode 0, and is then the only one.
 */
std::vector<Setting> carSteps(const std::vector<Setting> &settings)
{
    check(carPktAttributes(), settings);
    const Setting none =
        setting(carPktAttributes(), CPUDEFEND_CARPKT_MODE, uint32_t{CPUDEFEND_CARPKTMODE_DEFAULT});
    std::vector<Setting> steps;
    for (const Setting &setting : settings) {
        const bool isMode = setting.attribute == none.attribute;
        if (isMode)
            steps.push_back(none);
        if (!isMode || setting.value != none.value)
            steps.push_back(setting);
    }
    return steps;
}

} // namespace

bool Client::policyExists(const std::string &name)
{
    return exists(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS);
}

std::vector<std::string> Client::policyNames()
{
    std::vector<std::string> names;
    for (auto index = first<PolicyIndex>(); index; index = next(*index))
        names.push_back(index->name);
    return names;
}

void Client::mustExist(const std::string &policy)
{
    if (!policyExists(checkedName(policy)))
        throw Error(CPUDEFEND_ENONAME);
}

std::vector<Row<PolicyIndex>> Client::policies(std::span<const uint32_t> attributeIds)
{
    return listAll<PolicyIndex>(attributeIds);
}

/** The daemon creates a policy even when it has not the entries left for all of its limits. */
void Client::addPolicy(const std::string &name)
{
    const uint32_t before = globalNumber(CPUDEFEND_GLOBAL_USECARPKTNUM);
    set(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_CREATE});
    const uint32_t got = globalNumber(CPUDEFEND_GLOBAL_USECARPKTNUM) - before;
    if (got < CPUDEFEND_CARPKT_PER_POLICY)
        warn(Warning::FewLimits, Table<PolicyIndex>::subject({name}) + " has limits for " +
                                     std::to_string(got) + " of " +
                                     std::to_string(CPUDEFEND_CARPKT_PER_POLICY) +
                                     " packet types: the daemon has no CAR entries left");
}

void Client::createPolicy(const std::string &name, const std::vector<Setting> &settings)
{
    const PolicyIndex policy{checkedName(name)};
    const std::vector<Setting> steps = policySteps(settings);
    if (policyExists(name))
        throw Error(Failure::Exists, "it exists already");
    addPolicy(name);
    for (const uint32_t left : ruleIndexes(name))
        set(RuleIndex{name, left}, CPUDEFEND_USERDEFINED_ENTRYSTATUS,
            uint32_t{CPUDEFEND_ROW_DESTROY});
    apply(policy, steps);
    try {
        set(policy, CPUDEFEND_POLICY_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_ACTIVATE});
    } catch (const Error &error) {
        throw error.during({"activate", Table<PolicyIndex>::subject(policy)});
    }
}

void Client::setPolicy(const std::string &name, const std::vector<Setting> &settings)
{
    apply(PolicyIndex{checkedName(name)}, policySteps(settings));
}

void Client::destroyPolicy(const std::string &name)
{
    mustExist(name);
    set(PolicyIndex{name}, CPUDEFEND_POLICY_ENTRYSTATUS, uint32_t{CPUDEFEND_ROW_DESTROY});
}

// Asked type by type: the table's own walk also meets what destroyed policies left behind, and
// passes over entries of others where it does.
std::vector<Row<CarPktIndex>> Client::carEntries(std::span<const uint32_t> attributeIds,
                                                 const std::optional<std::string> &policy)
{
    Pipeline pipeline(channel_, &lastId_);
    Lister<CarPktIndex> lister(&pipeline, attributeIds);
    const auto ask = [&](const PolicyIndex &owner) {
        for (uint32_t type = 0; type < CPUDEFEND_CARPKT_PER_POLICY; ++type)
            lister.ask({owner.name, type});
    };
    const auto take = [&](const PolicyIndex &owner) {
        for (uint32_t type = 0; type < CPUDEFEND_CARPKT_PER_POLICY; ++type)
            lister.take({owner.name, type});
    };
    if (policy) {
        mustExist(*policy);
        ask({*policy});
        take({*policy});
    } else {
        walkAhead<PolicyIndex>(&pipeline, ask, take);
    }
    return std::move(lister.rows);
}

void Client::setCar(const CarPktIndex &index, const std::vector<Setting> &settings)
{
    checkedName(index.policy);
    apply(index, carSteps(settings));
}

} // namespace cpudefend
