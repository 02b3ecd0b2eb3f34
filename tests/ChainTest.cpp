#include "dsp/Chain.h"
#include "base/Tracer.h"
#include "dsp/ChainPrinter.h"
#include "dsp/Gain.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/Meter.h"
#include "dsp/Module.h"
#include "dsp/ModuleFactory.h"
#include "dsp/ParsingException.h"
#include "dsp/StereoBiQuad.h"
#include "dsp/StereoWrapper.h"
#include "dsp/ThreeBandStereoEQ.h"
#include "support/DataFile.h"
#include "support/LoadedChain.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;
using Testing::constant;
using Testing::thrownMessage;

namespace {

// The ids in processing order, each followed by a blank.
std::string idsInOrder(Chain const& chain)
{
    std::string ids;
    for (auto const& module : chain.getModules())
        ids += module->getID().str() + " ";
    return ids;
}

Parameters const c_pattern{{"interleave-pattern", "01"}};

} // namespace

TEST(ChainTest, PassesAudioFromInputToOutputAndPrintsMetersOnceAsked)
{
    Testing::LoadedChain passthrough("passthrough.xml");
    Chain& chain = passthrough.chain();
    auto const out = passthrough.process(constant(256, tSample(-0.5)), constant(256, tSample(0.75)));
    EXPECT_EQ(std::make_pair(out[255], out[511]), std::make_pair(tSample(-0.5), tSample(0.75)));
    EXPECT_FLOAT_EQ(chain.findModule("in")->getStoredMeter(0), 0.0f) << "meters start disabled";
    // The meter module holds the loudest level of either sign until it is read.
    auto const level = std::dynamic_pointer_cast<Meter>(chain.findModule("level"));
    passthrough.process(constant(256, tSample(0.25)), constant(256, tSample(0.125)));
    EXPECT_FLOAT_EQ(level->exchange(0.0f), 0.5f);

    passthrough.output().initialMute();
    testing::internal::CaptureStdout();
    chain.printMeters();
    chain.process();
    chain.printMeters();
    EXPECT_FLOAT_EQ(level->exchange(0.0f), 0.25f);
    std::string const printed = testing::internal::GetCapturedStdout();
    std::string const name = Tools::Tracer::getProcessName().str();
    for (char const* line :
         {" in[0] = 0.000000\n", " in[0] = 0.250000\n", " in[1] = 0.125000\n", " output is MUTED\n"})
        EXPECT_NE(printed.find(name + line), std::string::npos) << line;
}

// Depth first from the sinks, which are taken in insertion order.
TEST(ChainTest, SortsBySignalFlowSplitsShortcutsIntoOneWirePerPortAndNamesWiringFaults)
{
    Chain chain(48000);
    chain.addModule("meter", "m2");
    chain.addModule("output", "out")->setParameters(c_pattern, 48000);
    chain.addModule("meter", "m1");
    chain.addModule("input", "in");
    chain.pullWire("m1[0]", "in[1]");
    chain.pullWire("m2[0]", "in[0]");
    chain.pullWire("out", "in");
    chain.compile();
    EXPECT_EQ(idsInOrder(chain), "in m2 out m1 ");
    EXPECT_EQ(chain.getWires().count("out"), 0u);
    EXPECT_EQ(chain.getWires().at("out[1]"), "in[1]");
    chain.compile();
    EXPECT_EQ(idsInOrder(chain), "in m2 out m1 ") << "compiling twice is safe";

    EXPECT_EQ(thrownMessage<ParsingException>([&] { chain.findModule("x"); }),
              "chain does not contain a module with ID x!");
    EXPECT_EQ(chain.tryFindModule("x"), nullptr);
    EXPECT_EQ(thrownMessage<ParsingException>([&] { chain.parseWireModule("m"); }),
              "something is wrong with the port spec - should be moduleid[portnum]: m\n");
    EXPECT_EQ(thrownMessage<ParsingException>([&] { chain.parseWirePort("m"); }),
              "something is wrong with the port spec - should be moduleid[portnum]: m");
    EXPECT_THROW(chain.parseWirePort("m[x]"), std::invalid_argument);
    EXPECT_EQ(chain.parseWirePort("m[12"), 12u);
    chain.pullWire("m1[0]", "in");
    EXPECT_EQ(thrownMessage<ParsingException>([&] { chain.compile(); }),
              "something is wrong with the port spec - should be moduleid[portnum]: in\n");
    chain.pullWire("m1[0]", "gone[0]");
    EXPECT_EQ(thrownMessage<ParsingException>([&] { chain.compile(); }),
              "Module for portSpec gone[0] does not exist");
    chain.pullWire("m1[0]", "in[1]");
    EXPECT_NO_THROW(chain.compile()) << "the later source of an input replaced the earlier";
}

// The wrapper's second input reaches its right module.
TEST(ChainTest, ExclusiveInputsRunInPlaceSharedOutputsDoNotAndAWrapperSplitsItsPorts)
{
    Chain chain(48000);
    chain.addModule("output", "out")->setParameters(c_pattern, 48000);
    auto solo = chain.addModule("gain", "solo");
    auto shared = chain.addModule("gain", "shared");
    auto in = chain.addModule("input", "in");
    auto levels = std::dynamic_pointer_cast<StereoWrapper>(chain.addStereoModule("meter", "levels"));
    chain.pullWire("solo[0]", "in[0]");
    chain.pullWire("shared[0]", "in[1]");
    chain.pullWire("levels[0]", "in[1]");
    chain.pullWire("levels[1]", "solo[0]");
    chain.pullWire("out[0]", "solo[0]");
    chain.pullWire("out[1]", "shared[0]");
    chain.compile();
    EXPECT_EQ(idsInOrder(chain), "in solo shared out levels ");
    EXPECT_EQ(solo->getOutPortBuffer(0), in->getOutPortBuffer(0));
    EXPECT_NE(shared->getOutPortBuffer(0), in->getOutPortBuffer(1));
    EXPECT_TRUE(chain.isExclusiveOutportUser("solo[0]", "in[0]"));
    EXPECT_FALSE(chain.isExclusiveOutportUser("shared[0]", "in[1]"));
    std::vector<Tools::String> gains;
    Chain::forModule<Gain>(chain.getModules(),
                           [&](std::shared_ptr<Module> const& m) { gains.push_back(m->getID()); });
    EXPECT_EQ(gains, std::vector<Tools::String>({"solo", "shared"}));

    in->getOutPortBuffer(0)->getRawData()[0] = tSample(0.75);
    levels->process();
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(levels->getRight())->exchange(0.0f), 0.75f);
    EXPECT_FLOAT_EQ(std::dynamic_pointer_cast<Meter>(levels->getLeft())->exchange(0.0f), 0.0f);
}

TEST(ChainTest, FactoryMakesExactlyTheDocumentedTypesAndTheirStereoForms)
{
    std::vector<std::string> names;
    for (auto const& name : ModuleFactory::get().getTypeNames())
        names.push_back(name.str());
    EXPECT_EQ(names, Testing::readTable("module-types.txt").at(0));
    std::unique_ptr<Module> gain(ModuleFactory::get().createModule("gain", "g1"));
    EXPECT_TRUE(dynamic_cast<Gain*>(gain.get()) && gain->getID() == "g1" && gain->getType() == "gain");
    EXPECT_EQ(ModuleFactory::get().createModule("Gain", "g1"), nullptr);
    Chain chain(48000);
    EXPECT_EQ(thrownMessage<ParsingException>([&] { chain.addModule("Meter", "x"); }),
              "Module type Meter not found in module factory");
    EXPECT_EQ(thrownMessage<ParsingException>([&] { chain.addStereoModule("nothing", "x"); }),
              "Module type nothing not found in module factory");
    EXPECT_NE(std::dynamic_pointer_cast<StereoBiQuad>(chain.addStereoModule("biquad", "b")), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<ThreeBandStereoEQ>(chain.addStereoModule("equalizer", "e")), nullptr);
    auto const wrapper = std::dynamic_pointer_cast<StereoWrapper>(chain.addStereoModule("meter", "vol"));
    ASSERT_NE(wrapper, nullptr);
    EXPECT_EQ(wrapper->getType() + ": " + wrapper->getLeft()->getID() + " " + wrapper->getRight()->getID(),
              "stereo-wrapped meter: vol-left vol-right");
    EXPECT_EQ(std::make_pair(wrapper->getNumInPorts(), wrapper->getNumOutPorts()), std::make_pair(2u, 0u));
}

// The file may stop inside an element; a value the module would meet with a conversion error or an
// assertion is refused before it.
TEST(ChainParserTest, CollectsParametersPerModuleAppliesThemAfterTheWholeFileAndRefusesFaults)
{
    Chain chain(44100);
    chain.load(TEST_SOURCE_DIR "/data/parser-collects.xml", false);
    EXPECT_EQ(idsInOrder(chain), "in out late ") << "not compiled yet";
    auto const& out = chain.findModule("out")->getParameters();
    EXPECT_EQ(out.getString("interleave-pattern") + out.getString("note") + out.getString("stray"),
              "10 spaced ");
    EXPECT_EQ(chain.findModule("in")->getSampleRate(), 44100u)
        << "a module without parameters still gets a set";
    auto const late = std::dynamic_pointer_cast<StereoWrapper>(chain.findModule("late"));
    ASSERT_NE(late, nullptr);
    EXPECT_EQ(late->getLeft()->getParameters().getString("x") +
                  late->getRight()->getParameters().getString("x"),
              "11")
        << "both halves get the set";
    EXPECT_EQ(chain.getWires().at("late[0]"), "in[0]");
    chain.compile();
    EXPECT_EQ(chain.findModule("out")->getNumInPorts(), 2u);
    EXPECT_EQ(thrownMessage<IllegalArgumentException>(
                  [&] { Chain(48000, TEST_SOURCE_DIR "/data/gain-too-loud.xml"); }),
              "parameter gain of module g: must be below 24 dB, not 24");
    EXPECT_EQ(
        thrownMessage<ParsingException>([&] { Chain(48000, TEST_SOURCE_DIR "/data/unknown-type.xml"); }),
        "Module type equaliser not found in module factory");
}

TEST(ChainPrinterTest, DescribesEachWireAndHandsTheDescriptionToDot)
{
    Chain chain(48000);
    chain.addModule("input", "in-1")->setParameters(Parameters{{"b", "2"}, {"a", "1"}}, 48000);
    chain.addStereoModule("meter", "lvl");
    chain.addModule("output", "out")->setParameters(c_pattern, 48000);
    chain.pullWire("out[1]", "in-1[1]");
    chain.pullWire("out[0]", "in-1[0]");
    chain.pullWire("lvl", "in-1");
    chain.compile();
    std::string const header = "digraph signalflow {size=\"6,6\";node [style=\"filled, bold\" penwidth=1 "
                               "fillcolor=\"white\" fontname=\"Courier New\" shape=\"record\"];\n";
    std::string const source = "in_1 [label=\"input 'in-1'\\l  a=1\\l  b=2\\l\"]\n";
    // Wires in destination order; the sinks lvl and out get no description of their own.
    std::string const description =
        header + source + source + source + source + "in_1 -> lvl\nin_1 -> lvl\nin_1 -> out\nin_1 -> out\n}";
    EXPECT_EQ(ChainPrinter::describe(chain).str(), description);
    Chain empty(48000);
    empty.addModule("meter", "m");
    EXPECT_EQ(ChainPrinter::describe(empty).str(), header + "}");

    // The tool's graph test looks at the picture; here the text dot is given, and an output that
    // cannot be written, which is only logged.
    Testing::TemporaryDirectory dir;
    EXPECT_STREQ(ChainPrinter::c_dotFile, "/tmp/liborvandeldsp.dot");
    ChainPrinter::print(chain, "svg", dir.path("missing/chain.svg"), dir.path("chain.dot"));
    EXPECT_EQ(dir.read("chain.dot"), description);
}

namespace {

// A module whose port counts the test chooses, set up as a compiled chain would; process() does nothing.
class PortsModule : public Module
{
public:
    PortsModule(Tools::String const& id, unsigned int ins, unsigned int outs)
        : Module(id), ins(ins), outs(outs)
    {
        preSetup(m_chain, 1280);
    }
    unsigned int getNumOutPorts() const override { return outs; }
    unsigned int getNumInPorts() const override { return ins; }
    void process() override {}

    unsigned int ins, outs;
    Chain m_chain{48000};
};

// Counts live snapshots so that leaks and double frees show.
struct CountedSet : Module::ParameterSet
{
    explicit CountedSet(int v) : value(v) { ++s_alive; }
    ~CountedSet() override { --s_alive; }
    int value;
    inline static std::atomic<int> s_alive{0};
};

int current(Module& module)
{
    auto* set = static_cast<CountedSet*>(module.getCurrentParameterSet());
    return set ? set->value : 0;
}

} // namespace

TEST(ModuleTest, UntakenParameterSetsAreDiscardedAndReplacedOnesFreedOnTheMainLoop)
{
    {
        PortsModule module("m", 1, 1);
        EXPECT_EQ(current(module), 0);
        module.setFutureParameterSet(new CountedSet(1));
        module.setFutureParameterSet(new CountedSet(2));
        EXPECT_EQ(CountedSet::s_alive, 1) << "the set nobody took is deleted unseen";
        EXPECT_EQ(current(module), 2);
        EXPECT_EQ(current(module), 2);
        Testing::runPendingMainLoopJobs();
        EXPECT_EQ(CountedSet::s_alive, 1) << "no pending set: nothing replaced";

        module.setFutureParameterSet(new CountedSet(3));
        EXPECT_EQ(current(module), 3);
        EXPECT_EQ(CountedSet::s_alive, 2) << "the audio thread never frees";
        Testing::runPendingMainLoopJobs();
        EXPECT_EQ(CountedSet::s_alive, 1);
        module.setFutureParameterSet(new CountedSet(4));
    }
    EXPECT_EQ(CountedSet::s_alive, 0);
}

TEST(ModuleTest, HandOffBetweenTwoThreadsLosesNothingAndGoesForward)
{
    PortsModule module("m", 1, 1);
    constexpr int sets = 20000;
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 1; i <= sets; ++i)
            module.setFutureParameterSet(new CountedSet(i));
        done = true;
    });
    int last = 0, backwards = 0;
    while (!done || last != sets) {
        int const now = current(module);
        backwards += now < last;
        last = std::max(now, last);
        Testing::runPendingMainLoopJobs();
    }
    control.join();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(backwards, 0);
    EXPECT_EQ(CountedSet::s_alive, 1) << "only the current set remains";
}

TEST(ModuleTest, PortsBuffersFlagsMetersAndTheirMessages)
{
    auto source = std::make_shared<PortsModule>("src", 0, 2);
    source->postSetup(1280);
    PortsModule module("a.b-c", 2, 2);
    EXPECT_EQ(module.getDotSafeID(), "a_b_c");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>([&] { module.setInPortBuffer(2, source, 0); }),
              "inport 2 of module a.b-c does not exist");
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { module.getInPort(1); }),
              "Input port 1 of module a.b-c is not connected!\n");
    EXPECT_THROW(module.postSetup(1280), ParsingException) << "in place, its inputs must be wired";
    module.setCompileFlag(7);
    EXPECT_THROW(module.setCompileFlag(8), std::out_of_range) << "eight flags";
    EXPECT_THROW(module.getCompileFlag(8), std::out_of_range);
    module.resetCompileFlags();
    EXPECT_FALSE(module.getCompileFlag(7));

    // In place on input 1 only: output 1 is the source's buffer, output 0 a fresh one.
    module.setInPortBuffer(0, source, 0);
    module.setInPortBuffer(1, source, 1);
    module.activeInPlaceProcessingForPort(1);
    module.postSetup(1280);
    EXPECT_EQ(module.getOutPortBuffer(1), source->getOutPortBuffer(1));
    EXPECT_NE(module.getOutPortBuffer(0), source->getOutPortBuffer(0));

    // Meters hold the peak until reset.
    module.allocateMeters();
    for (float level : {0.5f, 0.25f}) {
        module.getOutPortBuffer(0)->getRawData()[0] = tSample(level);
        module.storeMeters();
    }
    EXPECT_FLOAT_EQ(module.getStoredMeter(0), 0.5f);
    module.resetMeters();
    module.storeMeters();
    EXPECT_FLOAT_EQ(module.getStoredMeter(0), 0.25f);

    // One key changes on top of the stored set, at the stored rate.
    module.setParameters(Parameters{{"a", "1"}, {"b", "2"}}, 44100);
    module.setParameter("b", "3");
    EXPECT_EQ(module.getParameters().describe(), "  a=1\\l  b=3\\l");
    EXPECT_EQ(module.getSampleRate(), 44100u);
}

// A module leading to no sink, an unreadable or malformed file, and an in-place module whose inputs are
// fewer than its outputs end the process.
TEST(ChainDeathTest, CompilingLoadingAndSettingUpCatchWhatMustNotRun)
{
    // Reports equal counts but sized its inputs short, which postSetup must catch.
    struct Lopsided : PortsModule
    {
        Lopsided() : PortsModule("l", 1, 1) { outs = 2; }
        bool canProcessInPlace() const override { return true; }
    } module;
    auto source = std::make_shared<PortsModule>("src", 0, 1);
    source->postSetup(16);
    module.setInPortBuffer(0, source, 0);
    EXPECT_DEATH(module.postSetup(16), "m_ins.size\\(\\) > out");
    Chain chain(48000);
    chain.addModule("input", "orphan");
    chain.addModule("meter", "m");
    EXPECT_DEATH(chain.compile(), "countOfModules == m_modules.size\\(\\)");
    EXPECT_DEATH(Chain(48000, "/nonexistent/dsp.xml"), "Could not open dsp config file: ");
    EXPECT_DEATH(Chain(48000, TEST_SOURCE_DIR "/data/mismatched-tags.xml"),
                 "Could not parse dsp config file: ");
}
