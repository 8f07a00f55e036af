// Global attributes: reading all of them, binding the system's policy, the debug switch.
#include <cstring>
#include <functional>

#include "core_test.h"

using scripted::Call;

class GlobalApi : public CoreTest
{
protected:
    static constexpr uint32_t nameSync = 0x80000000u;

    static std::string boundName()
    {
        return std::string(reinterpret_cast<const char *>(gCpuDefend.policyName),
                           gCpuDefend.policyNameLen);
    }

    /** Calls but for the role queries. */
    static std::vector<Call> sequence()
    {
        std::vector<Call> kinds;
        for (const scripted::Record &record : scripted::calls)
            if (record.call != Call::ScalarGet)
                kinds.push_back(record.call);
        return kinds;
    }

    /** The ScalarSet commands, in order. */
    static std::vector<uint32_t> commands()
    {
        std::vector<uint32_t> found;
        for (const scripted::Record &record : scripted::programming())
            found.push_back(record.cmd);
        return found;
    }

    static scripted::Record lastSync()
    {
        for (auto at = scripted::calls.rbegin(); at != scripted::calls.rend(); ++at)
            if (at->call == Call::ScalarSync)
                return *at;
        return {};
    }
};

/* ---- Get ------------------------------------------------------------------------------ */

TEST_F(GlobalApi, EveryNumberIsRead)
{
    tCpuDefendSystem &g = gCpuDefend;
    g.cpuDefendDebug = 1;
    g.policyMode = 1;
    g.cpuRatControl[0].cpuRat = 10;
    g.cpuRatControl[1].cpuRat = 20;
    g.cpuRatControl[2].cpuRat = 255;
    addPolicy("p");
    addRule("p", 1);
    cpuDefendUserDefinedEntryDel(addRule("p", 2));
    addSlot(0, 1, "");
    const struct {
        uint32_t attr, value;
    } rows[] = {
        {CPUDEFEND_GLOBAL_MAXPOLICYNUM, 8},      {CPUDEFEND_GLOBAL_MAXUSERDEFINEDNUM, 64},
        {CPUDEFEND_GLOBAL_MAXCARPKTNUM, 80},     {CPUDEFEND_GLOBAL_MAXSRCTRACENUM, 8},
        {CPUDEFEND_GLOBAL_MAXSLOTNUM, 2},        {CPUDEFEND_GLOBAL_USEPOLICYNUM, 2},
        {CPUDEFEND_GLOBAL_USEUSERDEFINEDNUM, 3}, // two adds and a delete
        {CPUDEFEND_GLOBAL_USECARPKTNUM, 20},     {CPUDEFEND_GLOBAL_USESRCTRACENUM, 0},
        {CPUDEFEND_GLOBAL_USESLOTNUM, 1},        {CPUDEFEND_GLOBAL_DEBUG, 1},
        {CPUDEFEND_GLOBAL_POLICYMODE, 1},        {CPUDEFEND_GLOBAL_L1CPURAT, 10},
        {CPUDEFEND_GLOBAL_L2CPURAT, 20},         {CPUDEFEND_GLOBAL_L3CPURAT, 255},
    };
    for (const auto &row : rows)
        EXPECT_EQ(getGlobal(row.attr), (Answer<uint32_t>{0, row.value})) << row.attr;
}

TEST_F(GlobalApi, CountOfTracedSourcesIsRead)
{
    gCpuDefend.useSrcTraceNum = 6;
    EXPECT_EQ(getGlobal(CPUDEFEND_GLOBAL_USESRCTRACENUM), (Answer<uint32_t>{0, 6}));
    gCpuDefend.useSrcTraceNum = 0;
}

TEST_F(GlobalApi, EveryNameIsReadUpToTheRoomGiven)
{
    tCpuDefendSystem &g = gCpuDefend;
    const struct {
        uint32_t attr;
        uint8_t *name, *len;
    } rows[] = {
        {CPUDEFEND_GLOBAL_POLICY, g.policyName, &g.policyNameLen},
        {CPUDEFEND_GLOBAL_L1POLICYNAME, g.cpuRatControl[0].policyName,
         &g.cpuRatControl[0].policyNameLen},
        {CPUDEFEND_GLOBAL_L2POLICYNAME, g.cpuRatControl[1].policyName,
         &g.cpuRatControl[1].policyNameLen},
        {CPUDEFEND_GLOBAL_L3POLICYNAME, g.cpuRatControl[2].policyName,
         &g.cpuRatControl[2].policyNameLen},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.attr);
        const std::string name = "name number " + std::to_string(row.attr);
        memcpy(row.name, name.data(), name.size());
        *row.len = static_cast<uint8_t>(name.size());
        using Read = Answer<std::string>;
        EXPECT_EQ(getGlobal(row.attr, 64), (Read{0, name}));
        EXPECT_EQ(getGlobal(row.attr, 4), (Read{0, "name"})); // and no terminator
        EXPECT_EQ(getGlobal(row.attr, 0), (Read{0, ""}));
        *row.len = 0;
        EXPECT_EQ(getGlobal(row.attr, 64), (Read{0, ""}));
    }
}

TEST_F(GlobalApi, ResetAndUnknownAttributesCannotBeRead)
{
    for (uint32_t attr : {CPUDEFEND_GLOBAL_RESETSRCTRACE + 0u, CPUDEFEND_GLOBAL_SYNCSTATE + 0u, 21u,
                          22u, 8000u, 0xffffffffu})
        EXPECT_EQ(getGlobal(attr), (Answer<uint32_t>{-1, untouched})) << attr;
}

/* ---- Set ------------------------------------------------------------------------------ */

TEST_F(GlobalApi, LimitsCountsAndUnknownAttributesCannotBeSet)
{
    const std::string before = image(gCpuDefend);
    for (uint32_t attr = CPUDEFEND_GLOBAL_MAXPOLICYNUM; attr <= CPUDEFEND_GLOBAL_USESLOTNUM; attr++)
        EXPECT_EQ(setGlobal(attr, 99), -1) << attr;
    for (uint32_t attr : {21u, 22u, 0x100u, 0xffffffffu})
        EXPECT_EQ(setGlobal(attr, 99), -1) << attr;
    EXPECT_EQ(image(gCpuDefend), before);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(GlobalApi, DebugIsStoredWithoutSynchronisation)
{
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_DEBUG, 1), 0);
    EXPECT_EQ(gCpuDefend.cpuDefendDebug, 1);
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_DEBUG, 0x102), 0);
    EXPECT_EQ(gCpuDefend.cpuDefendDebug, 2); // the low byte
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_DEBUG, 0), 0);
    EXPECT_EQ(gCpuDefend.cpuDefendDebug, 0);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(GlobalApi, BindingIsSynchronisedThenProgrammed)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "p"), 0);
    EXPECT_EQ(boundName(), "p");
    EXPECT_EQ(policy->refCount, 1u);
    EXPECT_EQ(sequence().front(), Call::ScalarSync);
    EXPECT_EQ(lastSync().cmd, 8000u);
    EXPECT_EQ(lastSync().flag, 3 | nameSync);
    EXPECT_EQ(lastSync().octets, "p");
    EXPECT_EQ(commands(), std::vector<uint32_t>(10, 385));
    EXPECT_EQ(getGlobal(CPUDEFEND_GLOBAL_POLICY, 32), (Answer<std::string>{0, "p"}));
}

TEST_F(GlobalApi, ReplayedBindingDiffersInItsFlagOnly)
{
    EXPECT_EQ(syncGlobal(CPUDEFEND_GLOBAL_POLICY, "default"), 0);
    EXPECT_EQ(lastSync().flag, 1 | nameSync);
    EXPECT_EQ(boundName(), "default");
    EXPECT_EQ(commands(), std::vector<uint32_t>(10, 385));
}

TEST_F(GlobalApi, BindingAnotherRemovesTheOldFirst)
{
    tCpuDefendPolicyEntry *policy = addPolicy("p");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "default");
    scripted::reset();
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "p"), 0);
    std::vector<uint32_t> expected(10, 386);
    expected.resize(20, 385);
    EXPECT_EQ(commands(), expected);
    EXPECT_EQ(sequence().front(), Call::ScalarSync);
    EXPECT_EQ(findPolicy("default")->refCount, 0u);
    EXPECT_EQ(policy->refCount, 1u);
    EXPECT_EQ(boundName(), "p");
}

TEST_F(GlobalApi, CurrentNameIsNoChange)
{
    addPolicy("p");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "p");
    scripted::reset();
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "p"), 0);
    EXPECT_TRUE(scripted::calls.empty());
    EXPECT_EQ(findPolicy("p")->refCount, 1u);
}

TEST_F(GlobalApi, EmptyNameUnbinds)
{
    addPolicy("p");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "p");
    scripted::reset();
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, ""), 0);
    EXPECT_EQ(commands(), std::vector<uint32_t>(10, 386));
    EXPECT_EQ(lastSync().octets, "");
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
    EXPECT_EQ(image(gCpuDefend.policyName), std::string(32, '\0'));
    EXPECT_EQ(findPolicy("p")->refCount, 0u);
}

TEST_F(GlobalApi, EmptyNameWithNothingBoundIsNoChange)
{
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, ""), 0);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(GlobalApi, ShorterNameLeavesNothingOfTheLonger)
{
    addPolicy("d");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "default");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "d");
    EXPECT_EQ(image(gCpuDefend.policyName), "d" + std::string(31, '\0'));
}

TEST_F(GlobalApi, NameOf32BytesIsBound)
{
    const std::string name(32, 'n');
    addPolicy(name);
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, name), 0);
    EXPECT_EQ(boundName(), name);
    EXPECT_EQ(gCpuDefend.cpuDefendDebug, 0); // the byte behind the name's length
}

TEST_F(GlobalApi, UnknownNameChangesNothing)
{
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "default");
    scripted::reset();
    const std::string before = image(gCpuDefend);
    for (const std::string &name : {std::string("defaul"), std::string("default0"),
                                    std::string(33, 'n'), std::string(1000, 'n')})
        EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, name), 0x041E0004) << name;
    EXPECT_EQ(image(gCpuDefend), before);
    EXPECT_TRUE(scripted::calls.empty());
}

TEST_F(GlobalApi, FailedSynchronisationChangesNothing)
{
    addPolicy("p");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "default");
    const std::string before = image(gCpuDefend);
    for (const char *name : {"p", ""}) {
        scripted::reset();
        scripted::script.failAll[Call::ScalarSync] = 1234;
        EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, name), 1234);
        EXPECT_EQ(image(gCpuDefend), before);
        EXPECT_TRUE(scripted::programming().empty());
    }
    EXPECT_EQ(findPolicy("default")->refCount, 1u);
    EXPECT_EQ(findPolicy("p")->refCount, 0u);
}

TEST_F(GlobalApi, ResultIsThatOfTheLastHardwareCall)
{
    addPolicy("p");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "default");
    scripted::reset();
    scripted::script.failAt[10] = 5; // the last removal, behind the synchronisation
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "p"), 0);
    scripted::reset();
    scripted::script.failAt[20] = 6; // the last addition
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, "default"), 6);
    EXPECT_EQ(boundName(), "default"); // bound all the same
    scripted::reset();
    scripted::script.failAt[10] = 7;
    EXPECT_EQ(setGlobal(CPUDEFEND_GLOBAL_POLICY, ""), 7);
    EXPECT_EQ(gCpuDefend.policyNameLen, 0);
}

TEST_F(GlobalApi, SlaveBindsTheNameAndProgramsNothing)
{
    scripted::script.slave = true;
    EXPECT_EQ(syncGlobal(CPUDEFEND_GLOBAL_POLICY, "default"), 0);
    EXPECT_EQ(boundName(), "default");
    EXPECT_TRUE(scripted::programming().empty());
    EXPECT_EQ(findPolicy("default")->refCount, 0u);
}

TEST_F(GlobalApi, BoundPolicyCannotBeDestroyedUntilUnbound)
{
    addPolicy("p");
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "p");
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY), 0x041E0005);
    setGlobal(CPUDEFEND_GLOBAL_POLICY, "");
    EXPECT_EQ(setPolicy("p", CPUDEFEND_POLICY_ENTRYSTATUS, CPUDEFEND_ROW_DESTROY), 0);
}

TEST_F(GlobalApi, SemaphoreIsTakenByEveryCall)
{
    const std::vector<std::function<void()>> all{
        [] { getGlobal(CPUDEFEND_GLOBAL_DEBUG); },
        [] { getGlobal(99); },
        [] { getGlobal(CPUDEFEND_GLOBAL_POLICY, 8); },
        [] { setGlobal(CPUDEFEND_GLOBAL_DEBUG, 0); },
        [] { setGlobal(CPUDEFEND_GLOBAL_POLICY, "default"); },
        [] { setGlobal(CPUDEFEND_GLOBAL_POLICY, "default"); },
        [] { setGlobal(CPUDEFEND_GLOBAL_POLICY, "nobody"); },
        [] { syncGlobal(CPUDEFEND_GLOBAL_POLICY, ""); }};
    for (size_t i = 0; i < all.size(); i++) {
        seam::semTakes = 0;
        all[i]();
        EXPECT_EQ(seam::semTakes, 1) << i;
        EXPECT_EQ(seam::semDepth, 0) << i;
    }
}

/* ---- Kinds ---------------------------------------------------------------------------- */

TEST(GlobalAttrKind, TellsNumbersFromNames)
{
    for (uint32_t attr : {0u, 15u, 17u, 19u, 20u})
        EXPECT_EQ(cpuDefendGlobalAttrKind(attr), NM_OCTETS) << attr;
    for (uint32_t attr : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 12u, 13u, 14u, 16u, 18u})
        EXPECT_EQ(cpuDefendGlobalAttrKind(attr), NM_NUMBER) << attr;
    for (uint32_t attr : {11u, 21u, 22u, 0xffffffffu})
        EXPECT_EQ(cpuDefendGlobalAttrKind(attr), NM_ANY) << attr;
}
