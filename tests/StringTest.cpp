#include "base/String.h"

#include <gtest/gtest.h>

using Zelmar::Tools::String;

TEST(StringTest, TemplatesFillNumberedPlaceholdersAndEscapes)
{
    EXPECT_EQ(String::format("gain %0 dB", 3), "gain 3 dB");
    EXPECT_EQ(String::format("100%%"), "100%");
    EXPECT_EQ(String::format("%1 before %0", "a", 2u), "2 before a");
    EXPECT_EQ(String::format("%0[%1]", String("eq"), 12), "eq[12]");
    EXPECT_EQ(String::format("missing %3!", 1), "missing !");
}

TEST(StringTest, MalformedTemplatesYieldTheWarningAndTheRawTemplate)
{
    EXPECT_EQ(String::format("%s", 1),
              "do not use printf like patterns, instead use %0, %1, %2... and %% for the % itself -> %s");
    EXPECT_EQ(String::format("50%"), "last character is a single % -> probably you meant %%? ->50%");
}

TEST(StringTest, ComparesCaseInsensitivelyOnRequestAndReplacesNonAlphanumerics)
{
    EXPECT_TRUE(String("YeS").equals("yes", false));
    EXPECT_FALSE(String("YeS").equals("yes", true));
    EXPECT_FALSE(String("yes ").equals("yes", false));
    EXPECT_EQ(String("eq-1.left").replaceNonAlphanumericChars('_'), "eq_1_left");
    EXPECT_TRUE(String("ab") < String("abc"));
    EXPECT_TRUE(String("B") < String("a"));
}
