#pragma once

#include "dsp/Chain.h"
#include "dsp/StereoWrapper.h"
#include "tools/ToolError.h"

#include <memory>
#include <string>
#include <vector>

namespace Zelmar {
namespace Host {

// Modules are found by type, wrapped ones included, so that a config may name them freely.
template <class T> std::vector<T*> findStages(Chain const& chain)
{
    std::vector<T*> stages;
    auto collect = [&](std::shared_ptr<Module> const& module) {
        if (auto* stage = dynamic_cast<T*>(module.get()))
            stages.push_back(stage);
    };
    for (auto const& module : chain.getModules()) {
        collect(module);
        if (auto const* wrapper = dynamic_cast<StereoWrapper const*>(module.get())) {
            collect(wrapper->getLeft());
            collect(wrapper->getRight());
        }
    }
    return stages;
}

inline ToolError configError(std::string const& config, std::string const& problem)
{
    return ToolError(ToolError::c_badInput, "config " + config + ": " + problem);
}

// A file with more channels than the input stage reads would lose the others without a word.
inline void checkInputChannels(std::string const& input, unsigned int fileChannels, Module const& stage)
{
    if (fileChannels > stage.getNumOutPorts())
        throw ToolError(ToolError::c_badInput, "input " + input + " has " + std::to_string(fileChannels) +
                                                   " channels, but the chain's input stage " +
                                                   stage.getID().str() + " takes " +
                                                   std::to_string(stage.getNumOutPorts()));
}

template <class T> T& theOnlyStage(Chain const& chain, std::string const& config, char const* type)
{
    auto const stages = findStages<T>(chain);
    if (stages.size() != 1)
        throw configError(config, std::string("the tool needs exactly one module of type \"") + type +
                                      "\", the config has " + std::to_string(stages.size()));
    return *stages.front();
}

} // namespace Host
} // namespace Zelmar
