#include "client/values.h"

#include <gtest/gtest.h>

using namespace cpudefend;

TEST(Values, TextIsBoundedInBytes)
{
    const Attribute &description = *findAttribute(policyAttributes(), "description");
    EXPECT_EQ(parseValue(description, std::string(64, 'x')), Value(std::string(64, 'x')));
    EXPECT_EQ(parseValue(description, ""), Value(std::string()));
    EXPECT_THROW(parseValue(description, std::string(65, 'x')), BadValue);
}

TEST(Values, PriorityIsThreeNumbers)
{
    const Attribute &priority = *findAttribute(policyAttributes(), "priority");
    EXPECT_EQ(parseValue(priority, "0,7,255"), Value(std::string("\0\7\xff", 3)));
    for (const char *wrong : {"", "1", "1,2", "1,2,3,4", "1,2,", ",1,2", "1,2,256", "1,2,x"})
        EXPECT_THROW(parseValue(priority, wrong), BadValue) << wrong;
}
