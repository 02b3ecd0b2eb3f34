#include "tools/DriftSimulation.h"

#include "dsp/Chain.h"
#include "dsp/StereoWrapper.h"
#include "dsp/TimeStretcher.h"
#include "tools/ChainStages.h"

#include <cmath>
#include <cstdio>

namespace Zelmar {
namespace Host {

DriftSimulation::DriftSimulation(Chain& chain, std::string const& config, double ppm, unsigned int fileRate,
                                 unsigned int chainRate)
    : m_compensator(DriftCompensator::create(Tools::Hardware::DriftCompensatorType::TimeStretching)),
      m_ppm(ppm), m_framesPerInputFrame(double(chainRate) / double(fileRate) * (1.0 + ppm * 1e-6))
{
    auto const module = chain.tryFindModule("timestretcher");
    if (auto const* wrapper = dynamic_cast<StereoWrapper const*>(module.get()))
        m_stretcher = dynamic_cast<TimeStretcher*>(wrapper->getLeft().get());
    else
        m_stretcher = dynamic_cast<TimeStretcher*>(module.get());
    if (!m_stretcher)
        throw configError(config, "--drift needs a module of type \"timestretcher\" with the id "
                                  "\"timestretcher\", which the compensator drives");
    m_compensator->initChain(chain);
    m_compensator->start();
}

void DriftSimulation::beforePeriod()
{
    m_producedBefore = m_stretcher->getNumSamplesProduced();
}

void DriftSimulation::afterPeriod(sf_count_t framesIn, sf_count_t framesOut)
{
    unsigned int const produced = m_stretcher->getNumSamplesProduced() - m_producedBefore;
    unsigned int const taken = m_stretcher->getInPort(0)->getNumSampleFrames();
    m_inserted += produced > taken ? produced - taken : 0;
    m_dropped += taken > produced ? taken - produced : 0;
    double const consumed = double(framesIn) * m_framesPerInputFrame;
    m_compensator->setFrameDelta(int(std::lround(double(framesOut) - consumed)));
}

std::string DriftSimulation::describeResult() const
{
    char ppm[32];
    std::snprintf(ppm, sizeof ppm, "%+g", m_ppm);
    return std::string(", drift ") + ppm + " ppm: " + std::to_string(m_inserted) + " frames inserted, " +
           std::to_string(m_dropped) + " dropped";
}

} // namespace Host
} // namespace Zelmar
