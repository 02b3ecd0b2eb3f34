#include "dsp/Sounds.h"

#include "dsp/Chain.h"
#include "dsp/OutputStage.h"
#include "dsp/ParsingException.h"
#include "dsp/StereoWrapper.h"

#include <algorithm>

namespace Zelmar {

const tSample Sounds::c_reducedAmp{int32_t(0x02000000)};
const tSample Sounds::c_fullAmp{int32_t(0x08000000)};

Sounds::Sounds(Tools::String const& id)
    : Module(id),
      m_freeDoomedCallback([this] { freeDoomedSounds(); }, 0), m_sounds{
                                                                   {"connected-bt.flac", nullptr},
                                                                   {"disconnected-bt.flac", nullptr},
                                                                   {"error.flac", nullptr},
                                                                   {"ok.flac", nullptr},
                                                                   {"touch.flac", nullptr},
                                                                   {"touch-play-pause.flac", nullptr},
                                                                   {"wait-for-connection.flac", nullptr},
                                                                   {"direct-line-in-playback.flac", nullptr},
                                                                   {"line-in-streaming.flac", nullptr},
                                                                   {"welcome.flac", nullptr}}
{
}

Sounds::~Sounds()
{
    // Voices refer to the sound table, so they go first; the table then joins its loaders.
    destroyListOfSounds(m_playing);
    destroyListOfSounds(m_scheduled.exchange(nullptr));
    destroyListOfSounds(m_doomed.exchange(nullptr));
    m_sounds.clear();
}

void Sounds::preSetup(Chain& chain, unsigned int maxFrames)
{
    Module::preSetup(chain, maxFrames);
    std::shared_ptr<OutputStage> adopted;
    for (auto const& module : chain.getModules()) {
        adoptOutputStage(module, adopted);
        if (auto wrapper = std::dynamic_pointer_cast<StereoWrapper>(module)) {
            adoptOutputStage(wrapper->getLeft(), adopted);
            adoptOutputStage(wrapper->getRight(), adopted);
        }
    }
    m_outputStage = adopted;
}

void Sounds::adoptOutputStage(std::shared_ptr<Module> const& module, std::shared_ptr<OutputStage>& adopted)
{
    auto outputStage = std::dynamic_pointer_cast<OutputStage>(module);
    if (!outputStage)
        return;
    if (adopted)
        throw ParsingException(
            "The current implementation for unmuting the output stage on system sounds relies "
            "on only one output stage existing.");
    adopted = outputStage;
}

void Sounds::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    Module::setParameters(parameters, sampleRate);
    m_gainChangeIncrement.store(tSample(3.0f / static_cast<float>(sampleRate)), std::memory_order_relaxed);
}

std::shared_ptr<RomplerData> Sounds::getRomplerDataForSoundType(SystemSound sound)
{
    auto& entry = m_sounds[static_cast<unsigned int>(sound)];
    if (!entry.second)
        entry.second = std::make_shared<RomplerData>(getSampleRate(), entry.first);
    return entry.second;
}

void Sounds::trigger(SystemSound sound)
{
    auto* voice = new Rompler(*getRomplerDataForSoundType(sound));
    Rompler* head = m_scheduled.load();
    do {
        voice->setNext(head);
    } while (!m_scheduled.compare_exchange_weak(head, voice));
    requestPlay(true);
}

void Sounds::requestPlay(bool on)
{
    if (m_playRequested.load(std::memory_order_relaxed) == on)
        return;
    // The chain owns the stage for as long as this module runs, so this is never the last owner.
    auto const outputStage = m_outputStage.lock();
    if (!outputStage)
        return;
    m_playRequested.store(on, std::memory_order_relaxed);
    if (on)
        outputStage->incPlayRequests();
    else
        outputStage->decPlayRequests();
}

void Sounds::process()
{
    outBuffer(0).copyFrom(&inBuffer(0));
    outBuffer(1).copyFrom(&inBuffer(1));
    process(outBuffer(0).getRawData(), outBuffer(1).getRawData(), outBuffer(0).getNumSampleFrames());
}

void Sounds::process(tSample* left, tSample* right, unsigned int numFrames)
{
    pickUpScheduled();
    // A voice still waiting for its data ducks the signal as well.
    m_targetGain = m_playing ? c_reducedAmp : c_fullAmp;
    unsigned int faded = 0;
    if (m_currentGain > m_targetGain)
        faded = fadeOut(left, right, numFrames);
    else if (m_currentGain < m_targetGain)
        faded = fadeIn(left, right, numFrames);
    if (m_currentGain != c_fullAmp) {
        for (unsigned int i = faded; i < numFrames; ++i) {
            left[i] *= m_currentGain;
            right[i] *= m_currentGain;
        }
    }
    for (Rompler* voice = m_playing; voice; voice = voice->getNext()) {
        if (!voice->isFinished())
            voice->process(left, right, numFrames);
    }
    handleFinished();
}

unsigned int Sounds::fadeIn(tSample* left, tSample* right, unsigned int numFrames)
{
    tSample const increment = m_gainChangeIncrement.load(std::memory_order_relaxed);
    auto const count =
        static_cast<unsigned int>((m_targetGain - m_currentGain).toFloat() / increment.toFloat() + 1.0f);
    unsigned int const frames = std::min(count, numFrames);
    fade(left, right, frames, increment);
    if (m_currentGain > m_targetGain)
        m_currentGain = m_targetGain;
    return frames;
}

unsigned int Sounds::fadeOut(tSample* left, tSample* right, unsigned int numFrames)
{
    tSample const increment = m_gainChangeIncrement.load(std::memory_order_relaxed);
    auto const count =
        static_cast<unsigned int>((m_currentGain - m_targetGain).toFloat() / increment.toFloat() + 1.0f);
    unsigned int const frames = std::min(count, numFrames);
    fade(left, right, frames, -increment);
    if (m_currentGain < m_targetGain)
        m_currentGain = m_targetGain;
    return frames;
}

void Sounds::fade(tSample* left, tSample* right, unsigned int numFrames, tSample increment)
{
    for (unsigned int i = 0; i < numFrames; ++i) {
        left[i] *= m_currentGain;
        right[i] *= m_currentGain;
        m_currentGain += increment;
    }
}

void Sounds::pickUpScheduled()
{
    Rompler* taken = m_scheduled.load();
    if (!taken)
        return;
    // One attempt only: a trigger that raced in leaves the whole batch for a later period.
    if (!m_scheduled.compare_exchange_strong(taken, nullptr))
        return;
    if (!m_playing) {
        m_playing = taken;
        return;
    }
    // The batch goes behind the head voice, cutting off whatever followed the head. This is the
    // established behaviour: those voices are neither mixed nor freed any more.
    m_playing->setNext(taken);
}

void Sounds::handleFinished()
{
    if (m_playing && m_playing->isFinished()) {
        Rompler* finished = m_playing;
        m_playing = finished->getNext();
        Rompler* head = m_doomed.load();
        do {
            finished->setNext(head);
        } while (!m_doomed.compare_exchange_weak(head, finished));
        m_freeDoomedCallback.schedule();
    }
    if (!m_playing && !m_scheduled.load())
        requestPlay(false);
}

void Sounds::freeDoomedSounds()
{
    Rompler* doomed = m_doomed.load();
    while (!m_doomed.compare_exchange_weak(doomed, nullptr)) {
    }
    destroyListOfSounds(doomed);
}

void Sounds::destroyListOfSounds(Rompler* list)
{
    // Iterative rather than recursive: a long list must not exhaust the main loop's stack.
    while (list) {
        Rompler* next = list->getNext();
        freeSound(list);
        list = next;
    }
}

void Sounds::freeSound(Rompler* voice)
{
    delete voice;
}

} // namespace Zelmar
