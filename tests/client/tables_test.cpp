#include "client/tables.h"

#include <gtest/gtest.h>

#include <set>

#include "cpuDefend_nm.h"

using namespace cpudefend;

namespace
{

std::set<uint32_t> idsOf(std::span<const Attribute> attributes)
{
    std::set<uint32_t> ids;
    for (const Attribute &attribute : attributes)
        ids.insert(attribute.id);
    return ids;
}

std::set<uint32_t> upTo(uint32_t last)
{
    std::set<uint32_t> ids;
    for (uint32_t id = 0; id <= last; ++id)
        ids.insert(id);
    return ids;
}

} // namespace

TEST(Tables, CoverEveryPolicyAndCarAttributeOnce)
{
    EXPECT_EQ(idsOf(policyAttributes()), upTo(CPUDEFEND_POLICY_REFCOUNT));
    EXPECT_EQ(policyAttributes().size(), CPUDEFEND_POLICY_REFCOUNT + 1u);
    EXPECT_EQ(idsOf(carPktAttributes()), upTo(CPUDEFEND_CARPKT_TOTALPKTPPS));
    EXPECT_EQ(carPktAttributes().size(), CPUDEFEND_CARPKT_TOTALPKTPPS + 1u);
}

TEST(Tables, CoverEveryAttributeOfRulesSlotsAndSources)
{
    EXPECT_EQ(idsOf(ruleAttributes()), upTo(CPUDEFEND_USERDEFINEDT_CBS));
    EXPECT_EQ(ruleAttributes().size(), CPUDEFEND_USERDEFINEDT_CBS + 1u);
    EXPECT_EQ(idsOf(sourceAttributes()), upTo(CPUDEFEND_SRCTRACE_TOTALNUM));
    EXPECT_EQ(sourceAttributes().size(), CPUDEFEND_SRCTRACE_TOTALNUM + 1u);
    auto slots = upTo(CPUDEFEND_SLOT_L3POLICYNAME);
    slots.erase(CPUDEFEND_SLOT_RESETSRCTRACE); // an order, and no attribute to read
    EXPECT_EQ(idsOf(slotAttributes()), slots);
}

TEST(Tables, CoverEveryGlobalAttributeButTheOrders)
{
    auto global = upTo(CPUDEFEND_GLOBAL_L3POLICYNAME);
    global.erase(CPUDEFEND_GLOBAL_RESETSRCTRACE);
    EXPECT_EQ(idsOf(globalAttributes()), global);
    EXPECT_EQ(globalAttributes().size(), global.size());
}

TEST(Tables, NamesAreUniqueAndFindTheirAttribute)
{
    for (const auto attributes : {globalAttributes(), policyAttributes(), carPktAttributes(),
                                  ruleAttributes(), slotAttributes(), sourceAttributes()})
        for (const Attribute &wanted : attributes) {
            EXPECT_EQ(findAttribute(attributes, wanted.name), &wanted) << wanted.name;
            EXPECT_EQ(&attribute(attributes, wanted.id), &wanted) << wanted.name;
        }
    EXPECT_EQ(findAttribute(carPktAttributes(), "rate"), nullptr);
}

TEST(Tables, PacketTypesHaveTheirNumbers)
{
    const struct {
        uint32_t type;
        const char *name;
    } kSome[] = {{CPUDEFEND_PKTTYPE_DOT1X, "dot1x"},
                 {CPUDEFEND_PKTTYPE_ARP, "arp"},
                 {CPUDEFEND_PKTTYPE_DHCPSNOOPIP, "dhcpsnoopip"},
                 {CPUDEFEND_PKTTYPE_Y1731, "y1731"},
                 {CPUDEFEND_PKTTYPE_ICMPV6, "icmpv6"},
                 {CPUDEFEND_PKTTYPE_DHCP6REQUEST, "dhcp6request"},
                 {CPUDEFEND_PKTTYPE_BGP, "bgp"},
                 {CPUDEFEND_PKTTYPE_DLIP, "dlip"},
                 {CPUDEFEND_PKTTYPE_ISIS, "isis"},
                 {CPUDEFEND_PKTTYPE_PPPOE, "pppoe"},
                 {CPUDEFEND_PKTTYPE_DHCPSNOOPIP6, "dhcpsnoopip6"},
                 {CPUDEFEND_PKTTYPE_TOTALPKT, "totalpkt"}};
    for (const auto &[type, name] : kSome) {
        EXPECT_EQ(pktTypeName(type), name);
        EXPECT_EQ(findPktType(name), type);
    }
    const auto names = pktTypeNames();
    EXPECT_EQ(std::set<std::string_view>(names.begin(), names.end()).size(),
              std::size_t{CPUDEFEND_PKTTYPE_MAX});
}

TEST(Tables, PacketTypesAreFoundByNumberToo)
{
    EXPECT_EQ(findPktType("0"), 0u);
    EXPECT_EQ(findPktType("58"), 58u);
    EXPECT_EQ(findPktType("59"), std::nullopt);
    EXPECT_EQ(findPktType("ARP"), std::nullopt);
    EXPECT_EQ(findPktType(""), std::nullopt);
    EXPECT_EQ(pktTypeName(59), "59");
}

TEST(ParseNumber, TakesWholeNumbersOf32BitsOnly)
{
    EXPECT_EQ(parseNumber("0"), 0u);
    EXPECT_EQ(parseNumber("4294967295"), UINT32_MAX);
    for (const char *wrong : {"", "4294967296", "-1", "+1", " 1", "1 ", "1k", "0x10"})
        EXPECT_EQ(parseNumber(wrong), std::nullopt) << wrong;
}
