#include "dsp/Chain.h"
#include "base/Tracer.h"

#include "dsp/Gain.h"
#include "dsp/InputStage.h"
#include "dsp/Meter.h"
#include "dsp/ModuleFactory.h"
#include "dsp/OutputStage.h"
#include "dsp/ParsingException.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/Thrown.h"

#include <gtest/gtest.h>

using namespace Zelmar;

namespace {

std::vector<Tools::String> idsInOrder(Chain const& chain)
{
    std::vector<Tools::String> ids;
    for (auto const& module : chain.getModules())
        ids.push_back(module->getID());
    return ids;
}

} // namespace

TEST(ChainTest, PassesAudioFromInputToOutputAndPrintsMetersOnceAsked)
{
    Chain chain(48000, TEST_SOURCE_DIR "/data/passthrough.xml");
    Testing::MemoryAlsaBuffers capture(2), playback(2);
    auto output = Testing::attachHostBuffers(chain, capture, playback);
    output->setMute(false);
    capture.getChannel(0).setPeriod(std::vector<tSample>(256, tSample(0.5)));
    capture.getChannel(1).setPeriod(std::vector<tSample>(256, tSample(-0.25)));
    chain.process();
    EXPECT_EQ(playback.getChannel(0).samples[255], tSample(0.5));
    EXPECT_EQ(playback.getChannel(1).samples[255], tSample(-0.25));
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(chain.findModule("level"))->exchange(0.0f), 0.5f);
    EXPECT_FLOAT_EQ(chain.findModule("in")->getStoredMeter(0), 0.0f) << "meters start disabled";

    output->initialMute();
    capture.getChannel(1).setPeriod(std::vector<tSample>(256, tSample(0.25)));
    testing::internal::CaptureStdout();
    chain.printMeters();
    chain.process();
    chain.printMeters();
    std::string const printed = testing::internal::GetCapturedStdout();
    std::string const name = Tools::Tracer::getProcessName().str();
    EXPECT_NE(printed.find(name + " in[0] = 0.000000\n"), std::string::npos);
    EXPECT_NE(printed.find(name + " in[0] = 0.500000\n"), std::string::npos);
    EXPECT_NE(printed.find(name + " in[1] = 0.250000\n"), std::string::npos);
    EXPECT_NE(printed.find(name + " output is MUTED\n"), std::string::npos);
}

TEST(ChainTest, SortsBySignalFlowFromTheSinksInInsertionOrder)
{
    Chain chain(48000);
    chain.addModule("meter", "m2");
    chain.addModule("output", "out")->setParameters(Parameters{{"interleave-pattern", "01"}}, 48000);
    chain.addModule("meter", "m1");
    chain.addModule("input", "in");
    chain.pullWire("m1[0]", "in[1]");
    chain.pullWire("m2[0]", "in[0]");
    chain.pullWire("out", "in");
    chain.compile();
    EXPECT_EQ(idsInOrder(chain), (std::vector<Tools::String>{"in", "m2", "out", "m1"}));
    EXPECT_EQ(chain.getWires().count("out"), 0u) << "the shortcut became one wire per port";
    EXPECT_EQ(chain.getWires().at("out[1]"), "in[1]");
    chain.compile();
    EXPECT_EQ(idsInOrder(chain), (std::vector<Tools::String>{"in", "m2", "out", "m1"}))
        << "compiling twice is safe";
}

TEST(ChainTest, WiringAndLookupFaultsRaiseTheirMessages)
{
    Chain chain(48000);
    chain.addModule("input", "in");
    chain.addModule("meter", "m");
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.addModule("Meter", "x"); }),
              "Module type Meter not found in module factory");
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.findModule("x"); }),
              "chain does not contain a module with ID x!");
    EXPECT_EQ(chain.tryFindModule("x"), nullptr);
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.parseWireModule("m"); }),
              "something is wrong with the port spec - should be moduleid[portnum]: m\n");
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.parseWirePort("m"); }),
              "something is wrong with the port spec - should be moduleid[portnum]: m");
    EXPECT_THROW(chain.parseWirePort("m[x]"), std::invalid_argument);
    EXPECT_EQ(chain.parseWirePort("m[12"), 12u);

    chain.pullWire("m[0]", "in");
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.compile(); }),
              "something is wrong with the port spec - should be moduleid[portnum]: in\n");
    chain.pullWire("m[0]", "gone[0]");
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { chain.compile(); }),
              "Module for portSpec gone[0] does not exist");
    chain.pullWire("m[0]", "in[1]");
    EXPECT_NO_THROW(chain.compile()) << "the second source of an input replaced the first";
}

TEST(ChainTest, FactoryKnowsExactlyTheDocumentedTypes)
{
    std::string names;
    for (auto const& name : ModuleFactory::get().getTypeNames())
        names += name.str() + " ";
    EXPECT_EQ(names,
              "adaptive-biquad adaptive-limiter biquad clipguard delay dump-samples equalizer flac-encoder "
              "gain input limiter meter mixer output patchbay phase-invert resampler signal-detector sounds "
              "stereo-biquad stereo-equalizer switch timestretcher ");
    std::unique_ptr<Module> meter(ModuleFactory::get().createModule("meter", "g1"));
    EXPECT_EQ(meter->getID(), "g1");
    EXPECT_EQ(meter->getType(), "meter");
    EXPECT_NE(dynamic_cast<Meter*>(meter.get()), nullptr);
    EXPECT_EQ(ModuleFactory::get().createModule("Meter", "g1"), nullptr);
}

TEST(ChainDeathTest, ModuleLeadingToNoSinkFailsCompilation)
{
    Chain chain(48000);
    chain.addModule("input", "orphan");
    chain.addModule("meter", "m");
    EXPECT_DEATH(chain.compile(), "countOfModules == m_modules.size\\(\\)");
}

TEST(ChainTest, ExclusiveInputsRunInPlaceSharedOutputsDoNot)
{
    Chain chain(48000);
    chain.addModule("output", "out")->setParameters(Parameters{{"interleave-pattern", "01"}}, 48000);
    auto solo = chain.addModule("gain", "solo");
    auto shared = chain.addModule("gain", "shared");
    auto in = chain.addModule("input", "in");
    chain.pullWire("solo[0]", "in[0]");
    chain.pullWire("shared[0]", "in[1]");
    chain.pullWire("m[0]", "in[1]");
    chain.addModule("meter", "m");
    chain.pullWire("out[0]", "solo[0]");
    chain.pullWire("out[1]", "shared[0]");
    chain.compile();
    EXPECT_EQ(idsInOrder(chain), (std::vector<Tools::String>{"in", "solo", "shared", "out", "m"}));
    EXPECT_EQ(solo->getOutPortBuffer(0), in->getOutPortBuffer(0));
    EXPECT_NE(shared->getOutPortBuffer(0), in->getOutPortBuffer(1));
    EXPECT_TRUE(chain.isExclusiveOutportUser("solo[0]", "in[0]"));
    EXPECT_FALSE(chain.isExclusiveOutportUser("shared[0]", "in[1]"));

    int gains = 0;
    Chain::forModule<Gain>(chain.getModules(), [&](std::shared_ptr<Module> const& module) {
        EXPECT_EQ(module->getType(), "gain");
        ++gains;
    });
    EXPECT_EQ(gains, 2);
}
