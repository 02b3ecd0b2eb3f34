// The way parameters travel from the control thread to the audio thread, through the entry points the
// chain service offers, and the faults an audit found on it; the refusals themselves are tabled in
// ModuleDescriptorTest and the config check's in ChainCheckTest.
#include "dsp/AdaptiveLimiter.h"
#include "dsp/Chain.h"
#include "dsp/ChainCheck.h"
#include "dsp/ChainService.h"
#include "dsp/ConfigDocument.h"
#include "dsp/FlacEncoder.h"
#include "dsp/Gain.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/Module.h"
#include "dsp/ModuleDescriptor.h"
#include "dsp/ModuleFactory.h"
#include "dsp/OutputStage.h"
#include "support/DataFile.h"
#include "support/LoadedChain.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/PrivateDbus.h"
#include "support/TemporaryDirectory.h"
#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <thread>

using namespace Zelmar;
using Testing::runMainLoopUntil;

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

// Every key's default but the one left out.
Parameters defaultsOf(ModuleDescriptor const& type, std::string const& leftOut = "")
{
    Parameters defaults;
    for (auto const& parameter : type.getParameters())
        if (parameter.getKey() != leftOut)
            defaults.set(parameter.getKey(), parameter.getDefault());
    return defaults;
}

// The refusal's message, or "accepted".
std::string verdict(Tools::String const& type, Parameters const& parameters)
{
    std::unique_ptr<Module> module(ModuleFactory::get().createModule(type, "m"));
    try {
        module->validateParameters(parameters, 48000);
    } catch (IllegalArgumentException const& e) {
        return e.getMessage().str();
    }
    return "accepted";
}

// Every module's whole set as the config file gives it, with the defaults of the keys it leaves out.
std::vector<std::array<std::string, 3>> setsOfTheFile(std::string const& path)
{
    std::vector<std::array<std::string, 3>> sets;
    ConfigDocument const document = ConfigDocument::read(path);
    for (auto const& declared : document.getModules()) {
        Parameters set = defaultsOf(*ModuleFactory::get().findDescriptor(declared.type));
        for (auto const& [key, value] : declared.parameters.getParams())
            set.set(key, value);
        for (auto const& [key, value] : set.getParams())
            sets.push_back({declared.id.str(), key.str(), value.str()});
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
    Testing::LoadedChain changed("every-type.xml");
    auto const service = std::make_unique<ChainService>(changed.chain(), connection);
    std::vector<std::string> values = Testing::readTable("parameter-values.txt").at(0);
    values.push_back(changed.scratch());
    std::mt19937 random(19);
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
        auto const& parameters = module->getDescriptor()->getParameters();
        size_t const k = random() % (parameters.size() + 1);
        std::string const key = k < parameters.size() ? parameters[k].getKey() : "no-such-key";
        std::array<std::string, 3> const one{module->getID().str(), key, values[random() % values.size()]};
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
    // The control side switches the meters and reads the fade while the audio runs, with nothing in
    // between that would order it against the audio thread: the sanitizer sees any plain word shared.
    OutputStage* const output = &changed.output();
    for (int i = 0; i < 20000; ++i) {
        changed.chain().enableMeters(i % 2);
        if (i % 2000 == 0)
            output->setMute(i % 4000 == 0);
        (void)(output->isMuting() || output->isFading());
    }
    output->setMute(false);
    changed.chain().enableMeters(false);
    // Unmuted as it was, once the fade back up has run out.
    while (output->isFading())
        std::this_thread::yield();
    stop = true;
    audio.join();

    service->handleSetParameters(tuples(setsOfTheFile(changed.config())).get());
    Testing::LoadedChain fresh("every-type.xml");
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
    Testing::LoadedChain passthrough("passthrough.xml");
    auto& playback = passthrough.playback;
    for (unsigned int channel = 0; channel < 2; ++channel)
        passthrough.capture.getChannel(channel).setPeriod(std::vector<tSample>(64, tSample(0.5)));
    std::atomic<bool> stop{false};
    std::atomic<int> emptied{0};
    std::thread audio([&] {
        while (!stop.load()) {
            playback.getChannel(1).samples[63] = tSample::s_Zero;
            passthrough.chain().process();
            emptied += playback.getChannel(1).samples[63] != tSample(0.5);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        passthrough.output().applyParameters(Parameters{{"interleave-pattern", "01"}}, 48000);
        Testing::runPendingMainLoopJobs();
    }
    stop = true;
    audio.join();
    EXPECT_EQ(emptied.load(), 0);
}

// A change of one key on a volume-adaptive module once replaced its curve by the number in force. The
// biquad shares the limiter's volume-adaptive base; how it reports its curve, AdaptiveBiquadTest shows.
TEST(ParameterPathTest, OneKeyChangedOnAVolumeAdaptiveModuleKeepsItsCurve)
{
    Testing::LogCapture quiet(7);
    std::shared_ptr<Module> limiter(ModuleFactory::get().createModule("adaptive-limiter", "m"));
    limiter->setParameters({{"attack", "1"}, {"release", "50"}, {"threshold", "-60=-12,0=-6"}}, 48000);
    limiter->setParameter("attack", "5");
    EXPECT_EQ(limiter->getConfiguredParameters().getString("threshold"), "-60=-12,0=-6");
    std::dynamic_pointer_cast<AdaptiveLimiter>(limiter)->setControlGain(-30.0);
    EXPECT_EQ(limiter->getParameters().getString("threshold"), "-9.000000");
}

// A required key's default is its example, so every type's defaults make a set it accepts.
TEST(ModuleDescriptorTest, DefaultsAreAcceptedPortsAsDescribedAndRefusalsSayWhy)
{
    Testing::LogCapture quiet(7);
    for (auto const& [name, type] : ModuleFactory::get().getDescriptors()) {
        SCOPED_TRACE(name);
        Parameters const defaults = defaultsOf(type);
        EXPECT_EQ(verdict(name, defaults), "accepted");
        std::unique_ptr<Module> module(ModuleFactory::get().createModule(name, "m"));
        EXPECT_EQ(module->getDescriptor(), &type);
        EXPECT_EQ(module->getNumOutPorts(), type.getNumOutPorts());
        EXPECT_EQ(module->getNumInPorts(), type.getInPortsKey() ? 0 : type.getNumInPorts(defaults))
            << "an output stage has its ports once its pattern is set";
        for (auto const& parameter : type.getParameters())
            if (parameter.isRequired()) {
                EXPECT_EQ(verdict(name, defaultsOf(type, parameter.getKey())),
                          std::string("parameter ") + parameter.getKey() +
                              " of module m: is required (for example \"" + parameter.getDefault() + "\")");
            }
    }
    for (auto const& row : Testing::readTable("parameter-refusals.txt")) {
        SCOPED_TRACE(row[0] + " " + row[1]);
        Parameters set = defaultsOf(*ModuleFactory::get().findDescriptor(row[0]));
        for (auto const& change : Testing::split(row[1], ";")) {
            auto const equals = change.find('=');
            set.set(change.substr(0, equals), change.substr(equals + 1));
        }
        EXPECT_EQ(verdict(row[0], set), row[2]);
    }
}

// How the check sees wiring and structure the way compiling will; the tool's tests cover what a user
// meets first (empty and malformed files, stages, values, places).
TEST(ChainCheckTest, SeesTheChainAsLoadingWouldBuildIt)
{
    struct Case
    {
        std::string config = "<dsp><module type=\"input\" id=\"in\"/>\n<module type=\"output\" id=\"out\">"
                             "<parameter id=\"interleave-pattern\">01</parameter></module>\n";
        std::vector<std::string> problems;
    };
    std::vector<Case> cases;
    std::ifstream file(TEST_SOURCE_DIR "/data/chain-checks.txt");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("== ", 0) == 0)
            cases.emplace_back().config += line.substr(3) + "\n";
        else if (line.rfind("-> ", 0) == 0)
            cases.back().problems.push_back(line.substr(3));
        else if (!line.empty() && line[0] != '#')
            cases.back().config += line + "\n";
    }
    ASSERT_EQ(cases.size(), 7u);
    Testing::TemporaryDirectory dir;
    Testing::LogCapture quiet(7);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.config);
        std::string const path = dir.write("c.xml", c.config);
        auto const problems = ChainCheck::check(path, 48000);
        std::vector<std::string> described;
        for (auto const& problem : problems)
            described.push_back(problem.describe().substr(path.size() + 1));
        EXPECT_EQ(described, c.problems);
        // A config without errors is one the library loads.
        if (!ChainCheck::hasErrors(problems)) {
            EXPECT_NO_THROW(Chain(48000, path));
        }
    }
}

namespace {

struct Reply
{
    bool done = false;
    std::string error;
    int code = -1;
};

// The service on a private bus, called by a client of its own while the test iterates the main loop.
class ChainServiceTest : public ::testing::Test
{
protected:
    void serve()
    {
        m_service = std::make_unique<ChainService>(m_chain, m_serverConnection.get());
        ASSERT_TRUE(runMainLoopUntil([&] { return m_service->isServiceReady(); }));
    }

    Reply call(char const* method, GVariant* arguments, char const* replyType = "()")
    {
        Reply reply;
        g_dbus_connection_call(
            m_client.get(), ChainService::c_busName, ChainService::c_objectPath,
            ChainService::c_interfaceName, method, arguments, G_VARIANT_TYPE(replyType),
            G_DBUS_CALL_FLAGS_NONE, 5000, nullptr,
            [](GObject* source, GAsyncResult* result, gpointer data) {
                auto* r = static_cast<Reply*>(data);
                GError* error = nullptr;
                if (GVariant* value =
                        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, &error))
                    g_variant_unref(value);
                if (error) {
                    g_dbus_error_strip_remote_error(error);
                    r->error = error->message;
                    r->code = error->domain == G_DBUS_ERROR ? error->code : -1;
                    g_error_free(error);
                }
                r->done = true;
            },
            &reply);
        EXPECT_TRUE(runMainLoopUntil([&] { return reply.done; }));
        return reply;
    }

    Reply set(std::vector<std::array<std::string, 3>> const& entries)
    {
        return call("SetParameters", g_variant_new("(@a(sss))", ::tuples(entries).get()));
    }

    // A system bus with the installed policy, which must let root own the service's name.
    Testing::PrivateDbus m_bus{TEST_SOURCE_DIR "/data/chain-policy-bus.conf"};
    // Declared before the service, so that they outlive it.
    std::unique_ptr<GDBusConnection, decltype(&g_object_unref)> m_serverConnection{m_bus.connect(),
                                                                                   g_object_unref},
        m_client{m_bus.connect(), g_object_unref};
    Chain m_chain{48000};
    std::unique_ptr<ChainService> m_service;
};

} // namespace

// The messages of refusals are the descriptors' (ModuleDescriptorTest); here how they travel.
TEST_F(ChainServiceTest, SetsParametersThatReachTheModulesAndRefusesBadOnes)
{
    auto const gain = m_chain.addModule("gain", "volume");
    auto const other = m_chain.addModule("gain", "other");
    auto const gainOf = [](auto const& module) {
        return std::dynamic_pointer_cast<Gain>(module)->getTargetGain().toFloat();
    };
    other->setParameters(Parameters{{"gain", "-6"}, {"note", "kept"}}, 48000);
    serve();
    EXPECT_EQ(call("SetParameter", g_variant_new("(sss)", "volume", "gain", "-12")).error, "");
    EXPECT_FLOAT_EQ(gainOf(gain), 0.25f);
    EXPECT_FALSE(m_service->isChainReady());
    // What the refusal says and that the sound keeps its level, the tool's control tests show.
    Reply refused = call("SetParameter", g_variant_new("(sss)", "volume", "gain", "24"));
    EXPECT_EQ(refused.code, G_DBUS_ERROR_INVALID_ARGS);

    // Unknown modules are skipped silently by both methods; a refusing module keeps its set while the
    // others of the same call get theirs.
    EXPECT_EQ(call("SetParameter", g_variant_new("(sss)", "nowhere", "gain", "1")).error, "");
    refused = set({{"nowhere", "gain", "3"}, {"other", "gain", "6"}, {"volume", "gain", "48"}});
    EXPECT_EQ(refused.code, G_DBUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(std::vector<float>({gainOf(gain), gainOf(other)}), std::vector<float>({0.25f, 2.0f}));
    EXPECT_EQ(other->getParameters().getString("note"), "kept");
    EXPECT_EQ(set({{"other", "gain", "6"}}).error, "");
    EXPECT_TRUE(m_service->isChainReady());

    // An empty array re-applies what every module has.
    std::dynamic_pointer_cast<Gain>(other)->fadeTo(tSample(0.0));
    EXPECT_EQ(set({}).error, "");
    EXPECT_FLOAT_EQ(gainOf(other), 2.0f);
}

TEST_F(ChainServiceTest, PlaysAndLoopsSoundsAndRefusesInvalidOnes)
{
    Testing::LogCapture log;
    serve();
    auto const plays = [&] {
        return log.count("4 SystemSoundsPlayer::play(): could not find module system-sounds");
    };
    for (int sound : {10, -1}) {
        Reply r = call("PlaySystemSound", g_variant_new("(i)", sound));
        EXPECT_EQ(std::make_pair(r.code, r.error),
                  std::make_pair(int(G_DBUS_ERROR_INVALID_ARGS), std::string("unable to play system sound")));
        r = call("LoopSystemSound", g_variant_new("(iu)", sound, 100u), "(u)");
        EXPECT_EQ(r.error, "unable to loop system sound");
        // Counted, not read off the end: the daemon client's notice of a missing bus may come in between.
        std::string const start =
            "4 ChainService: " + std::to_string(sound) + " is not a valid system sound to be ";
        EXPECT_EQ(std::make_pair(log.count(start + "played"), log.count(start + "looped")),
                  std::make_pair(1L, 1L));
    }
    EXPECT_EQ(call("LoopSystemSound", g_variant_new("(iu)", 3, 0u), "(u)").error,
              "unable to loop system sound: an interval of 0 ms is shorter than 100 ms");
    EXPECT_EQ(call("PlaySystemSound", g_variant_new("(i)", 4)).error, "");
    EXPECT_EQ(plays(), 1);

    // A loop asked for before the chain is configured waits for the first set-parameters call.
    // That a stopped loop plays no more, the tool's control tests hear on a served chain.
    EXPECT_EQ(call("LoopSystemSound", g_variant_new("(iu)", 3, 100u), "(u)").error, "");
    runMainLoopUntil([] { return false; }, std::chrono::milliseconds(250));
    EXPECT_EQ(plays(), 1);
    EXPECT_EQ(set({}).error, "");
    EXPECT_TRUE(runMainLoopUntil([&] { return plays() >= 3; }));
}
