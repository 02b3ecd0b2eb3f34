#pragma once

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/MemoryAlsaBuffers.h"
#include "dsp/OutputStage.h"

#include <memory>

namespace Zelmar {
namespace Testing {

// The library's in-memory host buffers, under the names the suites use.
using MemoryAlsaBuffers = Zelmar::MemoryAlsaBuffers;
using MemoryAlsaChannel = MemoryAlsaBuffers::Channel;

// Hands the buffers to every input and output stage of a chain, as a host does; returns the output stage.
inline std::shared_ptr<OutputStage> attachHostBuffers(Chain const& chain, MemoryAlsaBuffers& capture,
                                                      MemoryAlsaBuffers& playback)
{
    std::shared_ptr<OutputStage> output;
    for (auto const& module : chain.getModules()) {
        if (auto input = std::dynamic_pointer_cast<InputStage>(module))
            input->setInput(&capture);
        if (auto stage = std::dynamic_pointer_cast<OutputStage>(module)) {
            stage->setOutput(&playback);
            output = stage;
        }
    }
    return output;
}

} // namespace Testing
} // namespace Zelmar
