#include "dsp/ChainParser.h"

#include "dsp/Chain.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/ParsingException.h"
#include "dsp/StereoWrapper.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

using namespace Zelmar;

TEST(ChainParserTest, ParametersAreCollectedPerModuleAndAppliedAfterTheWholeFile)
{
    Testing::TemporaryDirectory dir;
    std::string const config = dir.write("config.xml", R"(<anything>
      <parameter id="stray">1</parameter>
      <module type="input" id="in"/>
      <unknown><module type="output" id="out">
        <parameter id="interleave-pattern" type="string">0</parameter>
        <parameter id="interleave-pattern">10</parameter>
        <parameter id="note"> spaced </parameter>
      </module></unknown>
      <cable out="in[0]" in="late[0]"/>
      <module type="meter" id="late"/>
      <cable out="in[1]" in="out[0]"/>
      <cable out="in[0]" in="out[1]"/>
    </anything>)");
    Chain chain(44100);
    chain.load(config, false);
    EXPECT_EQ(chain.getModules().size(), 3u);
    auto const& out = chain.findModule("out")->getParameters();
    EXPECT_EQ(out.getString("interleave-pattern"), "10");
    EXPECT_EQ(out.getString("note"), " spaced ");
    EXPECT_TRUE(out.getString("stray").empty());
    EXPECT_EQ(chain.findModule("in")->getSampleRate(), 44100u)
        << "a module without parameters still gets a set";
    EXPECT_EQ(chain.getWires().at("late[0]"), "in[0]");
    chain.compile();
    EXPECT_EQ(chain.findModule("out")->getNumInPorts(), 2u);
}

TEST(ChainParserTest, StereoModulesAreWrappedAndAFileMayStopInsideAnElement)
{
    Testing::TemporaryDirectory dir;
    std::string const config = dir.write(
        "config.xml", R"(<dsp><stereo-module type="meter" id="levels"><parameter id="x">1</parameter>
      </stereo-module><module type="input" id="in"/><cable out="in" in="levels"/>)");
    Chain chain(48000, config);
    auto wrapper = std::dynamic_pointer_cast<StereoWrapper>(chain.findModule("levels"));
    ASSERT_TRUE(wrapper);
    EXPECT_EQ(wrapper->getRight()->getParameters().getString("x"), "1");
    EXPECT_EQ(chain.getModules().front()->getID(), "in");
}

TEST(ChainParserTest, ChainFaultsRaisedInsideTheParserReachTheCaller)
{
    Testing::TemporaryDirectory dir;
    std::string const config = dir.write("config.xml", R"(<dsp><module type="equaliser" id="eq"/></dsp>)");
    Chain chain(48000);
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.load(config, true); }),
              "Module type equaliser not found in module factory");
    // Values are validated before they are set: what the module would meet with a conversion error or
    // an assertion is refused as an argument error naming the place.
    std::string const tooLoud =
        dir.write("tooLoud.xml",
                  R"(<dsp><module type="gain" id="g"><parameter id="gain">24</parameter></module></dsp>)");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>([&] { Chain(48000, tooLoud); }),
              "parameter gain of module g: must be below 24 dB, not 24");
}

TEST(ChainParserDeathTest, UnreadableOrMalformedFilesEndTheProcess)
{
    Testing::TemporaryDirectory dir;
    EXPECT_DEATH(Chain(48000, "/nonexistent/dsp.xml"), "Could not open dsp config file: ");
    std::string const broken = dir.write("broken.xml", "<dsp><module type=\"input\" id=\"in\"></dsp>");
    EXPECT_DEATH(Chain(48000, broken), "Could not parse dsp config file: ");
}
