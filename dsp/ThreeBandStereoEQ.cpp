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

using tDesign = void (*)(double gain, unsigned int sampleRate, double (&c)[5]);

// The sections before conversion, so that the check can see whether they fit.
void designLow(double gain, unsigned int sampleRate, double (&c)[5])
{
    tBiQuadDesign::design(Characteristic::LoShelf, sampleRate, c_lowFrequency, 0.0, gain, c);
}

void designMid(double gain, unsigned int sampleRate, double (&c)[5])
{
    tBiQuadDesign::designPeak(
        tBiQuadDesign::getK(sampleRate, c_midFrequency), tBiQuadDesign::getV(gain), gain >= 0,
        [](double v) { return v * c_midInverseQ; }, c);
}

void designHigh(double gain, unsigned int sampleRate, double (&c)[5])
{
    tBiQuadDesign::design(Characteristic::HiShelf, sampleRate, c_highFrequency, 0.0, gain, c);
}

struct Band
{
    char const* key;
    tDesign design;
};
constexpr Band c_bands[] = {{"low-gain", designLow}, {"mid-gain", designMid}, {"high-gain", designHigh}};

// Reads the band's gain, designs it into `section` and returns the gain.
double designBand(Band const& band, Parameters const& params, unsigned int sampleRate, BiQuadSection& section)
{
    double const gain = params.getDouble(band.key);
    double c[5];
    band.design(gain, sampleRate, c);
    section = {tBiQuadDesign::toCoefficient(c[0]), tBiQuadDesign::toCoefficient(c[1]),
               tBiQuadDesign::toCoefficient(c[2]), tBiQuadDesign::toCoefficient(c[3]),
               tBiQuadDesign::toCoefficient(c[4])};
    return gain;
}

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
    return designBand(c_bands[0], params, sampleRate, m_low);
}

double ThreeBandStereoEQ::ParameterSet::setMidCoefficients(Parameters const& params, unsigned int sampleRate)
{
    return designBand(c_bands[1], params, sampleRate, m_mid);
}

double ThreeBandStereoEQ::ParameterSet::setHighCoefficients(Parameters const& params, unsigned int sampleRate)
{
    return designBand(c_bands[2], params, sampleRate, m_high);
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

void ThreeBandStereoEQ::checkParameters(Parameters const& params, unsigned int sampleRate) const
{
    // A cut keeps its coefficients small however deep it is; what has to fit is each designed section,
    // and with the correction on the largest boost, which becomes the hidden volume delta as a sample.
    double largest = 0.0;
    for (Band const& band : c_bands) {
        double const gain = params.getDouble(band.key);
        double c[5];
        band.design(gain, sampleRate, c);
        for (double const coefficient : c)
            requireSampleRange(coefficient, band.key);
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
