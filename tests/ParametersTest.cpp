#include "dsp/Parameters.h"

#include "base/String.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <vector>

using Zelmar::Parameters;
using Zelmar::Testing::thrownMessage;
using Zelmar::Tools::String;

TEST(ParametersTest, GettersParseLikeTheCLibraryAndHaveDefaultsForMissingKeys)
{
    Parameters const p{{"int", "12abc"}, {"double", " 2.5"}, {"empty", ""}, {"a", "x"}, {"a", "1"}};
    EXPECT_EQ(p.get("none"), "0");
    EXPECT_EQ(p.getString("none"), "");
    EXPECT_EQ((std::vector<double>{double(p.getInt("none")), double(p.getInt("empty")), p.getDouble("none"),
                                   p.getDouble("empty")}),
              std::vector<double>(4, 0.0));
    EXPECT_FALSE(p.getBool("none"));
    EXPECT_EQ(p.getInt("int"), 12);
    EXPECT_EQ(p.getDouble("double"), 2.5);
    EXPECT_EQ(p.getString("a"), "1") << "of a duplicate key the last value is kept";
    EXPECT_EQ(Parameters().describe(), "");
    EXPECT_EQ((Parameters{{"b", "2"}, {"a", "1"}}.describe()), "  a=1\\l  b=2\\l");

    Parameters const bad{{"text", "abc"}, {"huge", "1e999"}, {"long", "99999999999"}};
    EXPECT_EQ(thrownMessage<std::invalid_argument>([&] { bad.getInt("text"); }), "stoi");
    EXPECT_EQ(thrownMessage<std::invalid_argument>([&] { bad.getDouble("text"); }), "stod");
    EXPECT_EQ(thrownMessage<std::out_of_range>([&] { bad.getInt("long"); }), "stoi");
    EXPECT_EQ(thrownMessage<std::out_of_range>([&] { bad.getDouble("huge"); }), "stod");
}

// Each word in a case of its own, so that none of the three is compared case-sensitively unnoticed.
TEST(ParametersTest, BooleansAreExactlyOneOrAWordInAnyCase)
{
    std::pair<char const*, bool> const cases[] = {{"1", true},   {"YES", true},  {"True", true},
                                                  {"oN", true},  {"0", false},   {"2", false},
                                                  {" 1", false}, {"yes ", false}};
    for (auto const& [value, expected] : cases)
        EXPECT_EQ((Parameters{{"k", value}}.getBool("k")), expected) << value;
}

TEST(StringTest, TemplatesFillNumberedPlaceholdersOrYieldTheWarning)
{
    EXPECT_EQ(String::format("gain %0 dB", 3), "gain 3 dB");
    EXPECT_EQ(String::format("100%%"), "100%");
    EXPECT_EQ(String::format("%1 before %0[%1]", String("eq"), 12u), "12 before eq[12]");
    EXPECT_EQ(String::format("missing %3!", 1), "missing !");
    EXPECT_EQ(String::format("%s", 1),
              "do not use printf like patterns, instead use %0, %1, %2... and %% for the % itself -> %s");
    EXPECT_EQ(String::format("50%"), "last character is a single % -> probably you meant %%? ->50%");
}

TEST(StringTest, ComparesByteWiseOrWithoutRegardToCaseAndMakesDotSafeNames)
{
    EXPECT_TRUE(String("YeS").equals("yes", false));
    EXPECT_FALSE(String("YeS").equals("yes", true));
    EXPECT_TRUE(String("ab") < String("abc"));
    EXPECT_TRUE(String("B") < String("a"));
    EXPECT_EQ(String("eq-1.left").replaceNonAlphanumericChars('_'), "eq_1_left");
}
