#include "dsp/ModuleDescriptor.h"

#include "dsp/IllegalArgumentException.h"
#include "dsp/Module.h"
#include "dsp/ModuleFactory.h"
#include "dsp/ParsingException.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>
#include <memory>

using namespace Zelmar;

namespace {

Parameters defaultsOf(ModuleDescriptor const& type)
{
    Parameters defaults;
    for (auto const& parameter : type.getParameters())
        defaults.set(parameter.getKey(), parameter.getDefault());
    return defaults;
}

// The refusal's message, or "accepted".
std::string verdict(char const* type, Parameters const& parameters)
{
    std::unique_ptr<Module> module(ModuleFactory::get().createModule(type, "m"));
    try {
        module->validateParameters(parameters, 48000);
    } catch (IllegalArgumentException const& e) {
        return e.getMessage().str();
    }
    return "accepted";
}

} // namespace

// A required key's default is its example, so every type's defaults make a set it accepts.
TEST(ModuleDescriptorTest, DefaultsAreAcceptedRequiredKeysMissedAndPortsAsDescribed)
{
    Testing::LogCapture quiet(7);
    for (auto const& [name, type] : ModuleFactory::get().getDescriptors()) {
        SCOPED_TRACE(name);
        Parameters const defaults = defaultsOf(type);
        EXPECT_EQ(verdict(name.c_str(), defaults), "accepted");
        std::unique_ptr<Module> module(ModuleFactory::get().createModule(name, "m"));
        EXPECT_EQ(module->getDescriptor(), &type);
        EXPECT_EQ(module->getNumOutPorts(), type.getNumOutPorts());
        EXPECT_EQ(module->getNumInPorts(), type.getInPortsKey() ? 0 : type.getNumInPorts(defaults))
            << "an output stage has its ports once its pattern is set";
        for (auto const& parameter : type.getParameters()) {
            if (!parameter.isRequired())
                continue;
            Parameters without;
            for (auto const& [key, value] : defaults.getParams())
                if (key != parameter.getKey())
                    without.set(key, value);
            EXPECT_EQ(verdict(name.c_str(), without), std::string("parameter ") + parameter.getKey() +
                                                          " of module m: is required (for example \"" +
                                                          parameter.getDefault() + "\")");
        }
    }
}

// Each range the descriptors enforce, just outside, and the values a module has a rule for, which the
// config check reports instead.
TEST(ModuleDescriptorTest, ValuesOutsideTheRangeAreRefusedWithTheirMessage)
{
    struct Case
    {
        char const* type;
        char const* key;
        char const* value;
        char const* message; // after "parameter KEY of module m: "
    };
    Case const cases[] = {
        {"gain", "gain", "24", "must be below 24 dB, not 24"},
        {"gain", "gain", "two", "\"two\" is not a number"},
        {"gain", "gain", "1e999", "\"1e999\" is out of the range of a number"},
        {"gain", "gain", "inf", "must be a finite number, not \"inf\""},
        {"limiter", "attack", "-5", "must be at least 0 ms, not -5"},
        {"limiter", "release", "-0.001", "must be at least 0 ms, not -0.001"},
        {"limiter", "threshold", "24", "must be below 24 dB, not 24"},
        {"biquad", "type", "LoPass",
         "must be one of lopass, hipass, bandpass, notch, peak, loshelf, hishelf, passthru, not \"LoPass\""},
        {"biquad", "frequency", "0", "must be above 0 Hz, not 0"},
        {"biquad", "q", "-1", "must be at least 0, not -1"},
        {"adaptive-biquad", "gain", "9", "needs at least one breakpoint \"volume=value\", not \"9\""},
        {"adaptive-biquad", "gain", "-5000=0",
         "the breakpoint \"-5000=0\" is out of range: volumes and values must lie between -4096 and 4096"},
        {"adaptive-biquad", "gain", "=3", "the breakpoint \"=3\" lacks a number"},
        {"adaptive-limiter", "threshold", "-60=24,0=0",
         "the value of \"-60=24\" must be below 24 dB, not 24"},
        {"delay", "delay", "-1", "must be at least 0 us, not -1"},
        {"delay", "delay", "2147483648", "\"2147483648\" is out of the range of a whole number"},
        {"dump-samples", "directory", "", "must not be empty"},
        {"output", "interleave-pattern", "0 1", "must be decimal digits, not \"0 1\""},
        {"resampler", "source-rate", "0", "must be above 0 Hz, not 0"},
        {"signal-detector", "signal-threshold", "-inf", "must be a finite number, not \"-inf\""},
        {"switch", "selected-port", "5", nullptr},
        {"patchbay", "routing", "quadraphonic", nullptr},
        {"biquad", "frequency", "30000", nullptr},
    };
    Testing::LogCapture quiet(7);
    for (Case const& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.key + " " + c.value);
        Parameters set = defaultsOf(*ModuleFactory::get().findDescriptor(c.type));
        set.set(c.key, c.value);
        EXPECT_EQ(verdict(c.type, set),
                  c.message ? std::string("parameter ") + c.key + " of module m: " + c.message : "accepted");
    }
}

// What only a design or the compiled module can tell, the module checks itself.
TEST(ModuleDescriptorTest, ModulesRefuseWhatTheDescriptorCannotState)
{
    struct Case
    {
        char const* type;
        Parameters parameters;
        char const* message;
    };
    Case const cases[] = {
        {"biquad",
         {{"type", "peak"}, {"frequency", "10000"}, {"q", "1"}, {"gain", "40"}},
         "a filter coefficient of module m is out of range: 33.2418 does not fit a sample (|x| < 16)"},
        {"biquad",
         {{"type", "lopass"}, {"frequency", "1000"}, {"q", "0"}},
         "parameter q of module m: must be above 0 for the type lopass"},
        {"adaptive-biquad",
         {{"type", "peak"}, {"frequency", "10000"}, {"q", "1"}, {"gain", "-60=40,0=0"}},
         "a filter coefficient of module m is out of range: 33.2418 does not fit a sample (|x| < 16)"},
        {"equalizer",
         {{"high-gain", "30"}},
         "a filter coefficient of module high-gain is out of range: 25.1684 does not fit a sample (|x| < "
         "16)"},
        {"stereo-equalizer",
         {{"high-gain", "30"}},
         "high-gain of module m is out of range: 25.1684 does not fit a sample (|x| < 16)"},
        {"gain",
         {{"gain", "23.9999999"}},
         "the gain factor of module m is out of range: 16 does not fit a sample (|x| < 16)"},
        {"output",
         {{"interleave-pattern", "02"}},
         "interleave-pattern of module m does not fit its 2 input ports: 02"},
        {"resampler",
         {{"source-rate", "1536000"}},
         "resampler m cannot take a source-rate of 1536000 Hz at 48000 Hz"},
    };
    Testing::LogCapture quiet(7);
    for (Case const& c : cases) {
        SCOPED_TRACE(c.type);
        EXPECT_EQ(verdict(c.type, c.parameters), c.message);
    }
}
