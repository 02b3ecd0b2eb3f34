#include "dsp/Resampler.h"

#include "dsp/IllegalArgumentException.h"
#include "dsp/RingBuffer.h"

namespace Zelmar {

namespace {

constexpr uint32_t c_fractionBits = 27;
constexpr uint32_t c_one = 1u << c_fractionBits;
constexpr uint32_t c_fractionMask = c_one - 1;

} // namespace

Resampler::Resampler(Tools::String const& id)
    : InputStage(id), m_leftHistory(std::make_unique<tHistory>()),
      m_rightHistory(std::make_unique<tHistory>())
{
}

Resampler::~Resampler() = default;

void Resampler::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    InputStage::setParameters(parameters, sampleRate);
    int const sourceRate = parameters.getInt("source-rate");
    // A rate of 0 would divide by zero on the audio thread; say so while the config is read.
    if (sourceRate <= 0)
        throw IllegalArgumentException("resampler %0 needs a positive source-rate in Hz, got %1", getID(),
                                       sourceRate);
    Conversion conversion;
    conversion.sourceRate = static_cast<uint32_t>(sourceRate);
    conversion.chainRate = sampleRate;
    // One over the ratio, narrowed to float and truncated; its integer part must stay below 32 (range
    // assertion).
    double const ratio = static_cast<double>(sampleRate) / static_cast<double>(sourceRate);
    conversion.step = tStep(static_cast<float>(1.0 / ratio));
    m_requestedSourceRate = conversion.sourceRate;
    m_requestedStep = conversion.step;

    unsigned int const capacity = sampleRate > conversion.sourceRate ? sampleRate : conversion.sourceRate;
    // An earlier set with another size may still be pending; then the published size is not the one
    // in force afterwards, so storage goes along whenever either differs.
    if (capacity != m_requestedCapacity || capacity != m_historyCapacity.load(std::memory_order_relaxed)) {
        conversion.leftStorage.assign(capacity, tSample::s_Zero);
        conversion.rightStorage.assign(capacity, tSample::s_Zero);
    }
    m_requestedCapacity = capacity;
    setFutureParameterSet(new Conversion(std::move(conversion)));
}

void Resampler::takeConversion()
{
    auto* conversion = static_cast<Conversion*>(takeNewParameterSet());
    if (!conversion)
        return;
    m_sourceRate = conversion->sourceRate;
    m_chainRate = conversion->chainRate;
    m_step = conversion->step;
    // Swapped, not copied: the snapshot takes the old storage back to the main loop.
    if (!conversion->leftStorage.empty()) {
        m_leftHistory->swapStorage(conversion->leftStorage);
        m_rightHistory->swapStorage(conversion->rightStorage);
        m_historyCapacity.store(m_leftHistory->getCapacity(), std::memory_order_relaxed);
    }
    // Read position and phase run on: output resumes once the restarted histories catch up.
    m_leftHistory->reset();
    m_rightHistory->reset();
}

void Resampler::checkParameters(Parameters const& parameters, unsigned int sampleRate) const
{
    int const sourceRate = parameters.getInt("source-rate");
    if (static_cast<double>(sourceRate) >= 32.0 * sampleRate)
        throw IllegalArgumentException("resampler %0 cannot take a source-rate of %1 Hz at %2 Hz", getID(),
                                       sourceRate, sampleRate);
}

double Resampler::getRatio() const
{
    return static_cast<double>(getSampleRate()) / static_cast<double>(m_requestedSourceRate);
}

void Resampler::process()
{
    takeConversion();
    if (m_sourceRate == m_chainRate) {
        InputStage::process();
        return;
    }
    AlsaChannel& leftIn = getInput()->getChannel(0);
    AlsaChannel& rightIn = getInput()->getChannel(1);
    unsigned int const inFrames = leftIn.getNumFrames();
    for (unsigned int f = 0; f < inFrames; ++f) {
        tSample const left = leftIn.getSample(f);
        tSample const right = rightIn.getSample(f);
        m_leftHistory->write(&left, 1);
        m_rightHistory->write(&right, 1);
    }

    int64_t const available = static_cast<int64_t>(m_leftHistory->getNumWritten() - m_readPosition - 1);
    int64_t outFrames = available > 0 ? available * m_chainRate / static_cast<int64_t>(m_sourceRate) : 0;
    AudioBuffer& leftOut = outBuffer(0);
    AudioBuffer& rightOut = outBuffer(1);
    // Growing past the reserved storage would allocate on the audio thread; what does not fit
    // stays in the history and comes out next period.
    unsigned int const capacity = leftOut.getNumSampleFramesCapacity() < rightOut.getNumSampleFramesCapacity()
                                      ? leftOut.getNumSampleFramesCapacity()
                                      : rightOut.getNumSampleFramesCapacity();
    if (outFrames > capacity)
        outFrames = capacity;
    leftOut.setSize(static_cast<unsigned int>(outFrames));
    rightOut.setSize(static_cast<unsigned int>(outFrames));

    tSample* const left = leftOut.getRawData();
    tSample* const right = rightOut.getRawData();
    for (unsigned int i = 0; i < outFrames; ++i) {
        left[i] = getInSample(*m_leftHistory);
        right[i] = getInSample(*m_rightHistory);
        // Widened so that a step close to 32 cannot wrap the sum.
        uint64_t const advanced = static_cast<uint64_t>(m_phase.getRaw()) + m_step.getRaw();
        m_readPosition += advanced >> c_fractionBits;
        m_phase.setRaw(static_cast<uint32_t>(advanced) & c_fractionMask);
    }
}

tSample Resampler::getInSample(tHistory& history) const
{
    uint32_t const frac = m_phase.getRaw() & c_fractionMask;
    uint32_t const n = static_cast<uint32_t>(m_readPosition);
    tSample const earlier = history.at(static_cast<uint32_t>(n - 1));
    if (frac == 0)
        return earlier;
    tSample const later = history.at(n);
    return tSample(static_cast<int32_t>(c_one - frac)) * earlier +
           tSample(static_cast<int32_t>(frac)) * later;
}

} // namespace Zelmar
