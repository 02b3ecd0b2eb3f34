#include "dsp/ThreeBandStereoEQ.h"

#include "dsp/Chain.h"

#include <algorithm>
#include <cmath>

namespace Zelmar {

namespace {

using AudioFilter::Characteristic;

constexpr double c_lowFrequency = 300.0;
constexpr double c_midFrequency = 1000.0;
constexpr double c_highFrequency = 3000.0;
// 1/0.707: the mid band multiplies by it where the generic design divides by Q.
constexpr double c_midInverseQ = 1.4144271570014144;

} // namespace

ThreeBandStereoEQ::ParameterSet::ParameterSet(Parameters const& params, unsigned int sampleRate)
{
    double const low = setLowCoefficients(params, sampleRate);
    double const mid = setMidCoefficients(params, sampleRate);
    double const high = setHighCoefficients(params, sampleRate);
    m_correctionGain = tSample(tSample::tFundamental(1) << 27);
    if (!params.getBool("gain-correction"))
        return;
    double const largest = std::max(low, std::max(mid, high));
    m_hiddenVolumeDelta = tSample(static_cast<float>(largest));
    if (m_hiddenVolumeDelta > tSample::s_Zero) {
        // Six decibels per doubling, as the gain stages count, although the bands use true decibels.
        m_correctionGain = tSample(std::pow(2.0, -static_cast<float>(largest) / 6.0));
    } else {
        m_hiddenVolumeDelta = tSample::s_Zero;
    }
}

double ThreeBandStereoEQ::ParameterSet::setLowCoefficients(Parameters const& params, unsigned int sampleRate)
{
    double const gain = params.getDouble("low-gain");
    m_low.design(Characteristic::LoShelf, sampleRate, c_lowFrequency, 0.0, gain);
    return gain;
}

double ThreeBandStereoEQ::ParameterSet::setMidCoefficients(Parameters const& params, unsigned int sampleRate)
{
    double const gain = params.getDouble("mid-gain");
    double c[5];
    tBiQuadDesign::designPeak(
        tBiQuadDesign::getK(sampleRate, c_midFrequency), tBiQuadDesign::getV(gain), gain >= 0,
        [](double v) { return v * c_midInverseQ; }, c);
    m_mid = {tBiQuadDesign::toCoefficient(c[0]), tBiQuadDesign::toCoefficient(c[1]),
             tBiQuadDesign::toCoefficient(c[2]), tBiQuadDesign::toCoefficient(c[3]),
             tBiQuadDesign::toCoefficient(c[4])};
    return gain;
}

double ThreeBandStereoEQ::ParameterSet::setHighCoefficients(Parameters const& params, unsigned int sampleRate)
{
    double const gain = params.getDouble("high-gain");
    m_high.design(Characteristic::HiShelf, sampleRate, c_highFrequency, 0.0, gain);
    return gain;
}

void ThreeBandStereoEQ::setParameters(Parameters const& params, unsigned int sampleRate)
{
    Module::setParameters(params, sampleRate);
    auto* ps = new ParameterSet(params, sampleRate);
    if (m_chain)
        m_chain->getHiddenVolumeManager().setHiddenVolumeDelta(
            static_cast<double>(ps->m_hiddenVolumeDelta.toFloat()));
    setFutureParameterSet(ps);
}

void ThreeBandStereoEQ::validateParameters(Parameters const& params, unsigned int) const
{
    // Every band's coefficients stay below its linear gain, so |gain| below 24 dB keeps them in range.
    double largest = 0.0;
    for (char const* key : {"low-gain", "mid-gain", "high-gain"}) {
        double const gain = params.getDouble(key);
        requireSampleRange(std::pow(10.0, std::fabs(gain) / 20.0), key);
        largest = std::max(largest, gain);
    }
    if (params.getBool("gain-correction"))
        requireSampleRange(largest, "the hidden volume delta");
}

void ThreeBandStereoEQ::onModuleAddedToChain(Chain& chain)
{
    Module::onModuleAddedToChain(chain);
    m_chain = &chain;
}

void ThreeBandStereoEQ::process()
{
    auto const* ps = static_cast<ParameterSet const*>(getCurrentParameterSet());
    if (!ps) {
        outBuffer(0).copyFrom(&inBuffer(0));
        outBuffer(1).copyFrom(&inBuffer(1));
        return;
    }
    outBuffer(0).setSize(inBuffer(0).getNumSampleFrames());
    outBuffer(1).setSize(inBuffer(1).getNumSampleFrames());
    unsigned int const n = inBuffer(0).getNumSampleFrames();
    BiQuadSection const sections[3] = {ps->m_low, ps->m_mid, ps->m_high};
    runStereoBiQuadCascade(sections, m_states, 3, true, ps->m_correctionGain, inBuffer(0).getRawData(),
                           inBuffer(1).getRawData(), outBuffer(0).getRawData(), outBuffer(1).getRawData(), n);
}

} // namespace Zelmar
