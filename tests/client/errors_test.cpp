#include "client/errors.h"

#include <gtest/gtest.h>

#include "cpuDefend_nm.h"

using namespace cpudefend;

TEST(CodeText, EveryCodeHasItsSentence)
{
    const struct {
        int32_t code;
        const char *text;
    } kExpected[] = {
        {0, "done"},
        {-1, "the daemon does not have this setting, does not let it be changed, or cannot take "
             "this value"},
        {19, "there is no such slot"},
        {22, "this does not name a traced source"},
        {0x03E80001, "the daemon has no free record left for it"},
        {0x03E80002, "there is no such entry"},
        {0x03E80008, "the policy that it belongs to does not exist"},
        {0x03E8000B, "the policy is bound: the value is stored, and takes effect when the policy "
                     "is bound the next time"},
        {0x041E0001, "the policy's white list is off"},
        {0x041E0002, "the policy's black list is off"},
        {0x041E0004, "there is no policy of this name"},
        {0x041E0005, "the policy is bound, unbind it first"},
    };
    for (const auto &[code, text] : kExpected)
        EXPECT_EQ(codeText(code), text);
    EXPECT_EQ(codeTexts().size(), std::size(kExpected));
}

TEST(CodeText, CodeOfThePlatformIsGivenAsItIs)
{
    EXPECT_EQ(codeText(-5), "the platform answered with code -5 (0xFFFFFFFB)");
    EXPECT_EQ(codeText(0x01F4003F), "the platform answered with code 32768063 (0x01F4003F)");
}

TEST(CodeText, APlatformsCodeCanBeOneThatTheDaemonUsesToo)
{
    EXPECT_EQ(platformCodeText(22), "the platform answered with code 22 (0x00000016)");
}

TEST(Error, OfACodeSaysItsSentence)
{
    const Error error(CPUDEFEND_EBOUND);
    EXPECT_EQ(error.failure(), Failure::Refused);
    EXPECT_EQ(error.code(), CPUDEFEND_EBOUND);
    EXPECT_EQ(error.sentence("set x"), "couldn't set x: the policy is bound, unbind it first");
    EXPECT_EQ(Error(77).failure(), Failure::Platform);
}

TEST(Error, OfAStepTellsOfTheStep)
{
    const Error error(Failure::TimedOut, "why", 0, {"set pps=2 for", "arp in policy edge"});
    EXPECT_EQ(error.sentence("add it"), "couldn't set pps=2 for arp in policy edge: why");
    EXPECT_EQ(error.sentence("add it", "1 in it"), "couldn't set pps=2 for 1 in it: why");
}

TEST(Error, WhatIsDoneInPartIsSaidSo)
{
    EXPECT_EQ(Error(Failure::InPart, "why", 5).sentence("bind it"),
              "couldn't bind it in full: why");
}

TEST(Error, WhateverFailsThereIsAdvice)
{
    for (const CodeText &known : codeTexts())
        EXPECT_EQ(Error(known.code).advice().empty(), known.code == CPUDEFEND_OK) << known.code;
    for (int failure = 0; failure <= static_cast<int>(Failure::BadArgument); ++failure)
        if (static_cast<Failure>(failure) != Failure::Refused) {
            EXPECT_NE(Error(static_cast<Failure>(failure), "").advice(), "") << failure;
        }
}
