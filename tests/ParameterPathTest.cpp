// The way parameters travel from the control thread to the audio thread, through the entry points the
// chain service offers, and the faults an audit found on it; the refusals themselves are tabled in
// ModuleDescriptorTest and the config check's in ChainCheckTest.
#include "dsp/AdaptiveLimiter.h"
#include "dsp/ChainService.h"
#include "dsp/ConfigDocument.h"
#include "dsp/FlacEncoder.h"
#include "dsp/ModuleFactory.h"
#include "support/DataFile.h"
#include "support/EveryTypeChain.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/PrivateDbus.h"

#include <atomic>
#include <gtest/gtest.h>
#include <random>
#include <thread>

using namespace Zelmar;

namespace {

using tVariant = std::unique_ptr<GVariant, decltype(&g_variant_unref)>;

tVariant tuples(std::vector<std::array<std::string, 3>> const& entries)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sss)"));
    for (auto const& e : entries)
        g_variant_builder_add(&builder, "(sss)", e[0].c_str(), e[1].c_str(), e[2].c_str());
    return tVariant(g_variant_ref_sink(g_variant_new("a(sss)", &builder)), g_variant_unref);
}

// Every module's whole set as the config file gives it, with the defaults of the keys it leaves out.
std::vector<std::array<std::string, 3>> setsOfTheFile(std::string const& path)
{
    std::vector<std::array<std::string, 3>> sets;
    ConfigDocument const document = ConfigDocument::read(path);
    for (auto const& declared : document.getModules()) {
        for (auto const& parameter : ModuleFactory::get().findDescriptor(declared.type)->getParameters()) {
            auto const& given = declared.parameters.getParams();
            auto const it = given.find(parameter.getKey());
            sets.push_back({declared.id.str(), parameter.getKey(),
                            it != given.end() ? it->second.str() : std::string(parameter.getDefault())});
        }
    }
    return sets;
}

} // namespace

// Meant for ThreadSanitizer too: whatever arrives while periods run, nothing races, and once the
// changes are over the chain runs exactly as one configured with the last valid set of every module.
TEST(ParameterPathTest, RandomChangesWhileProcessingEndAsTheLastValidSets)
{
    Testing::LogCapture quiet(7);
    Testing::PrivateDbus bus;
    GDBusConnection* connection = bus.connect();
    Testing::EveryTypeChain changed;
    auto const service = std::make_unique<ChainService>(changed.chain(), connection);
    std::vector<std::string> values =
        Testing::split("-100|-5|-1|0|0.5|1|3|10|24|30|1000|44100|96000|nan|x||01|"
                       "10|11|0x|2|peak|hishelf|LoPass|mono|quadro|true|"
                       "-60=3,0=0|-60=30|0=-3 dB|/nonexistent",
                       "|");
    values.push_back(changed.scratch());
    std::mt19937 random(19);
    auto const pick = [&](auto const& from) { return from[random() % from.size()]; };
    auto const& modules = changed.chain().getModules();

    std::dynamic_pointer_cast<FlacEncoder>(changed.chain().findModule("fe"))->startEncoding();
    std::atomic<bool> stop{false};
    std::thread audio([&] {
        std::vector<tSample> const silence(256);
        while (!stop.load())
            changed.process(silence, silence);
    });
    for (int change = 0; change < 3000; ++change) {
        auto const module = *std::next(modules.begin(), long(random() % modules.size()));
        std::vector<std::string> keys = {"no-such-key"};
        for (auto const& parameter : module->getDescriptor()->getParameters())
            keys.push_back(parameter.getKey());
        std::array<std::string, 3> const one{module->getID().str(), pick(keys), pick(values)};
        try {
            if (change % 2)
                service->handleSetParameter(one[0].c_str(), one[1].c_str(), one[2].c_str());
            else
                service->handleSetParameters(tuples({one}).get());
        } catch (...) {
            // Refusals are part of the storm; the module keeps what it had.
        }
        Testing::runPendingMainLoopJobs();
    }
    stop = true;
    audio.join();

    service->handleSetParameters(tuples(setsOfTheFile(changed.config())).get());
    Testing::EveryTypeChain fresh;
    for (unsigned int period = 0; period < 40; ++period) {
        auto const left = Testing::noise(256, 2 * period, int64_t(1) << 25);
        auto const right = Testing::noise(256, 2 * period + 1, int64_t(1) << 25);
        ASSERT_TRUE(changed.process(left, right) == fresh.process(left, right)) << "period " << period;
    }
    g_object_unref(connection);
}

// The service re-applies every module's set, so the pattern in force arrives again and again; once a
// no-op set emptied the period it arrived in.
TEST(ParameterPathTest, TheSameSetArrivingWhilePeriodsRunNeverEmptiesOne)
{
    Chain chain(48000, TEST_SOURCE_DIR "/data/passthrough.xml");
    Testing::MemoryAlsaBuffers capture(2), playback(2);
    auto const output = Testing::attachHostBuffers(chain, capture, playback);
    output->setMute(false);
    for (unsigned int channel = 0; channel < 2; ++channel)
        capture.getChannel(channel).setPeriod(std::vector<tSample>(64, tSample(0.5)));
    std::atomic<bool> stop{false};
    std::atomic<int> emptied{0};
    std::thread audio([&] {
        while (!stop.load()) {
            playback.getChannel(1).samples[63] = tSample::s_Zero;
            chain.process();
            emptied += playback.getChannel(1).samples[63] != tSample(0.5);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        output->applyParameters(Parameters{{"interleave-pattern", "01"}}, 48000);
        Testing::runPendingMainLoopJobs();
    }
    stop = true;
    audio.join();
    EXPECT_EQ(emptied.load(), 0);
}

// Loading and compiling once grew with the square of the module count (timed in ChainLoadBench).
TEST(ParameterPathTest, TenThousandModulesInSeriesLoadInSignalFlowOrder)
{
    std::string config =
        "<dsp><module type=\"input\" id=\"in\"/><module type=\"output\" id=\"out\"><parameter "
        "id=\"interleave-pattern\">01</parameter></module>";
    std::string previous = "in[0]";
    for (int i = 0; i < 10000; ++i) {
        std::string const id = "g" + std::to_string(i);
        config +=
            "<module type=\"gain\" id=\"" + id + "\"/><cable out=\"" + previous + "\" in=\"" + id + "[0]\"/>";
        previous = id + "[0]";
    }
    config += "<cable out=\"" + previous + "\" in=\"out[0]\"/><cable out=\"in[1]\" in=\"out[1]\"/></dsp>";
    Testing::TemporaryDirectory dir;
    Chain chain(48000, dir.write("series.xml", config));
    EXPECT_EQ(chain.getModules().front()->getID(), "in");
    EXPECT_EQ(std::next(chain.getModules().begin(), 10000)->get()->getID(), "g9999");
    EXPECT_EQ(chain.getModules().back()->getID(), "out");
}

// A change of one key on a volume-adaptive module once replaced its curve by the number in force.
TEST(ParameterPathTest, OneKeyChangedOnAVolumeAdaptiveModuleKeepsItsCurve)
{
    Testing::LogCapture quiet(7);
    std::shared_ptr<Module> limiter(ModuleFactory::get().createModule("adaptive-limiter", "m"));
    limiter->setParameters({{"attack", "1"}, {"release", "50"}, {"threshold", "-60=-12,0=-6"}}, 48000);
    limiter->setParameter("attack", "5");
    EXPECT_EQ(limiter->getConfiguredParameters().getString("threshold"), "-60=-12,0=-6");
    std::dynamic_pointer_cast<AdaptiveLimiter>(limiter)->setControlGain(-30.0);
    EXPECT_EQ(limiter->getParameters().getString("threshold"), "-9.000000");
    std::shared_ptr<Module> biquad(ModuleFactory::get().createModule("adaptive-biquad", "m"));
    biquad->setParameters({{"type", "peak"}, {"frequency", "1000"}, {"q", "1"}, {"gain", "-60=9,0=0"}},
                          48000);
    biquad->setParameter("q", "2");
    EXPECT_EQ(biquad->getParameters().getString("gain"), "-60=9,0=0");
    EXPECT_EQ(biquad->Module::getParameters().getString("gain"), "9.000000");
}
