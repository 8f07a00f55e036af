/**
 * Long random sequences of calls, beside a model that is obviously right: per target a vector of
 * what was added, in order.
 */
#include <algorithm>
#include <cerrno>
#include <iterator>
#include <random>
#include <tuple>
#include <vector>

#include "memory_fixture.h"

namespace
{

constexpr size_t targetCount = 4; // the first is the system
const tSlotIndex slots[targetCount] = {{0, 0, 0}, {0, 1, 0}, {1, 0, 0}, {1, 1, 0}};

const tSlotIndex *slotOf(size_t target)
{
    return target == 0 ? nullptr : &slots[target];
}

using CarKey = std::tuple<uint32_t, uint32_t>;                     // type, pps
using AclKey = std::tuple<uint16_t, uint32_t, uint32_t, uint32_t>; // number, action, cir, cbs

/** Remove the newest entry equal to @a key. @return the code expected of the layer */
template <class Key> int32_t removeNewest(std::vector<Key> &entries, const Key &key)
{
    auto newest = std::find(entries.rbegin(), entries.rend(), key);
    if (newest == entries.rend())
        return ENOENT;
    entries.erase(std::next(newest).base());
    return 0;
}

/** Few values each, so that equal entries and hits are frequent. */
struct Random {
    std::mt19937 engine;

    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(engine() % limit); }
    CarKey carKey() { return {below(4), below(3)}; }
    AclKey aclKey()
    {
        uint16_t number = static_cast<uint16_t>(1 + below(3));
        if (below(3) == 0)
            return {number, ZYN_HW_OP_DENY, 0, 0};
        return {number, ZYN_HW_OP_PERMIT, below(2), below(2)};
    }
};

struct Model : testing::TestWithParam<unsigned> {
    Model() { zynMemoryReset(); }
    ~Model() override { zynMemoryReset(); }

    void carStep(size_t target, bool add)
    {
        CarKey key = random.carKey();
        tHwCpuDefendPktCarEntry entry = car(std::get<0>(key), std::get<1>(key));
        if (add)
            cars[target].push_back(key);
        int32_t expected = add ? 0 : removeNewest(cars[target], key);
        ASSERT_EQ(carSet(slotOf(target), add, entry), expected);
    }

    void aclStep(size_t target, bool add)
    {
        AclKey key = random.aclKey();
        auto [number, action, cir, cbs] = key;
        if (add)
            acls[target].push_back(key);
        int32_t expected = add ? 0 : removeNewest(acls[target], key);
        auto *call = add ? acl_cpudefend_add : acl_cpudefend_del;
        ASSERT_EQ(call(slotOf(target), number, action, cir, cbs, cbs), expected);
    }

    void compareCars(size_t target)
    {
        ASSERT_EQ(zynMemoryCarCount(slotOf(target)), cars[target].size());
        for (uint32_t type = 0; type < 4; type++) {
            auto newest = std::find_if(cars[target].rbegin(), cars[target].rend(),
                                       [&](const CarKey &k) { return std::get<0>(k) == type; });
            int64_t pps = newest == cars[target].rend() ? -1 : int64_t{std::get<1>(*newest)};
            ASSERT_EQ(ppsInForce(slotOf(target), type), pps);
        }
    }

    void compareAcls(size_t target)
    {
        std::vector<AclKey> found;
        const tSlotIndex *slot = slotOf(target);
        for (auto *acl = zynMemoryAclNext(slot, nullptr); acl; acl = zynMemoryAclNext(slot, acl))
            found.emplace_back(acl->acl, acl->action, acl->cir, acl->cbs);
        ASSERT_EQ(found, acls[target]);
    }

    Random random{std::mt19937(GetParam())};
    std::vector<CarKey> cars[targetCount];
    std::vector<AclKey> acls[targetCount];
};

} // namespace

TEST_P(Model, RandomCallsAgree)
{
    for (int step = 0; step < 20000; step++) {
        size_t target = random.below(targetCount);
        // Phases that mostly add and mostly remove: both full and empty targets occur.
        bool add = random.below(10) < (step / 200 % 2 == 0 ? 6u : 4u);
        if (random.below(2) == 0)
            carStep(target, add);
        else
            aclStep(target, add);
        for (size_t i = 0; i < targetCount && !HasFatalFailure(); i++) {
            compareCars(i);
            compareAcls(i);
        }
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Model, testing::Values(1u, 2u, 3u));
