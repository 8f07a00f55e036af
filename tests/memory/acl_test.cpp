#include <cerrno>

#include "memory_fixture.h"

using AclMultiset = Memory;
using AclRefusal = Memory;

namespace
{

int32_t permit(const tSlotIndex *slot, uint16_t acl)
{
    return acl_cpudefend_add(slot, acl, ZYN_HW_OP_PERMIT, 16, 6400, 6400);
}

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

TEST_F(AclRefusal, ActionsOtherThanPermitAndDeny)
{
    for (uint32_t action : {0u, 1u, 2u, 4u, 10u, 12u, 0x103u, 0xffffffffu})
        expectRefused("action", &slotA, 1, action, 0, 0, 0);
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
