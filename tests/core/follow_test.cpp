// What is programmed follows the cards: who gets what when slots come and go, and what is mended.
#include <cerrno>

#include "cards.h"
#include "cpuDefend_nm_api.h"

using namespace engine;

class Follow : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        for (char letter : {'a', 'b', 'c', 'd'})
            addLetter(letter);
        cpuDefendCpuRatControlSysTimerStart();
    }

    /** What a turn of the event loop does around a request. */
    template <typename Work> static void turn(Work work)
    {
        zynHwChangeBegin();
        work();
        cpuDefendFollow();
        zynHwChangeEnd();
    }

    static void bindSystem(const std::string &name, int32_t result = 0)
    {
        turn([&] { EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, name), result); });
    }

    static int32_t setSlot(uint32_t slot, uint32_t attr, octetstring *value)
    {
        tcpuDefendSlotIdx idx{1, slot};
        int32_t result = -1;
        turn([&] { result = cpuDefendSlotSetApi(&idx, attr, value); });
        return result;
    }

    static int32_t setSlot(uint32_t slot, uint32_t attr, const std::string &text)
    {
        std::string copy = text;
        octetstring value{reinterpret_cast<unsigned char *>(copy.data()),
                          static_cast<uint32_t>(copy.size())};
        return setSlot(slot, attr, &value);
    }

    static int32_t setSlot(uint32_t slot, uint32_t attr, uint32_t number)
    {
        octetstring value{};
        memcpy(&value, &number, sizeof number);
        return setSlot(slot, attr, &value);
    }

    void tick(uint32_t percent)
    {
        scripted::script.cpu[0] = {percent};
        scripted::script.cpu[1] = {percent * 100};
        turn([this] { advance(500); });
    }

    /** What is programmed, without what is told to the standby card. */
    static std::string programmed()
    {
        std::string text;
        for (const scripted::Record &call : scripted::programming())
            text += (text.empty() ? "" : " ") +
                    std::string(call.call == scripted::Call::AclAdd ? "+" : "-") +
                    static_cast<char>(call.acl) + place(call);
        scripted::calls.clear();
        return text;
    }

    /** refCount of a, b, c and d. */
    static std::string counts()
    {
        std::string text;
        for (char letter : {'a', 'b', 'c', 'd'})
            text += std::to_string(findPolicy(std::string(1, letter))->refCount);
        return text;
    }
};

/* ---- Cards under a bound system ------------------------------------------------------- */

TEST_F(Follow, FirstSlotTakesOverFromTheSystem)
{
    bindSystem("a");
    EXPECT_EQ(programmed(), "+a");
    comes(PORT, 1, 5);
    EXPECT_EQ(programmed(), "-a +a@1/5");
    EXPECT_EQ(counts(), "1000");
}

TEST_F(Follow, LastSlotThatLeavesGivesTheSystemItsPolicyBack)
{
    comes(PORT, 1, 5);
    bindSystem("a");
    programmed();
    goes(PORT);
    EXPECT_EQ(programmed(), "-a@1/5 +a");
    EXPECT_EQ(counts(), "1000");
}

TEST_F(Follow, ChangeOfCardsIsOneChangeForPackets)
{
    bindSystem("a");
    scripted::calls.clear();
    const uint32_t before = scripted::changes;
    comes(PORT, 1, 5);
    ASSERT_EQ(scripted::programming().size(), 2u);
    for (const scripted::Record &record : scripted::programming())
        EXPECT_EQ(record.change, before + 1);
    EXPECT_EQ(scripted::changes, before + 1);
    EXPECT_EQ(scripted::changeDepth, 0u);
}

/* ---- What is mended ------------------------------------------------------------------- */

TEST_F(Follow, RemovalOfL2ThatNamesL1IsMended)
{
    comes(PORT, 1, 5);
    setLevels(gCpuDefend.cpuRatControl, {10, 60, 90});
    turn([] { setGlobal(CPUDEFEND_GLOBAL_POLICYMODE, 1); });
    tick(70);
    EXPECT_EQ(programmed(), "+b@1/5");
    turn([] { EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_L2POLICYNAME, "d"), 0); });
    EXPECT_EQ(programmed(), "-a@1/5 -b@1/5"); // the handler's, then what it should have been
    EXPECT_EQ(counts(), "0000");
    tick(70);
    EXPECT_EQ(programmed(), "+d@1/5");
    EXPECT_EQ(counts(), "0001");
}

TEST_F(Follow, ListOfAPolicyInUseReachesTheHardwareWithTheNextChange)
{
    comes(PORT, 1, 5);
    bindSystem("a");
    programmed();
    turn([] { setPolicy("a", CPUDEFEND_POLICY_WHITELISTIP4ACL, 'A'); });
    EXPECT_EQ(programmed(), ""); // it was warned of
    comes(PORT + 1, 1, 6);
    EXPECT_EQ(programmed(), "-a@1/5 +A@1/5 +A@1/6");
    goes(PORT);
    bindSystem("");
    EXPECT_EQ(programmed(), "-A@1/5 -A@1/6");
}

/* ---- Failures, roles ------------------------------------------------------------------ */

TEST_F(Follow, WhatFailsIsTriedAgainWhenSomethingChanges)
{
    bindSystem("a");
    programmed();
    scripted::script.failAll[scripted::Call::AclAdd] = 5;
    comes(PORT, 1, 5);
    EXPECT_EQ(programmed(), "-a +a@1/5");
    gCpuDefend.retryDue = 0;
    for (int i = 0; i < 3; i++)
        turn([] {});
    EXPECT_EQ(gCpuDefend.retryDue, 0); // not again and again
    scripted::script.failAll.clear();
    comes(PORT + 1, 1, 6);
    EXPECT_EQ(programmed(), "+a@1/6");
    EXPECT_EQ(gCpuDefend.retryDue, 1);
    cpuDefendRetry();
    EXPECT_EQ(programmed(), "+a@1/5");
    EXPECT_EQ(gCpuDefend.retryDue, 0);
    EXPECT_EQ(counts(), "2000");
}

TEST_F(Follow, WhatTheHardwareSaysIsNotThereIsForgotten)
{
    comes(PORT, 1, 5);
    bindSystem("a");
    programmed();
    scripted::script.failAll[scripted::Call::AclDel] = ENOENT;
    goes(PORT);
    EXPECT_EQ(programmed(), "-a@1/5 +a");
    bindSystem("", ENOENT);
    EXPECT_EQ(programmed(), "-a");
}

TEST_F(Follow, SlotNeverPointsToAPolicyThatIsGone)
{
    scripted::script.slave = true; // where nothing keeps a bound policy from being destroyed
    comes(PORT, 1, 5);
    setSlot(5, CPUDEFEND_SLOT_POLICY, "b");
    EXPECT_EQ(cpuDefendSlotEntryGet(1, 5)->policyEntry, findPolicy("b"));
    turn([] { EXPECT_EQ(setPolicy("b", CPUDEFEND_POLICY_ENTRYSTATUS, 4), 0); });
    EXPECT_EQ(cpuDefendSlotEntryGet(1, 5)->policyEntry, nullptr);
}

/* ---- When it does nothing ------------------------------------------------------------- */

TEST_F(Follow, DoesNothingWhileNoCardHasARecord)
{
    cpuDefendSlotEntryAdd(1, 5); // by the debugging entry
    turn([] { EXPECT_EQ(cpuDefendHwAdd(nullptr, findPolicy("a")), 0); });
    EXPECT_EQ(programmed(), "+a");
    turn([] { cpuDefendHwDel(nullptr, bytes("b"), 1); });
    EXPECT_EQ(programmed(), "-b");
    EXPECT_EQ(findPolicy("b")->refCount, 0xffffffffu);
    findPolicy("b")->refCount = 0;
}

TEST_F(Follow, MakesNoCallWhenNothingHasChanged)
{
    comes(PORT, 1, 5);
    comes(PORT + 1, 1, 6);
    bindSystem("a");
    setSlot(5, CPUDEFEND_SLOT_POLICY, "b");
    scripted::calls.clear();
    scripted::counted.clear();
    for (int i = 0; i < 10; i++)
        cpuDefendFollow();
    EXPECT_TRUE(scripted::calls.empty());
    EXPECT_TRUE(scripted::counted.empty());
}
