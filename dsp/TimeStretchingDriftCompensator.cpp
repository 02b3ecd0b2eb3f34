#include "dsp/TimeStretchingDriftCompensator.h"

#include "base/Tracer.h"
#include "dsp/Chain.h"
#include "dsp/ParsingException.h"
#include "dsp/StereoWrapper.h"

namespace Zelmar {

namespace {

constexpr double c_keep = 0.95;
constexpr double c_gain = 0.05;
constexpr double c_threshold = 0.5;
constexpr std::chrono::milliseconds c_logPeriod{250};

} // namespace

void TimeStretchingDriftCompensator::initChain(Chain& chain)
{
    Tools::String const id = getTimeStretcherModuleID();
    std::shared_ptr<Module> const module = chain.tryFindModule(id);
    if (auto const wrapper = std::dynamic_pointer_cast<StereoWrapper>(module)) {
        m_leftStretcher = std::dynamic_pointer_cast<TimeStretcher>(wrapper->getLeft());
        m_rightStretcher = std::dynamic_pointer_cast<TimeStretcher>(wrapper->getRight());
        return;
    }
    if (auto const stretcher = std::dynamic_pointer_cast<TimeStretcher>(module)) {
        m_leftStretcher = stretcher;
        return;
    }
    // Without stretchers the compensator still computes its orders; nothing carries them out.
    try {
        chain.findModule(id);
    } catch (ParsingException const&) {
        Tools::trace(Tools::Tracer::Error, "There is no timestretcher with id", id, "in the dsp chain");
    }
}

int TimeStretchingDriftCompensator::setFrameDelta(int delta)
{
    adjustTimestretchFilter(delta);
    TimeStretcher::TaskForNextBuffer const task = getTaskForNextBuffer();
    // Both channels change length together or the stereo image would slip by a frame.
    if (m_leftStretcher)
        m_leftStretcher->setTaskForNextBuffer(task);
    if (m_rightStretcher)
        m_rightStretcher->setTaskForNextBuffer(task);

    if (isFrameDiffLoggingEnabled()) {
        tTimePoint const now = std::chrono::system_clock::now();
        if (now - m_lastLog > c_logPeriod) {
            Tools::trace(Tools::Tracer::Info, "TimeStretchingDriftCompensator: frame delta", delta);
            m_lastLog = now;
        }
    }

    switch (task) {
    case TimeStretcher::Skip:
        return 1;
    case TimeStretcher::Stretch:
        return -1;
    case TimeStretcher::None:
        break;
    }
    return 0;
}

void TimeStretchingDriftCompensator::adjustTimestretchFilter(int delta)
{
    int const sign = (delta > 0) - (delta < 0);
    m_filteredDelta = c_keep * m_filteredDelta + c_gain * sign;
}

TimeStretcher::TaskForNextBuffer TimeStretchingDriftCompensator::getTaskForNextBuffer() const
{
    if (m_filteredDelta > c_threshold)
        return TimeStretcher::Skip;
    if (m_filteredDelta < -c_threshold)
        return TimeStretcher::Stretch;
    return TimeStretcher::None;
}

} // namespace Zelmar
