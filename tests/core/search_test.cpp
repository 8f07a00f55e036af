// What is found by key, and where what is added goes: as by a walk over the whole list, entry by
// entry, with the keys as they are now. The walk is written out here.
//
// CPUDEFEND_SEED replaces the seed of the random steps.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>

#include "core_test.h"

namespace
{

/* ---- The tables alike ------------------------------------------------------------------ */

using Key = std::pair<std::string, uint32_t>; // policy name and number

struct Cars {
    using Entry = tCpuDefendCarPktEntry;

    static std::vector<Entry *> listed() { return carEntries(); }
    static uint32_t number(const Entry *entry) { return entry->pktType; }
    static Entry *find(const Key &key) { return findCar(key.first, key.second); }
    static Entry *add(const Key &key) { return addCar(key.first, key.second); }
    static int32_t remove(Entry *entry) { return cpuDefendCarPktEntryDel(entry); }

    static std::optional<Key> next(const Key &key)
    {
        tcpuDefendCarPktIdx idx{}, nextIdx{};
        memcpy(idx.policyName, key.first.data(), std::min(key.first.size(), sizeof idx.policyName));
        idx.policyNameLen = static_cast<uint32_t>(key.first.size());
        idx.pktType = key.second;
        if (cpuDefendCarPktGetNext(&idx, &nextIdx) != CPUDEFEND_OK)
            return std::nullopt;
        return Key(std::string(nextIdx.policyName, nextIdx.policyName + nextIdx.policyNameLen),
                   nextIdx.pktType);
    }
};

struct Rules {
    using Entry = tCpuDefendUserDefinedEntry;

    static std::vector<Entry *> listed() { return rules(); }
    static uint32_t number(const Entry *entry) { return entry->index; }
    static Entry *find(const Key &key) { return findRule(key.first, key.second); }
    static Entry *add(const Key &key) { return addRule(key.first, key.second); }
    static int32_t remove(Entry *entry) { return cpuDefendUserDefinedEntryDel(entry); }

    static std::optional<Key> next(const Key &key)
    {
        tcpuDefendUserDefinedIdx idx{}, nextIdx{};
        memcpy(idx.policyName, key.first.data(), std::min(key.first.size(), sizeof idx.policyName));
        idx.policyNameLen = static_cast<uint32_t>(key.first.size());
        idx.index = key.second;
        if (cpuDefendUserDefinedGetNext(&idx, &nextIdx) != CPUDEFEND_OK)
            return std::nullopt;
        return Key(std::string(nextIdx.policyName, nextIdx.policyName + nextIdx.policyNameLen),
                   nextIdx.index);
    }
};

/* ---- The walk -------------------------------------------------------------------------- */

/** A list as it should be, found through from its head. */
template <typename Table> class Walk
{
public:
    using Entry = typename Table::Entry;

    static Key key(const Entry *entry)
    {
        return {nameOf(entry->policyEntry), Table::number(entry)};
    }

    /** Shorter names first, then by the names' bytes, then by the numbers. */
    static int order(const Entry *entry, const Key &key)
    {
        const tCpuDefendPolicyEntry &policy = *entry->policyEntry;
        if (policy.policyNameLen != key.first.size())
            return policy.policyNameLen > key.first.size() ? 1 : -1;
        const int order = memcmp(policy.policyName, key.first.data(), key.first.size());
        if (order != 0 || Table::number(entry) == key.second)
            return order;
        return Table::number(entry) > key.second ? 1 : -1;
    }

    /** The first one whose order against the key is at least @a least, or the end. */
    auto first(const Key &key, int least, int most) const
    {
        return std::find_if(entries_.begin(), entries_.end(), [&](const Entry *entry) {
            const int seen = order(entry, key);
            return seen >= least && seen <= most;
        });
    }

    Entry *find(const Key &key) const
    {
        const auto at = first(key, 0, 0);
        return at == entries_.end() ? nullptr : *at;
    }

    std::optional<Key> next(const Key &given) const
    {
        const auto at = first(given, 1, INT32_MAX);
        return at == entries_.end() ? std::nullopt : std::optional(key(*at));
    }

    void add(Entry *entry) { entries_.insert(first(key(entry), 1, INT32_MAX), entry); }
    void remove(Entry *entry)
    {
        entries_.erase(std::find(entries_.begin(), entries_.end(), entry));
    }
    const std::vector<Entry *> &entries() const { return entries_; }

private:
    std::vector<Entry *> entries_;
};

/* ---- Random steps ---------------------------------------------------------------------- */

const std::string empty, longest(32, 'n'), longestButOne = std::string(31, 'n') + "m";

/** Names of policies; some are never made, and one is too long. */
const std::vector<std::string> names{empty,   "a",    "b",           "z",
                                     "\xff",  "aa",   "ab",          "zz",
                                     "b\xff", "aaaa", "default",     std::string("b\0", 2),
                                     longest, "m",    longestButOne, std::string(33, 'n')};
constexpr size_t CREATED = 13; // of the names, from the first

const std::vector<uint32_t> numbers{0, 1,  2,  3,  4,   5,   6,   7,   8,
                                    9, 10, 11, 12, 254, 255, 256, 259, UINT32_MAX};

/** The tables, and beside them what they should hold. */
class Tables
{
public:
    explicit Tables(uint32_t seed) : random_(seed)
    {
        for (tCpuDefendCarPktEntry *entry : carEntries())
            cars_.add(entry);
    }

    uint32_t below(uint32_t n) { return static_cast<uint32_t>(random_()) % n; }

    void create(const std::string &name)
    {
        if (findPolicy(name))
            return;
        if (tCpuDefendPolicyEntry *policy = addPolicy(name))
            for (tCpuDefendCarPktEntry *entry : carEntries(policy))
                cars_.add(entry);
    }

    void destroy(const std::string &name)
    {
        if (tCpuDefendPolicyEntry *policy = findPolicy(name))
            cpuDefendPolicyEntryDel(policy);
    }

    void addCar(const Key &key) { add(cars_, key); }
    void addRule(const Key &key) { add(rules_, key); }
    void removeCar(size_t at) { remove(cars_, at); }
    void removeRule(size_t at) { remove(rules_, at); }

    /** Anything, on those of the names that are made. */
    void step(const std::vector<std::string> &of, size_t made)
    {
        const std::string &name = of[below(static_cast<uint32_t>(made))];
        const Key key{name, numbers[below(static_cast<uint32_t>(numbers.size()))]};
        switch (below(12)) {
        case 0:
        case 1: return create(name);
        case 2: return destroy(name);
        case 3: return addCar(key);
        case 4:
        case 5: return removeCar(below(1000));
        case 6:
        case 7: return removeRule(below(1000));
        default: return addRule(key);
        }
    }

    void expectLists() const
    {
        EXPECT_EQ(Cars::listed(), cars_.entries());
        EXPECT_EQ(Rules::listed(), rules_.entries());
    }

    void expectFound(const Key &key) const
    {
        expectFound<Cars>(cars_, key);
        expectFound<Rules>(rules_, key);
    }

    size_t cars() const { return cars_.entries().size(); }
    size_t rules() const { return rules_.entries().size(); }

private:
    template <typename Table> static void add(Walk<Table> &walk, const Key &key)
    {
        if (typename Table::Entry *entry = Table::add(key))
            walk.add(entry);
    }

    template <typename Table> static void remove(Walk<Table> &walk, size_t at)
    {
        if (walk.entries().empty())
            return;
        auto *entry = walk.entries()[at % walk.entries().size()];
        walk.remove(entry);
        EXPECT_EQ(Table::remove(entry), 0);
    }

    template <typename Table> static void expectFound(const Walk<Table> &walk, const Key &key)
    {
        EXPECT_EQ(Table::find(key), walk.find(key)) << testing::PrintToString(key);
        EXPECT_EQ(Table::next(key), walk.next(key)) << testing::PrintToString(key);
    }

    std::mt19937 random_;
    Walk<Cars> cars_;
    Walk<Rules> rules_;
};

uint32_t seed()
{
    const char *text = getenv("CPUDEFEND_SEED");
    return text ? static_cast<uint32_t>(strtoul(text, nullptr, 0)) : 20031;
}

/** "p0000" and on: names of one length in order. */
std::vector<std::string> numbered(uint32_t count)
{
    std::vector<std::string> all;
    for (uint32_t i = 0; i < count; i++) {
        char name[16];
        snprintf(name, sizeof name, "p%04u", i);
        all.push_back(name);
    }
    return all;
}

} // namespace

class Search : public CoreTest
{
protected:
    /** Steps on a few names, each followed by a look at all that may be asked for. */
    static void runSmall(uint32_t policies, uint32_t steps)
    {
        Tables tables(seed() + policies);
        for (uint32_t n = 0; n < steps && !HasFailure(); n++) {
            SCOPED_TRACE("step " + std::to_string(n));
            tables.step(names, CREATED);
            tables.expectLists();
            for (const std::string &name : names)
                for (uint32_t number : numbers)
                    tables.expectFound({name, number});
        }
    }

    /** Look at some of what may be asked for. */
    static void expectSome(Tables &tables, const std::vector<std::string> &of)
    {
        tables.expectLists();
        for (int i = 0; i < 200 && !HasFailure(); i++)
            tables.expectFound({of[tables.below(static_cast<uint32_t>(of.size()))],
                                numbers[tables.below(static_cast<uint32_t>(numbers.size()))]});
        for (uint32_t number : numbers)
            tables.expectFound({empty, number});
    }
};

TEST_F(Search, FindsAsAWalkWhileThePoolIsTooSmall)
{
    restart(3, 1);
    runSmall(3, 600);
}

TEST_F(Search, FindsAsAWalkAmongWhatWasLeftOver)
{
    restart(12, 1);
    runSmall(12, 600);
}

TEST_F(Search, FindsAsAWalkInLongLists)
{
    const std::vector<std::string> all = numbered(700);
    restart(700, 1);
    Tables tables(seed());
    std::vector<std::string> shuffled = all;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(seed()));
    for (const std::string &name : shuffled)
        tables.create(name);
    expectSome(tables, all);
    for (int round = 0; round < 20 && !HasFailure(); round++) {
        for (int i = 0; i < 500; i++)
            tables.step(all, all.size());
        expectSome(tables, all);
    }
}

TEST_F(Search, FindsAsAWalkWhileListsGrowAndShrink)
{
    const std::vector<std::string> all = numbered(700);
    restart(700, 1);
    Tables tables(seed());
    for (int round = 0; round < 3 && !HasFailure(); round++) {
        for (size_t i = 0; i < all.size(); i++)
            tables.create(round == 1 ? all[all.size() - 1 - i] : all[i]);
        for (const std::string &name : all)
            for (uint32_t number = 0; number < 5; number++)
                tables.addRule({name, number});
        expectSome(tables, all);
        // From the front, from the end, from anywhere.
        for (size_t left = 100; tables.cars() > left && tables.rules() > left;) {
            const size_t at = round == 0 ? 0 : round == 1 ? tables.rules() - 1 : tables.below(9999);
            tables.removeRule(at);
            tables.removeCar(at);
            tables.removeCar(at);
        }
        expectSome(tables, all);
        for (const std::string &name : all)
            tables.destroy(name);
        expectSome(tables, all);
        while (tables.cars() + tables.rules() > 0) {
            tables.removeRule(tables.below(9999));
            tables.removeCar(tables.below(9999));
        }
        expectSome(tables, all);
    }
}

TEST_F(Search, FindsAsAWalkAmongThousandsOfOneKey)
{
    restart(400, 1);
    Tables tables(seed());
    for (const char *name : {"a", "b", "c"})
        tables.create(name);
    for (int i = 0; i < 3000; i++) {
        tables.addCar({"b", 3});
        tables.addRule({i % 2 ? "b" : "a", 3});
    }
    expectSome(tables, {"a", "b", "c"});
    tables.destroy("b");
    expectSome(tables, {"a", "b", "c"});
    tables.create("0");
    expectSome(tables, {"0", "a", "b", "c"});
}

/** Everything that was left over in a policy's record counts for the next one there. */
TEST_F(Search, FindsAsAWalkAfterManyPoliciesInOneRecord)
{
    restart(200, 1);
    Tables tables(seed());
    for (int i = 0; i < 150 && !HasFailure(); i++) {
        const std::string name = i % 7 == 0 ? "c" : i % 3 == 0 ? "a" : "b";
        tables.create(name);
        tables.addRule({name, static_cast<uint32_t>(i % 4)});
        for (const char *asked : {"", "a", "b", "c"})
            for (uint32_t number : numbers)
                tables.expectFound({asked, number});
        tables.destroy(name);
    }
    tables.expectLists();
}

/** One that was left over and is great by its new name hides what stands behind it. */
TEST_F(Search, WalkSkipsWhatAGreatLeftoverHides)
{
    for (const char *name : {"a", "b", "c"})
        addPolicy(name);
    cpuDefendPolicyEntryDel(findPolicy("b"));
    addPolicy("z");
    EXPECT_EQ(Cars::next({"a", 9}), Key("z", 0));
    EXPECT_EQ(Cars::next({"z", 9}), Key("default", 0));
    EXPECT_EQ(Cars::find({"c", 3}), carEntries(findPolicy("c"))[3]);
    EXPECT_NE(Cars::find({"z", 3}), carEntries(findPolicy("z"))[3]);
}
