#include "dsp/Gain.h"

#include <cmath>

namespace Zelmar {

namespace {

const tSample c_one{int32_t(0x08000000)};
const tSample c_minusOne{int32_t(0xF8000000)};
const tSample c_six{int32_t(0x30000000)};

// Float to unsigned is undefined outside the range: an endless ramp (no increment yet) saturates.
unsigned int toStepCount(float quotient)
{
    if (!(quotient < 4294967296.0f))
        return 0xFFFFFFFFu;
    return quotient > 0.0f ? static_cast<unsigned int>(quotient) : 0u;
}

} // namespace

void Gain::setParameters(Parameters const& params, unsigned int sampleRate)
{
    Module::setParameters(params, sampleRate);
    double const dB = params.getDouble("gain");
    // Narrowed through float; a factor of 16 (24 dB) or more does not fit and asserts.
    m_requested.target = tSample(std::pow(2.0, dB / 6.0));
    m_requested.increment = calcGainChangeIncrement(sampleRate);
    ++m_requested.jump;
    m_requested.jumpLevel = m_requested.target;
    handOver();
}

// The range stops short of 24 dB; exactly where the factor stops fitting depends on its float rounding.
void Gain::checkParameters(Parameters const& params, unsigned int) const
{
    requireSampleRange(std::pow(2.0, params.getDouble("gain") / 6.0), "the gain factor");
}

void Gain::fadeTo(tSample dB)
{
    float const exponent = (dB / c_six).toFloat();
    m_requested.target = tSample(std::pow(2.0, static_cast<double>(exponent)));
    handOver();
}

void Gain::handOver()
{
    setFutureParameterSet(new Request(m_requested));
}

bool Gain::isFading() const
{
    return tSample(m_lastPeriodGain.load(std::memory_order_relaxed)).toFloat() != getTargetGain().toFloat();
}

bool Gain::isFadingNow() const
{
    return m_currentGain.toFloat() != m_targetGain.toFloat();
}

void Gain::takeRequest()
{
    auto const* request = static_cast<Request const*>(takeNewParameterSet());
    if (!request)
        return;
    m_targetGain = request->target;
    m_gainChangeIncrement = request->increment;
    if (request->jump != m_appliedJump) {
        m_appliedJump = request->jump;
        m_currentGain = request->jumpLevel;
    }
}

tSample Gain::calcGainChangeIncrement(unsigned int sampleRate) const
{
    // 1 - 2^-13 per second: the step stays representable and a ramp never overshoots 1.0 per second.
    return tSample(0.9998779296875f / static_cast<float>(sampleRate));
}

void Gain::process()
{
    AudioBuffer const* in = &inBuffer(0);
    AudioBuffer* out = &outBuffer(0);
    out->setSize(in->getNumSampleFrames());
    ZELMAR_ASSERT(out->getNumSampleFrames() >= in->getNumSampleFrames());
    takeRequest();
    if (isFadingNow()) {
        out->copyFrom(in);
        processFading(*out);
    } else {
        processWithoutFade(*out, *in);
    }
    m_lastPeriodGain.store(m_currentGain.getRaw(), std::memory_order_relaxed);
}

void Gain::processWithoutFade(AudioBuffer& out, AudioBuffer const& in)
{
    if (m_currentGain == tSample::s_Zero) {
        out.silence();
        return;
    }
    out.copyFrom(&in);
    if (m_currentGain == c_one)
        return;
    // Not saturated: above 1.0 a loud sample wraps; the limiter and clip guard protect the output.
    out.amplify(m_currentGain);
}

void Gain::processFading(AudioBuffer& buffer)
{
    unsigned int const n = buffer.getNumSampleFrames();
    tSample const target = m_targetGain;
    tSample g = m_currentGain;
    tSample const diff = target - g;
    tSample const sign = diff < tSample::s_Zero ? c_minusOne : c_one;
    tSample const distance = sign * diff;
    tSample const step = sign * m_gainChangeIncrement;

    // The remaining step count is recomputed every period, so a redirected fade simply starts over.
    // Without an increment (no sample rate yet) the quotient is infinite and the ramp stands still.
    float const quotient = distance.toFloat() / m_gainChangeIncrement.toFloat();
    unsigned int const steps = toStepCount(quotient);

    tSample* samples = buffer.getRawData();
    unsigned int const rampEnd = steps < n ? steps : n;
    for (unsigned int i = 0; i < rampEnd; ++i) {
        samples[i] = samples[i] * g;
        g = g + step;
    }
    if (steps <= n) {
        // Land exactly on the target rather than wherever the truncated steps would leave the factor.
        g = target;
        for (unsigned int i = steps; i < n; ++i)
            samples[i] = samples[i] * target;
    }
    m_currentGain = g;
}

} // namespace Zelmar
