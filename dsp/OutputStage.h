#pragma once

#include "base/MainLoopCallback.h"
#include "base/Signal.h"
#include "dsp/AlsaAudioBuffersWrapperBase.h"
#include "dsp/Export.h"
#include "dsp/Module.h"

#include <atomic>
#include <functional>
#include <vector>

namespace Zelmar {

// The chain's sink: writes its inputs, in "interleave-pattern" order, to the host's playback channels
// and applies the output mute as a 100 ms fade. Play requests (the host's unmute and every sounding
// system sound) keep it open; each change between none and some is announced on the main loop.
class ORVANDELDSP_EXPORT OutputStage : public Module
{
public:
    explicit OutputStage(Tools::String const& id);
    ~OutputStage() override = default;

    void setOutput(AlsaAudioBuffersWrapperBase* output) { m_output = output; }

    // The pattern reaches the audio thread as a whole, so a period never sees one being rebuilt.
    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 0; }
    // The length of the pattern last set; fixed once the chain is compiled.
    unsigned int getNumInPorts() const override { return m_numInPorts; }
    void process() override;

    // Silent at once, without a fade: for the host's start-up.
    void initialMute() { storeGain(c_silent); }
    void setMute(bool mute);
    void incPlayRequests();
    void decPlayRequests();
    bool hasPlayRequests() const;
    // Any thread may ask; the answer is as of the last period.
    bool isMuting() const { return loadGain() == c_silent; }
    tSample getTargetGain() const { return hasPlayRequests() ? c_fullLevel : c_silent; }
    bool isFading() const { return loadGain().toFloat() != getTargetGain().toFloat(); }

    // The handler gets true for muted, false for audible; it stays connected while the connection lives.
    Tools::Connection connectHandlerForMuteChanges(std::function<void(bool)> handler) const;

protected:
    // The pattern must name one port per channel of the compiled stage, and only ports it has.
    void checkParameters(Parameters const& parameters, unsigned int sampleRate) const override;

private:
    struct Routing : ParameterSet
    {
        std::vector<int32_t> interleavePattern;
        tSample gainDecrement;
        tSample gainIncrement;
    };

    void signalMuteStateChange();
    tSample loadGain() const { return tSample(m_gain.load(std::memory_order_relaxed)); }
    void storeGain(tSample gain) { m_gain.store(gain.getRaw(), std::memory_order_relaxed); }
    void renderGain(Routing const& routing, unsigned int frames);
    void silenceFrom(unsigned int firstFrame, unsigned int frames, unsigned int numChannels);

    // The gain lives in an offset domain, 1.0 silent to 2.0 full level, so that repeated
    // multiplication by 2^(1/steps) or 0.5^(1/steps) lands on either end in the same number of frames.
    static const tSample c_silent;
    static const tSample c_fullLevel;

    AlsaAudioBuffersWrapperBase* m_output = nullptr;
    unsigned int m_numInPorts = 0;
    // Written by the audio thread alone, read by the control side too.
    std::atomic<tSample::tFundamental> m_gain{c_fullLevel.getRaw()};
    bool m_mute = true;
    std::atomic<int32_t> m_playRequests{0};
    mutable Tools::Signal<void(bool)> m_muteChangeSignal;
    Tools::MainLoopCallback m_muteChangeCallback;
};

} // namespace Zelmar
