#include "dsp/ModuleDescriptor.h"

#include "dsp/IllegalArgumentException.h"
#include "dsp/Module.h"
#include "dsp/ModuleFactory.h"
#include "support/DataFile.h"
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

} // namespace

// A required key's default is its example, so every type's defaults make a set it accepts.
TEST(ModuleDescriptorTest, DefaultsAreAcceptedRequiredKeysMissedAndPortsAsDescribed)
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
        for (auto const& parameter : type.getParameters()) {
            if (!parameter.isRequired())
                continue;
            Parameters without;
            for (auto const& [key, value] : defaults.getParams())
                if (key != parameter.getKey())
                    without.set(key, value);
            EXPECT_EQ(verdict(name, without), std::string("parameter ") + parameter.getKey() +
                                                  " of module m: is required (for example \"" +
                                                  parameter.getDefault() + "\")");
        }
    }
}

TEST(ModuleDescriptorTest, RefusesWhatItMustWithItsMessage)
{
    Testing::LogCapture quiet(7);
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
