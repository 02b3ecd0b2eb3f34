#pragma once

#include "base/MainLoopCallback.h"
#include "dsp/Export.h"
#include "dsp/Module.h"
#include "dsp/Rompler.h"
#include "dsp/RomplerData.h"
#include "dsp/SystemSound.h"

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

namespace Zelmar {

class OutputStage;

// Stereo pass-through that mixes system sounds into its two channels and ducks the passing signal to
// a quarter while any voice is listed. Voices move between three lock-free lists: the control thread
// pushes triggered voices onto the scheduled stack, the audio thread takes that stack whole into the
// playing list and pushes finished voices onto the doomed stack, and the main loop frees those.
class ORVANDELDSP_EXPORT Sounds : public Module
{
public:
    explicit Sounds(Tools::String const& id);
    ~Sounds() override;

    void preSetup(Chain& chain, unsigned int maxFrames) override;
    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 2; }
    void process() override;

    // Control thread.
    void trigger(SystemSound sound);
    void requestPlay(bool on);
    std::shared_ptr<RomplerData> getRomplerDataForSoundType(SystemSound sound);
    // The sound's file name as the table holds it (relative to the sounds folder).
    Tools::String const& getFileName(SystemSound sound) const
    {
        return m_sounds[static_cast<unsigned int>(sound)].first;
    }

    // Audio thread.
    void pickUpScheduled();
    void handleFinished();
    void process(tSample* left, tSample* right, unsigned int numFrames);
    unsigned int fadeIn(tSample* left, tSample* right, unsigned int numFrames);
    unsigned int fadeOut(tSample* left, tSample* right, unsigned int numFrames);
    void fade(tSample* left, tSample* right, unsigned int numFrames, tSample increment);

    // Main loop.
    void freeDoomedSounds();
    static void destroyListOfSounds(Rompler* list);
    static void freeSound(Rompler* voice);

    static const tSample c_reducedAmp;
    static const tSample c_fullAmp;

private:
    void adoptOutputStage(std::shared_ptr<Module> const& module, std::shared_ptr<OutputStage>& adopted);

    Rompler* m_playing = nullptr;
    std::atomic<Rompler*> m_scheduled{nullptr};
    std::atomic<Rompler*> m_doomed{nullptr};
    tSample m_currentGain = c_fullAmp;
    tSample m_targetGain = c_fullAmp;
    // 3 / fs: a full duck from 1.0 to 0.25 takes a quarter second. 48 kHz until parameters arrive.
    // Written by setParameters, read once per period.
    std::atomic<tSample> m_gainChangeIncrement{tSample(3.0f / 48000.0f)};
    // Weak: an output stage wired straight from this module holds it through its input, and a strong
    // pointer back would keep both alive forever.
    std::weak_ptr<OutputStage> m_outputStage;
    Tools::MainLoopCallback m_freeDoomedCallback;
    // Written by the control thread (trigger) and the audio thread (release) without coordination;
    // atomic only so that the two unsynchronised plain accesses are not a data race.
    std::atomic<bool> m_playRequested{false};
    std::vector<std::pair<Tools::String, std::shared_ptr<RomplerData>>> m_sounds;
};

} // namespace Zelmar
