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

// A module whose port counts the test chooses; process() does nothing.
class PortsModule : public Module
{
public:
    PortsModule(Tools::String const& id, unsigned int ins, unsigned int outs)
        : Module(id), m_numIns(ins), m_numOuts(outs)
    {
    }
    unsigned int getNumOutPorts() const override { return m_numOuts; }
    unsigned int getNumInPorts() const override { return m_numIns; }
    void process() override {}

private:
    unsigned int m_numIns;
    unsigned int m_numOuts;
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

} // namespace

TEST(ModuleTest, UntakenParameterSetsAreDiscardedAndReplacedOnesFreedOnTheMainLoop)
{
    {
        PortsModule module("m", 1, 1);
        EXPECT_EQ(module.getCurrentParameterSet(), nullptr);
        module.setFutureParameterSet(new CountedSet(1));
        module.setFutureParameterSet(new CountedSet(2));
        EXPECT_EQ(CountedSet::s_alive, 1) << "the set nobody took is deleted unseen";
        EXPECT_EQ(static_cast<CountedSet*>(module.getCurrentParameterSet())->value, 2);
        EXPECT_EQ(static_cast<CountedSet*>(module.getCurrentParameterSet())->value, 2);
        Testing::runPendingMainLoopJobs();
        EXPECT_EQ(CountedSet::s_alive, 1);

        module.setFutureParameterSet(new CountedSet(3));
        EXPECT_EQ(static_cast<CountedSet*>(module.getCurrentParameterSet())->value, 3);
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
    int last = 0;
    while (!done || last != sets) {
        if (auto* current = static_cast<CountedSet*>(module.getCurrentParameterSet())) {
            ASSERT_GE(current->value, last);
            last = current->value;
        }
        Testing::runPendingMainLoopJobs();
    }
    control.join();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(CountedSet::s_alive, 1) << "only the current set remains";
}

TEST(ModuleTest, PortsFlagsAndMessages)
{
    Chain chain(48000);
    auto source = std::make_shared<PortsModule>("src", 0, 2);
    PortsModule module("a.b-c", 2, 2);
    module.preSetup(chain, 1280);
    source->preSetup(chain, 1280);
    EXPECT_EQ(module.getDotSafeID(), "a_b_c");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>([&] { module.setInPortBuffer(2, source, 0); }),
              "inport 2 of module a.b-c does not exist");
    EXPECT_EQ(Testing::thrownMessage<ParsingException>([&] { module.getInPort(1); }),
              "Input port 1 of module a.b-c is not connected!\n");
    module.setCompileFlag(7);
    EXPECT_TRUE(module.getCompileFlag(7));
    EXPECT_THROW(module.setCompileFlag(8), std::out_of_range);
    EXPECT_THROW(module.getCompileFlag(8), std::out_of_range);
    module.resetCompileFlags();
    EXPECT_FALSE(module.getCompileFlag(7));
}

TEST(ModuleTest, InPlaceOutputsShareTheSourceBufferOthersGetTheirOwn)
{
    Chain chain(48000);
    auto source = std::make_shared<PortsModule>("src", 0, 2);
    PortsModule module("m", 2, 2);
    source->preSetup(chain, 1280);
    module.preSetup(chain, 1280);
    source->postSetup(1280);
    module.setInPortBuffer(0, source, 0);
    module.setInPortBuffer(1, source, 1);
    module.activeInPlaceProcessingForPort(1);
    module.postSetup(1280);
    EXPECT_EQ(module.getOutPortBuffer(1), source->getOutPortBuffer(1));
    EXPECT_NE(module.getOutPortBuffer(0), source->getOutPortBuffer(0));
    EXPECT_EQ(module.getOutPortBuffer(0)->getNumSampleFramesCapacity(), 1280u);
    EXPECT_EQ(module.getInPort(1), source->getOutPortBuffer(1));

    PortsModule unwired("u", 1, 1);
    unwired.preSetup(chain, 1280);
    EXPECT_THROW(unwired.postSetup(1280), ParsingException);
}

TEST(ModuleTest, MetersHoldThePeakUntilReset)
{
    Chain chain(48000);
    PortsModule module("m", 0, 1);
    module.preSetup(chain, 4);
    module.postSetup(4);
    module.allocateMeters();
    module.getOutPortBuffer(0)->getRawData()[0] = tSample(0.5);
    module.storeMeters();
    module.getOutPortBuffer(0)->getRawData()[0] = tSample(0.25);
    module.storeMeters();
    EXPECT_FLOAT_EQ(module.getStoredMeter(0), 0.5f);
    module.resetMeters();
    module.storeMeters();
    EXPECT_FLOAT_EQ(module.getStoredMeter(0), 0.25f);
}

TEST(ModuleTest, SetParameterAppliesOneKeyOnTopOfTheStoredSet)
{
    PortsModule module("m", 1, 1);
    module.setParameters(Parameters{{"a", "1"}, {"b", "2"}}, 44100);
    module.setParameter("b", "3");
    EXPECT_EQ(module.getParameters().describe(), "  a=1\\l  b=3\\l");
    EXPECT_EQ(module.getSampleRate(), 44100u);
}

TEST(ModuleDeathTest, InPlaceModuleWithFewerInputsThanOutputsAsserts)
{
    // Reports equal counts but sized its inputs short, which postSetup must catch.
    class Lopsided : public PortsModule
    {
    public:
        Lopsided() : PortsModule("l", 1, 1) {}
        bool canProcessInPlace() const override { return true; }
        unsigned int getNumOutPorts() const override { return 2; }
    };
    Chain chain(48000);
    auto source = std::make_shared<PortsModule>("src", 0, 1);
    source->preSetup(chain, 16);
    source->postSetup(16);
    Lopsided module;
    module.preSetup(chain, 16);
    module.setInPortBuffer(0, source, 0);
    EXPECT_DEATH(module.postSetup(16), "m_ins.size\\(\\) > out");
}
