// Every attribute of every table, by one table of what it is: kind, width, access, synchronisation,
// and what a binding or a missing record makes of it. What is particular to one attribute is in the
// test of its table.
#include <span>

#include "nm_test.h"

using namespace cpudefend;

namespace
{

constexpr int32_t noSlot = 19, noEntry = 0x03E80002, inUse = 0x03E8000B, whiteOff = 0x041E0001,
                  blackOff = 0x041E0002, isBound = 0x041E0005;
constexpr uint32_t some = 0x89ABCD37; // differs from every fresh value, also when it is cut

enum Type { N8 = 1, N16 = 2, N32 = 4, Text, Any };

enum : uint32_t {
    GET = 1,
    SET = 2,
    SYNC = 4,      // each change goes to the standby card first
    BYTES = 8,     // flagged there as bytes
    EQUAL = 16,    // what is there already is no change
    WARN = 32,     // of a bound policy: stored with a warning
    OF_WHITE = 64, // only while the white list is on
    OF_BLACK = 128,
    OWN = 256, // what is particular has a test of its own
};
constexpr uint32_t RO = GET, FLAG = GET | SET | SYNC | EQUAL, NAME = FLAG | BYTES,
                   SWITCH = FLAG | WARN, WHITE = SWITCH | OF_WHITE, BLACK = SWITCH | OF_BLACK;

struct Attribute {
    uint32_t id;
    Type type;
    uint32_t fresh; // value in a new record
    uint32_t traits;
};

struct Table {
    const char *name;
    std::span<const Attribute> attributes;
    uint32_t syncBase;
    int32_t unknownGet; // the code for an id that stands for nothing
    int32_t missing;    // and for a record that is not there
    bool refusesBound;  // no change while the policy is bound
    tNmKind (*kind)(uint32_t);
    int32_t (*get)(bool there, uint32_t id, octetstring *value);
    int32_t (*set)(bool there, uint32_t id, octetstring *value); // null: there is none
    int32_t (*sync)(bool there, uint32_t id, octetstring *value);
};

template <auto Call> int32_t global(bool, uint32_t id, octetstring *value)
{
    return Call(0, id, value);
}

template <auto Call> int32_t slot(bool there, uint32_t id, octetstring *value)
{
    tcpuDefendSlotIdx idx{1, there ? 5u : 0x105u}; // all 32 bits of a number are looked at
    return Call(&idx, id, value);
}

template <auto Call> int32_t policy(bool there, uint32_t id, octetstring *value)
{
    tCpuDefendPolicyIdx idx = policyIdx(there ? "p" : "pp");
    return Call(&idx, id, value);
}

template <auto Call> int32_t rule(bool there, uint32_t id, octetstring *value)
{
    tcpuDefendUserDefinedIdx idx{{'p'}, 1, there ? 1u : 257u};
    return Call(&idx, id, value);
}

template <auto Call> int32_t car(bool there, uint32_t id, octetstring *value)
{
    tcpuDefendCarPktIdx idx = carIdx("p", there ? 1 : 257);
    return Call(&idx, id, value);
}

template <auto Call> int32_t source(bool there, uint32_t id, octetstring *value)
{
    tcpuDefendSrcTraceIdx idx{7, {10, 0, 0, 1}, 1, {2, 0, 0, 0, 0, uint8_t(there ? 1 : 2)}, 0};
    return Call(&idx, id, value);
}

const Attribute globals[] = {{0, Text, 0, NAME},     {1, N32, 9, RO},     {2, N32, 72, RO},
                             {3, N32, 90, RO},       {4, N32, 9, RO},     {5, N32, 7, RO},
                             {6, N32, 3, RO},        {7, N32, 5, RO},     {8, N32, 20, RO},
                             {9, N32, 2, RO},        {10, N32, 1, RO},    {11, Any, 0, SET | SYNC},
                             {12, N8, 0, GET | SET}, {13, N8, 0, FLAG},   {14, N8, 0, FLAG},
                             {15, Text, 0, NAME},    {16, N8, 0, FLAG},   {17, Text, 0, NAME},
                             {18, N8, 0, FLAG},      {19, Text, 0, NAME}, {20, Text, 0, SET | OWN}};

/** A level's name is not flagged as bytes, unlike the slot's policy. */
const Attribute slots[] = {{0, Text, 0, NAME}, {1, Any, 0, SET | SYNC}, {2, N8, 0, FLAG},
                           {3, N8, 0, FLAG},   {4, Text, 0, FLAG},      {5, N8, 0, FLAG},
                           {6, Text, 0, FLAG}, {7, N8, 0, FLAG},        {8, Text, 0, FLAG}};

const Attribute policies[] = {{0, N8, 1, GET | OWN},
                              {1, Text, 0, GET | SET | SYNC | BYTES},
                              {2, Text, 0, SET | SYNC | BYTES | WARN},
                              {3, N8, 1, SWITCH},
                              {4, N16, 0, WHITE},
                              {5, N16, 0, WHITE},
                              {6, N32, 16, WHITE},
                              {7, N32, 6400, WHITE},
                              {8, N32, 16, WHITE},
                              {9, N32, 6400, WHITE},
                              {10, N8, 1, SWITCH},
                              {11, N16, 0, BLACK},
                              {12, N16, 0, BLACK},
                              {13, N8, 2, FLAG},
                              {14, N8, 2, FLAG},
                              {15, N8, 2, FLAG},
                              {16, N16, 128, FLAG},
                              {17, N16, 128, FLAG},
                              {18, N32, 0, RO}};

const Attribute rules[] = {{0, N8, 1, GET | OWN}, {1, N8, 0, FLAG},  {2, N16, 0, FLAG},
                           {3, N16, 0, FLAG},     {4, N32, 0, FLAG}, {5, N32, 0, FLAG}};

const Attribute cars[] = {{0, N32, 16, FLAG}, {1, N32, 6400, FLAG},     {2, N32, 512, FLAG},
                          {3, N32, 0, FLAG},  {4, N8, 2, FLAG},         {5, N8, 2, FLAG},
                          {6, N8, 2, FLAG},   {7, N32, 0x80000001, RO}, {8, N32, 0x80000002, RO},
                          {9, N32, 0, FLAG},  {10, N32, 6000, FLAG}};

const Attribute sources[] = {{0, N16, 0xF123, RO},
                             {1, N16, 0x8045, RO},
                             {2, Text, 0, OWN},
                             {3, Text, 0, OWN},
                             {4, N32, 0x89ABCDEF, RO}};

const Table tables[] = {
    {"global", globals, 8000, -1, 0, false, cpuDefendGlobalAttrKind, global<cpuDefendGlobalGetApi>,
     global<cpuDefendGlobalSetApi>, global<cpuDefendGlobalSyncApi>},
    {"slot", slots, 8001, 0, noSlot, false, cpuDefendSlotAttrKind, slot<cpuDefendSlotGetApi>,
     slot<cpuDefendSlotSetApi>, slot<cpuDefendSlotSyncApi>},
    {"policy", policies, 8002, 0, noEntry, false, cpuDefendPolicyAttrKind,
     policy<cpuDefendPolicyGetApi>, policy<cpuDefendPolicySetApi>, policy<cpuDefendPolicySyncApi>},
    {"rule", rules, 8003, 0, noEntry, true, cpuDefendUserDefinedAttrKind,
     rule<cpuDefendUserDefinedGetApi>, rule<cpuDefendUserDefinedSetApi>,
     rule<cpuDefendUserDefinedSyncApi>},
    {"car", cars, 8004, 0, noEntry, true, cpuDefendCarPktAttrKind, car<cpuDefendCarPktGetApi>,
     car<cpuDefendCarPktSetApi>, car<cpuDefendCarPktSyncApi>},
    {"source", sources, 0, 0, noEntry, false, cpuDefendSrcTraceAttrKind,
     source<cpuDefendSrcTraceGetApi>, nullptr, nullptr},
};

/** A change as the standby card learns of it. */
struct Told {
    uint32_t id, flag, number;
    std::string octets;
    bool operator==(const Told &) const = default;
};

std::vector<Told> told()
{
    std::vector<Told> all;
    for (const seam::Hook &hook : seam::hooks)
        all.push_back({hook.id, hook.flag, hook.number, hook.octets});
    for (const scripted::Record &sync : synced())
        all.push_back({sync.cmd, sync.flag, sync.number, sync.octets});
    return all;
}

void refuseSync(int32_t result)
{
    seam::hookResult = result;
    scripted::script.failAll = {{scripted::Call::ScalarSync, result},
                                {scripted::Call::SlotSync, result}};
}

void forget()
{
    seam::hooks.clear();
    scripted::reset();
    seam::hookResult = 0;
}

class Attributes : public CoreTest
{
protected:
    void SetUp() override
    {
        CoreTest::SetUp();
        restart(9, 7);
        p = addPolicy("p");
        addBarePolicy("quite");
        car = findCar("p", 1);
        rule = addRule("p", 1);
        for (int i = 0; i < 2; i++)
            cpuDefendUserDefinedEntryDel(addRule("p", 2)); // each counts twice
        slot = cpuDefendSlotEntryAdd(1, 5);
        const uint8_t ip[4] = {10, 0, 0, 1}, mac[6] = {2, 0, 0, 0, 0, 1};
        cpuDefendSrcTraceEntryAdd(8, ip, 1, mac);
        source = cpuDefendSrcTraceEntryAdd(7, ip, 1, mac);
        source->outerVlan = 0xF123;
        source->innerVlan = 0x8045;
        source->totalNum = 0x89ABCDEF;
        car->pktPassNum = 0x80000001;
        car->pktDropNum = 0x80000002;
        forget();
    }

    std::string state() const
    {
        return image(gCpuDefend) + image(*p) + image(*car) + image(*rule) + image(*slot) +
               image(*source);
    }

    /** Make a call and see that it holds the semaphore once. */
    template <typename Call> static int32_t locked(Call call)
    {
        seam::semTakes = 0;
        const int32_t code = call();
        EXPECT_EQ(seam::semTakes, 1);
        EXPECT_EQ(seam::semDepth, 0);
        return code;
    }

    static Answer<uint32_t> get(const Table &table, uint32_t id, bool there = true)
    {
        Cell value(untouched);
        const int32_t code = locked([&] { return table.get(there, id, &value); });
        return {code, value.number()};
    }
    static std::string text(const Table &table, uint32_t id, uint32_t room)
    {
        Cell value = Cell::room(room);
        EXPECT_EQ(locked([&] { return table.get(true, id, &value); }), 0);
        return value.text();
    }
    template <typename Value>
    static int32_t set(const Table &table, uint32_t id, const Value &value, bool replay = false,
                       bool there = true)
    {
        Cell cell(value);
        return locked([&] { return (replay ? table.sync : table.set)(there, id, &cell); });
    }

    /** Do something with each attribute that has all of @a traits and none of @a without. */
    template <typename Visit> void each(uint32_t traits, uint32_t without, Visit visit)
    {
        uint32_t count = 0;
        for (const Table &table : tables)
            for (const Attribute &attribute : table.attributes) {
                if ((attribute.traits & traits) != traits || (attribute.traits & without))
                    continue;
                SCOPED_TRACE(std::string(table.name) + " " + std::to_string(attribute.id));
                forget();
                visit(table, attribute);
                count++;
            }
        EXPECT_GT(count, 1u);
    }
    template <typename Visit> void eachNumber(uint32_t traits, Visit visit)
    {
        each(traits, OWN, [&](const Table &table, const Attribute &attribute) {
            if (attribute.type <= N32)
                visit(table, attribute);
        });
    }

    static uint32_t cut(const Attribute &attribute, uint32_t value)
    {
        return attribute.type == N32 ? value : value & ((1u << 8 * attribute.type) - 1);
    }

    static constexpr uint32_t beyond[] = {22, 255, 256, 8000, 0x80000000, 0xffffffff};

    tCpuDefendPolicyEntry *p;
    tCpuDefendCarPktEntry *car;
    tCpuDefendUserDefinedEntry *rule;
    tCpuDefendSlotEntry *slot;
    tCpuDefendSrcTraceEntry *source;
};

TEST_F(Attributes, HaveTheirKind)
{
    each(0, 0, [](const Table &table, const Attribute &attribute) {
        const tNmKind kind = attribute.type == Any    ? NM_ANY
                             : attribute.type == Text ? NM_OCTETS
                                                      : NM_NUMBER;
        EXPECT_EQ(table.kind(attribute.id), kind);
    });
}

TEST_F(Attributes, BehindTheLastThereIsNone)
{
    for (const Table &table : tables) {
        SCOPED_TRACE(table.name);
        std::vector<uint32_t> ids(std::begin(beyond), std::end(beyond));
        ids.push_back(static_cast<uint32_t>(table.attributes.size()));
        const std::string before = state();
        for (uint32_t id : ids) {
            EXPECT_EQ(table.kind(id), NM_ANY) << id;
            EXPECT_EQ(get(table, id), (Answer<uint32_t>{table.unknownGet, untouched})) << id;
            if (table.set) {
                EXPECT_EQ(set(table, id, 1u), -1) << id;
            }
        }
        EXPECT_EQ(state(), before);
    }
    EXPECT_TRUE(told().empty());
}

TEST_F(Attributes, AreReadWidened)
{
    eachNumber(GET, [](const Table &table, const Attribute &attribute) {
        EXPECT_EQ(get(table, attribute.id), (Answer<uint32_t>{0, attribute.fresh}));
    });
}

TEST_F(Attributes, AreStoredCutToTheirWidthAndNothingElseIs)
{
    eachNumber(SET, [this](const Table &table, const Attribute &attribute) {
        const std::string before = state();
        EXPECT_EQ(set(table, attribute.id, some), 0);
        EXPECT_EQ(get(table, attribute.id), (Answer<uint32_t>{0, cut(attribute, some)}));
        EXPECT_EQ(told().size(), attribute.traits & SYNC ? 1u : 0u);
        EXPECT_EQ(set(table, attribute.id, attribute.fresh), 0);
        EXPECT_EQ(state(), before);
        EXPECT_TRUE(programmed().empty());
    });
}

TEST_F(Attributes, AreNoChangeWhenAllBitsAreEqual)
{
    eachNumber(EQUAL, [](const Table &table, const Attribute &attribute) {
        EXPECT_EQ(set(table, attribute.id, attribute.fresh), 0);
        EXPECT_TRUE(told().empty());
        if (attribute.type == N32)
            return;
        EXPECT_EQ(set(table, attribute.id, attribute.fresh + 0x10000), 0);
        EXPECT_EQ(told().size(), 1u);
        EXPECT_EQ(get(table, attribute.id).value, attribute.fresh);
    });
}

TEST_F(Attributes, AreToldTheStandbyCard)
{
    each(SYNC, OWN, [this](const Table &table, const Attribute &attribute) {
        const uint32_t id = table.syncBase + attribute.id;
        p->whiteListEnable = p->blackListEnable = 1;
        if (attribute.type == Text)
            return;
        EXPECT_EQ(set(table, attribute.id, some), 0);
        EXPECT_EQ(set(table, attribute.id, some + 1, true), 0);
        EXPECT_EQ(told(), (std::vector<Told>{{id, 3, some, ""}, {id, 1, some + 1, ""}}));
    });
}

TEST_F(Attributes, ThatAreBytesAreToldWithAFlag)
{
    each(SYNC | BYTES, OWN, [](const Table &table, const Attribute &attribute) {
        const uint32_t id = table.syncBase + attribute.id;
        EXPECT_EQ(set(table, attribute.id, std::string("quite")), 0);
        EXPECT_EQ(set(table, attribute.id, std::string(), true), 0);
        EXPECT_EQ(told(),
                  (std::vector<Told>{{id, 0x80000003, 0, "quite"}, {id, 0x80000001, 0, ""}}));
    });
}

TEST_F(Attributes, OfASlotsLevelsAreToldWithoutIt)
{
    const Table &table = tables[1];
    for (uint32_t id : {4u, 6u, 8u}) {
        EXPECT_EQ(set(table, id, std::string("quite")), 0);
        EXPECT_EQ(told().back().id, 8001 + id);
        EXPECT_EQ(told().back().flag, 3u);
    }
}

TEST_F(Attributes, AreUnchangedWhenTheStandbyCardRefuses)
{
    p->refCount = 0;
    each(SYNC, OWN, [this](const Table &table, const Attribute &attribute) {
        const std::string before = state();
        for (int32_t result : {77, -5}) {
            refuseSync(result);
            const std::string quite = "quite";
            EXPECT_EQ(attribute.type == Text ? set(table, attribute.id, quite)
                                             : set(table, attribute.id, some),
                      result);
            EXPECT_EQ(state(), before);
            EXPECT_TRUE(programmed().empty());
        }
    });
}

TEST_F(Attributes, ThatAreReadOnlyCannotBeSet)
{
    each(GET, SET | OWN, [this](const Table &table, const Attribute &attribute) {
        const std::string before = state();
        if (table.set) {
            EXPECT_EQ(set(table, attribute.id, some), -1);
            EXPECT_EQ(set(table, attribute.id, attribute.fresh), -1);
        }
        EXPECT_EQ(state(), before);
        EXPECT_TRUE(told().empty());
    });
}

TEST_F(Attributes, ThatAreWriteOnlyReadAsNothing)
{
    each(SET, GET | WARN, [](const Table &table, const Attribute &attribute) {
        EXPECT_EQ(get(table, attribute.id), (Answer<uint32_t>{table.unknownGet, untouched}));
    });
}

TEST_F(Attributes, OfAMissingRecordAreNeitherReadNorSet)
{
    const std::string before = state();
    for (const Table &table : tables)
        for (uint32_t id = 0; table.missing && id < table.attributes.size() + 2; id++) {
            SCOPED_TRACE(std::string(table.name) + " " + std::to_string(id));
            EXPECT_EQ(get(table, id, false), (Answer<uint32_t>{table.missing, untouched}));
            const bool isStatus = id == 0 && (table.syncBase == 8002 || table.syncBase == 8003);
            if (table.set && !isStatus) {
                EXPECT_EQ(set(table, id, std::string("quite"), false, false), table.missing);
            }
        }
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(told().empty());
}

TEST_F(Attributes, OfABoundPolicyAreStoredWithAWarning)
{
    eachNumber(SET, [this](const Table &table, const Attribute &attribute) {
        if (table.syncBase != 8002)
            return;
        p->refCount = 2;
        EXPECT_EQ(set(table, attribute.id, attribute.fresh), 0); // no change, no warning
        EXPECT_EQ(set(table, attribute.id, some), attribute.traits & WARN ? inUse : 0);
        EXPECT_EQ(get(table, attribute.id).value, cut(attribute, some));
        p->refCount = 0;
        set(table, attribute.id, attribute.fresh);
    });
}

TEST_F(Attributes, OfLimitsAndRulesOfABoundPolicyAreRefused)
{
    for (uint32_t bindings : {1u, 0x100u, 0xffffffffu}) {
        p->refCount = bindings;
        const std::string before = state();
        for (const Table &table : tables)
            for (uint32_t id = 0; table.refusesBound && id < table.attributes.size() + 2; id++) {
                SCOPED_TRACE(std::string(table.name) + " " + std::to_string(id));
                EXPECT_EQ(set(table, id, some), isBound); // before the id is looked at
                EXPECT_EQ(set(table, id, 0u), isBound);
                EXPECT_EQ(get(table, id).code, 0);
            }
        EXPECT_EQ(state(), before);
    }
    EXPECT_TRUE(told().empty());
    p->refCount = 0;
}

TEST_F(Attributes, OfAListThatIsOffAreRefused)
{
    for (uint32_t list : {OF_WHITE, OF_BLACK})
        each(list, 0, [&](const Table &table, const Attribute &attribute) {
            uint8_t &own = list == OF_WHITE ? p->whiteListEnable : p->blackListEnable;
            uint8_t &other = list == OF_WHITE ? p->blackListEnable : p->whiteListEnable;
            p->refCount = 1; // the refusal takes the place of the warning
            other = 2;
            for (uint8_t off : {0, 2, 3, 255}) {
                own = off;
                EXPECT_EQ(set(table, attribute.id, some), list == OF_WHITE ? whiteOff : blackOff);
                EXPECT_EQ(set(table, attribute.id, attribute.fresh), 0); // no change all the same
                EXPECT_EQ(get(table, attribute.id).value, attribute.fresh);
            }
            p->refCount = 0;
            own = 1;
            EXPECT_EQ(set(table, attribute.id, some), 0); // whatever the other list's switch is
            set(table, attribute.id, attribute.fresh);
            other = 1;
        });
}

TEST_F(Attributes, ThatAreTextAreReadUpToTheRoomGiven)
{
    each(GET | SET, 0, [](const Table &table, const Attribute &attribute) {
        if (attribute.type != Text)
            return;
        EXPECT_EQ(text(table, attribute.id, 40), "");
        EXPECT_EQ(set(table, attribute.id, std::string("quite")), 0);
        for (uint32_t room : {0u, 3u, 5u, 40u})
            EXPECT_EQ(text(table, attribute.id, room), std::string("quite").substr(0, room));
        EXPECT_EQ(set(table, attribute.id, std::string()), 0);
        EXPECT_EQ(text(table, attribute.id, 40), "");
    });
}

TEST_F(Attributes, ThatNameAPolicyTakeOnlyOneThatExists)
{
    const std::string longest(32, 'n');
    addBarePolicy(longest);
    each(EQUAL, 0, [&](const Table &table, const Attribute &attribute) {
        if (attribute.type != Text)
            return;
        set(table, attribute.id, std::string("quite"));
        forget();
        const std::string before = state();
        EXPECT_EQ(set(table, attribute.id, std::string("quite")), 0); // no change
        for (const std::string &name : {std::string("quit"), longest + 'n', std::string(300, 'n')})
            EXPECT_EQ(set(table, attribute.id, name), 0x041E0004);
        EXPECT_EQ(state(), before);
        EXPECT_TRUE(told().empty());
        EXPECT_EQ(set(table, attribute.id, longest), 0);
        EXPECT_EQ(text(table, attribute.id, 40), longest);
        EXPECT_EQ(set(table, attribute.id, std::string("p")), 0);
        EXPECT_EQ(state().find("nnn"), std::string::npos); // nothing is left of the longer one
        EXPECT_EQ(set(table, attribute.id, std::string()), 0);
    });
}

/** Field by field, what attributes from @a first on have been set to: 40 and their number. */
void expectSet(uint32_t first, const std::vector<uint32_t> &fields)
{
    for (uint32_t field : fields)
        EXPECT_EQ(field, 40 + first++);
}

TEST_F(Attributes, HaveAFieldOfTheirOwn)
{
    for (const Table &table : tables)
        for (uint32_t id = static_cast<uint32_t>(table.attributes.size()); id-- > 0;) {
            const Attribute &attribute = table.attributes[id]; // switches come behind their list
            if (attribute.type <= N32 && (attribute.traits & (SET | OWN)) == SET) {
                EXPECT_EQ(set(table, id, 40 + id), 0);
            }
        }
    const tCpuDefendSystem &g = gCpuDefend;
    const tCpuDefendCpuRatControl *system = g.cpuRatControl, *own = slot->cpuRatControl;
    expectSet(12, {g.cpuDefendDebug, g.policyMode, system[0].cpuRat});
    EXPECT_EQ(system[1].cpuRat, 56);
    EXPECT_EQ(system[2].cpuRat, 58);
    expectSet(2, {slot->policyMode, own[0].cpuRat});
    EXPECT_EQ(own[1].cpuRat, 45);
    EXPECT_EQ(own[2].cpuRat, 47);
    expectSet(3,
              {p->whiteListEnable, p->whiteListIp4Acl, p->whiteListIp6Acl, p->whiteListIp4Cir,
               p->whiteListIp4Cbs, p->whiteListIp6Cir, p->whiteListIp6Cbs, p->blackListEnable,
               p->blackListIp4Acl, p->blackListIp6Acl, p->srcTraceEnable, p->srcTracePktDataEnable,
               p->srcTraceAlarmEnable, p->srcTraceThreshold, p->srcTraceAlarmThreshold});
    expectSet(1, {rule->deny, rule->ip4Acl, rule->ip6Acl, rule->cir, rule->cbs});
    expectSet(0, {car->cir, car->cbs, car->pps, car->mode, car->queue, car->priority, car->deny});
    expectSet(9, {car->totalPktBps, car->totalPktPps});
}

TEST_F(Attributes, ThatNameAPolicyHaveAFieldOfTheirOwn)
{
    const std::string names[] = {"quite", "default", "p", ""};
    for (const auto visit : {0, 1}) {
        size_t n = 0;
        each(EQUAL, 0, [&](const Table &table, const Attribute &attribute) {
            if (attribute.type != Text)
                return;
            const std::string &name = names[n++ % 4];
            if (visit == 0) {
                EXPECT_EQ(set(table, attribute.id, name), 0);
            } else {
                EXPECT_EQ(text(table, attribute.id, 40), name);
            }
        });
    }
    EXPECT_EQ(levelName(gCpuDefend.cpuRatControl[0]), "default");
    EXPECT_EQ(levelName(slot->cpuRatControl[1]), "p");
}

} // namespace
