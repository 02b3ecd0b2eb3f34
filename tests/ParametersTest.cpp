#include "dsp/Parameters.h"

#include "support/Thrown.h"

#include <gtest/gtest.h>
#include <stdexcept>

using Zelmar::Parameters;

TEST(ParametersTest, MissingKeysHaveTheirGettersDefaults)
{
    Parameters const empty;
    EXPECT_EQ(empty.get("any"), "0");
    EXPECT_EQ(empty.getString("any"), "");
    EXPECT_EQ(empty.getInt("any"), 0);
    EXPECT_EQ(empty.getDouble("any"), 0.0);
    EXPECT_FALSE(empty.getBool("any"));
    EXPECT_EQ(empty.describe(), "");
}

TEST(ParametersTest, NumbersParseLikeTheCLibraryAndFailWithStandardErrors)
{
    Parameters p{{"a", "12abc"}, {"b", "abc"},   {"c", ""},
                 {"d", " 2.5"},  {"e", "1e999"}, {"f", "99999999999"}};
    EXPECT_EQ(p.getInt("a"), 12);
    EXPECT_EQ(p.getInt("c"), 0);
    EXPECT_EQ(p.getDouble("d"), 2.5);
    EXPECT_EQ(Zelmar::Testing::thrownMessage<std::invalid_argument>([&] { p.getInt("b"); }), "stoi");
    EXPECT_EQ(Zelmar::Testing::thrownMessage<std::out_of_range>([&] { p.getDouble("e"); }), "stod");
    EXPECT_THROW(p.getDouble("b"), std::invalid_argument);
    EXPECT_THROW(p.getInt("f"), std::out_of_range);
}

TEST(ParametersTest, BooleansAcceptOneAndThreeWordsWithoutRegardToCase)
{
    Parameters p{{"one", "1"}, {"zero", "0"}, {"yes", "YES"}, {"true", "true"},
                 {"on", "On"}, {"two", "2"},  {"blank", " 1"}};
    for (auto const& [key, expected] : {std::pair{"one", true},
                                        {"zero", false},
                                        {"yes", true},
                                        {"true", true},
                                        {"on", true},
                                        {"two", false},
                                        {"blank", false}})
        EXPECT_EQ(p.getBool(key), expected) << key;
}

TEST(ParametersTest, LaterDuplicatesWinAndDescribeListsEntriesInKeyOrder)
{
    Parameters p{{"b", "2"}, {"a", "x"}, {"a", "1"}};
    EXPECT_EQ(p.getString("a"), "1");
    EXPECT_EQ(p.describe(), "  a=1\\l  b=2\\l");
}
