#include "dsp/Module.h"

#include "dsp/Chain.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/ParsingException.h"
#include "support/MainLoop.h"
#include "support/Thrown.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

using namespace Zelmar;

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
    static std::atomic<int> s_alive;
};
std::atomic<int> CountedSet::s_alive{0};

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
    EXPECT_TRUE(module.getCompileFlag(7));
    EXPECT_THROW(module.setCompileFlag(8), std::out_of_range);
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
    EXPECT_EQ(module.getOutPortBuffer(0)->getNumSampleFramesCapacity(), 1280u);
    EXPECT_EQ(module.getInPort(1), source->getOutPortBuffer(1));

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

TEST(ModuleDeathTest, InPlaceModuleWithFewerInputsThanOutputsAsserts)
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
}
