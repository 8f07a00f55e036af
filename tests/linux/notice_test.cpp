#include <gtest/gtest.h>

#include "base/notice.h"

using zynlinux::Notice;
using namespace std::chrono_literals;

namespace
{

class NoticeTest : public testing::Test
{
protected:
    bool isDue(bool lasts, std::chrono::seconds at)
    {
        return notice.isDue(lasts, Notice::Time(100s + at));
    }

    Notice notice{60s};
};

TEST_F(NoticeTest, ComesOnceWhileItLasts)
{
    EXPECT_FALSE(isDue(false, 0s));
    EXPECT_TRUE(isDue(true, 1s));
    EXPECT_FALSE(isDue(true, 1s));
    EXPECT_FALSE(isDue(true, 1000s));
}

TEST_F(NoticeTest, ComesAgainWhenItBeginsAgain)
{
    EXPECT_TRUE(isDue(true, 0s));
    EXPECT_FALSE(isDue(false, 60s));
    EXPECT_TRUE(isDue(true, 60s));
}

TEST_F(NoticeTest, ThatComesTooSoonComesLater)
{
    EXPECT_TRUE(isDue(true, 0s));
    EXPECT_FALSE(isDue(false, 1s));
    EXPECT_FALSE(isDue(true, 2s));
    EXPECT_FALSE(isDue(true, 59s));
    EXPECT_TRUE(isDue(true, 60s));
    EXPECT_FALSE(isDue(true, 200s));
}

} // namespace
