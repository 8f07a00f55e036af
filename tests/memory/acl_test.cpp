#include <cerrno>
#include <vector>

#include "memory_fixture.h"

using AclMultiset = Memory;
using AclRefusal = Memory;

namespace
{

int32_t permit(const tSlotIndex *slot, uint16_t acl)
{
    return acl_cpudefend_add(slot, acl, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
}

int32_t unpermit(const tSlotIndex *slot, uint16_t acl)
{
    return acl_cpudefend_del(slot, acl, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
}

/** The numbers of the ACLs of a target, in order. */
std::vector<unsigned> numbers(const tSlotIndex *slot)
{
    std::vector<unsigned> found;
    for (auto *acl = zynMemoryAclNext(slot, nullptr); acl != nullptr;
         acl = zynMemoryAclNext(slot, acl))
        found.push_back(acl->acl);
    EXPECT_EQ(found.size(), zynMemoryAclCount(slot));
    return found;
}

using Numbers = std::vector<unsigned>;

} // namespace

TEST_F(AclMultiset, AttachedAclIsKeptAsSent)
{
    ASSERT_EQ(acl_cpudefend_add(system, 65535, ZYN_HW_OP_PERMIT, 1, 2, 3), 0);
    const tZynMemoryAcl *acl = zynMemoryAclNext(system, nullptr);
    ASSERT_NE(acl, nullptr);
    EXPECT_EQ(acl->acl, 65535);
    EXPECT_EQ(acl->action, static_cast<uint32_t>(ZYN_HW_OP_PERMIT));
    EXPECT_EQ(acl->cir, 1u);
    EXPECT_EQ(acl->cbs, 2u);
    EXPECT_EQ(acl->ebs, 3u);
    EXPECT_EQ(zynMemoryAclNext(system, acl), nullptr);
}

TEST_F(AclMultiset, AclsStandInTheOrderOfAttachment)
{
    permit(&slotA, 3000);
    acl_cpudefend_add(&slotA, 2000, ZYN_HW_OP_DENY, 0, 0, 0);
    permit(&slotA, 2500);
    EXPECT_EQ(numbers(&slotA), (Numbers{3000, 2000, 2500}));
}

TEST_F(AclMultiset, RemovalKeepsTheOrderOfTheOthers)
{
    permit(&slotA, 1);
    permit(&slotA, 2);
    permit(&slotA, 3);
    ASSERT_EQ(unpermit(&slotA, 2), 0);
    EXPECT_EQ(numbers(&slotA), (Numbers{1, 3}));
    permit(&slotA, 2);
    EXPECT_EQ(numbers(&slotA), (Numbers{1, 3, 2}));
}

TEST_F(AclMultiset, SameArgumentsTwiceAreTwoEntries)
{
    permit(&slotA, 1);
    permit(&slotA, 1);
    EXPECT_EQ(numbers(&slotA), (Numbers{1, 1}));
    EXPECT_EQ(unpermit(&slotA, 1), 0);
    EXPECT_EQ(unpermit(&slotA, 1), 0);
    EXPECT_EQ(unpermit(&slotA, 1), ENOENT);
}

TEST_F(AclMultiset, RemovalTakesTheNewestOfEqualEntries)
{
    permit(&slotA, 1);
    permit(&slotA, 2);
    permit(&slotA, 1);
    ASSERT_EQ(unpermit(&slotA, 1), 0);
    EXPECT_EQ(numbers(&slotA), (Numbers{1, 2}));
}

TEST_F(AclMultiset, RemovingWhatIsNotThereChangesNothingAndFails)
{
    permit(&slotA, 1);
    EXPECT_EQ(unpermit(&slotA, 2), ENOENT);
    EXPECT_EQ(unpermit(&slotB, 1), ENOENT);
    EXPECT_EQ(unpermit(system, 1), ENOENT);
    EXPECT_EQ(acl_cpudefend_del(&slotA, 1, ZYN_HW_OP_DENY, 0, 0, 0), ENOENT);
    EXPECT_EQ(acl_cpudefend_del(&slotA, 1, ZYN_HW_OP_PERMIT, 17, 6400, 6400), ENOENT);
    EXPECT_EQ(acl_cpudefend_del(&slotA, 1, ZYN_HW_OP_PERMIT, 16, 6401, 6400), ENOENT);
    EXPECT_EQ(acl_cpudefend_del(&slotA, 1, ZYN_HW_OP_PERMIT, 16, 6400, 6401), ENOENT);
    EXPECT_EQ(numbers(&slotA), (Numbers{1}));
}

TEST_F(AclMultiset, TargetsAreIndependent)
{
    permit(system, 1);
    permit(&slotA, 2);
    permit(&slotB, 3);
    permit(system, 4);
    permit(&slotA, 5);
    EXPECT_EQ(numbers(system), (Numbers{1, 4}));
    EXPECT_EQ(numbers(&slotA), (Numbers{2, 5}));
    EXPECT_EQ(numbers(&slotB), (Numbers{3}));
    zynMemoryReset();
    EXPECT_EQ(numbers(system), Numbers());
    EXPECT_EQ(numbers(&slotA), Numbers());
}

/* ---- What a real layer would refuse --------------------------------------------------- */

namespace
{

/** Expect EINVAL of attaching and of detaching, and nothing attached. */
void expectRefused(const char *what, const tSlotIndex *slot, uint16_t acl, uint32_t action,
                   uint32_t cir, uint32_t cbs, uint32_t ebs)
{
    EXPECT_EQ(acl_cpudefend_add(slot, acl, action, cir, cbs, ebs), EINVAL) << what;
    EXPECT_EQ(acl_cpudefend_del(slot, acl, action, cir, cbs, ebs), EINVAL) << what;
    EXPECT_EQ(zynMemoryAclCount(slot), 0u) << what;
}

} // namespace

TEST_F(AclRefusal, AclNumberZero)
{
    expectRefused("permit", system, 0, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
    expectRefused("deny", &slotA, 0, ZYN_HW_OP_DENY, 0, 0, 0);
}

TEST_F(AclRefusal, ActionsOtherThanPermitAndDeny)
{
    for (uint32_t action : {0u, 1u, 2u, 4u, 10u, 12u, 0x103u, 0xffffffffu})
        expectRefused("action", &slotA, 1, action, 0, 0, 0);
}

TEST_F(AclRefusal, DenyWithARate)
{
    expectRefused("cir", &slotA, 1, ZYN_HW_OP_DENY, 1, 0, 0);
    expectRefused("cbs", &slotA, 1, ZYN_HW_OP_DENY, 0, 1, 0);
    expectRefused("ebs", &slotA, 1, ZYN_HW_OP_DENY, 0, 0, 1);
}

TEST_F(AclRefusal, SlotsThatAreNone)
{
    const tSlotIndex itself = {0, 0, 0};
    const tSlotIndex typed = {1, 0, 1};
    expectRefused("the system as a slot", &itself, 1, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
    expectRefused("type of slot", &typed, 1, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
}

TEST_F(AclRefusal, WithoutMemoryNothingIsAttached)
{
    callocFailures = 1;
    EXPECT_EQ(permit(&slotA, 1), ENOMEM);
    EXPECT_EQ(callocFailures, 0);
    EXPECT_EQ(zynMemoryAclCount(&slotA), 0u);
    EXPECT_EQ(permit(&slotA, 1), 0);
}
