#include "dsp/ModuleFactory.h"

#include "dsp/AdaptiveBiquad.h"
#include "dsp/AdaptiveLimiter.h"
#include "dsp/BiQuad.h"
#include "dsp/ClipGuard.h"
#include "dsp/Delay.h"
#include "dsp/DumpSamples.h"
#include "dsp/Equalizer.h"
#include "dsp/FlacEncoder.h"
#include "dsp/Gain.h"
#include "dsp/InputStage.h"
#include "dsp/Limiter.h"
#include "dsp/Meter.h"
#include "dsp/Mixer.h"
#include "dsp/OutputStage.h"
#include "dsp/PatchBay.h"
#include "dsp/PhaseInversion.h"
#include "dsp/Resampler.h"
#include "dsp/SignalDetector.h"
#include "dsp/Sounds.h"
#include "dsp/StereoBiQuad.h"
#include "dsp/Switch.h"
#include "dsp/ThreeBandStereoEQ.h"
#include "dsp/TimeStretcher.h"

namespace Zelmar {

ModuleFactory& ModuleFactory::get()
{
    static ModuleFactory instance;
    return instance;
}

// The one table of creatable types, in the order the type names are documented.
ModuleFactory::ModuleFactory()
{
    registerModule<AdaptiveBiquad>("adaptive-biquad");
    registerModule<AdaptiveLimiter>("adaptive-limiter");
    registerModule<BiQuad>("biquad");
    registerModule<ClipGuard>("clipguard");
    registerModule<Delay>("delay");
    registerModule<DumpSamples>("dump-samples");
    registerModule<Equalizer>("equalizer");
    registerModule<FlacEncoder>("flac-encoder");
    registerModule<Gain>("gain");
    registerModule<InputStage>("input");
    registerModule<Limiter>("limiter");
    registerModule<Meter>("meter");
    registerModule<Mixer>("mixer");
    registerModule<OutputStage>("output");
    registerModule<PatchBay>("patchbay");
    registerModule<SignalDetector>("signal-detector");
    registerModule<PhaseInversion>("phase-invert");
    registerModule<Resampler>("resampler");
    registerModule<Sounds>("sounds");
    registerModule<Switch>("switch");
    registerModule<StereoBiQuad>("stereo-biquad");
    registerModule<TimeStretcher>("timestretcher");
    registerModule<ThreeBandStereoEQ>("stereo-equalizer");
}

Module* ModuleFactory::createModule(Tools::String const& type, Tools::String const& id) const
{
    auto const it = m_constructors.find(type);
    if (it == m_constructors.end())
        return nullptr;
    Module* module = it->second(id);
    module->setType(type);
    return module;
}

std::vector<Tools::String> ModuleFactory::getTypeNames() const
{
    std::vector<Tools::String> names;
    for (auto const& entry : m_constructors)
        names.push_back(entry.first);
    return names;
}

} // namespace Zelmar
