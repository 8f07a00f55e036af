/**
 * Where policies are bound: the system and its slots.
 */
#include <algorithm>

#include "client/requests.h"

namespace cpudefend
{

namespace
{

bool isMode(const Setting &setting, uint32_t mode)
{
    return setting.attribute->name == "mode" && setting.value == Value{mode};
}

/** Fixed comes first and CPU-rate control last, so that levels change outside of it. */
int levelOrder(const Setting &setting)
{
    return isMode(setting, CPUDEFEND_CPURAT_CONTROL) - isMode(setting, CPUDEFEND_FIXED);
}

/** Whether it is the daemon's own refusal, or anything but a refusal. */
bool isPlain(const Error &error)
{
    return error.code() == CPUDEFEND_OK || error.code() == CPUDEFEND_ENONAME ||
           error.code() == CPUDEFEND_ENOSLOT;
}

/** A code that is not the daemon's own comes from the platform: what is bound is told then. */
Error notBound(const std::string &wanted, const std::string &bound, int32_t code)
{
    const bool inPart = bound == wanted;
    const std::string what =
        inPart ? "the hardware layer refused part of it" : "the platform refused it";
    const std::string now = bound.empty() ? "no policy" : Table<PolicyIndex>::subject({bound});
    return {inPart ? Failure::InPart : Failure::Platform,
            what + " (code " + std::to_string(code) + "); " + now + " is bound now", code};
}

} // namespace

std::vector<SlotIndex> Client::slots()
{
    std::vector<SlotIndex> slots;
    for (auto index = first<SlotIndex>(); index; index = next(*index))
        slots.push_back(*index);
    return slots;
}

std::vector<Row<SlotIndex>> Client::slots(std::span<const uint32_t> attributeIds)
{
    return listAll<SlotIndex>(attributeIds);
}

void Client::warnOfPassedOver(std::size_t listed)
{
    const uint32_t used = globalNumber(CPUDEFEND_GLOBAL_USESLOTNUM);
    if (listed < used)
        warn(Warning::PassedOver, "the daemon has " + std::to_string(used) + " slots and lists " +
                                      std::to_string(listed) +
                                      " of them: it passes over each behind a greater one");
}

template <class Index> void Client::applyLevels(const Index &index, std::vector<Setting> settings)
{
    const auto bound = [&] {
        try {
            return boundPolicy();
        } catch (const Error &error) {
            throw error.during({"set up", Table<Index>::subject(index)});
        }
    };
    check(Table<Index>::attributes(), settings);
    std::ranges::stable_sort(settings, {}, levelOrder);
    const bool controls = std::ranges::any_of(
        settings, [](const Setting &step) { return isMode(step, CPUDEFEND_CPURAT_CONTROL); });
    const std::string before = controls ? bound() : "";
    apply(index, settings);
    if (!before.empty() && bound().empty())
        warn(Warning::Unbound,
             Table<PolicyIndex>::subject({before}) + " is no longer bound to the system");
}

void Client::setSystem(const std::vector<Setting> &settings)
{
    applyLevels(GlobalIndex{}, settings);
}

void Client::setSlot(const SlotIndex &slot, const std::vector<Setting> &settings)
{
    applyLevels(slot, settings);
}

template <class Index> std::string Client::bound(const Index &index)
{
    return std::get<std::string>(get(index, Table<Index>::binding, CPUDEFEND_NAME_MAXLEN));
}

template <class Index> void Client::rebind(const Index &index, const std::string &name)
{
    try {
        set(index, Table<Index>::binding, name);
    } catch (const Error &error) {
        if (isPlain(error))
            throw;
        throw notBound(name, bound(index), error.code());
    }
}

void Client::bind(const std::string &name)
{
    rebind(GlobalIndex{}, checkedName(name));
}

void Client::bind(const SlotIndex &slot, const std::string &name)
{
    rebind(slot, checkedName(name));
}

void Client::unbind()
{
    rebind(GlobalIndex{}, "");
}

void Client::unbind(const SlotIndex &slot)
{
    rebind(slot, "");
}

std::string Client::boundPolicy()
{
    return bound(GlobalIndex{});
}

std::string Client::boundPolicy(const SlotIndex &slot)
{
    return bound(slot);
}

} // namespace cpudefend
