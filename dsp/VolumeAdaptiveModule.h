#pragma once

#include "base/Signal.h"
#include "dsp/DeviceVolume.h"
#include "dsp/Export.h"
#include "dsp/LinearInterpolator.h"
#include "dsp/Parameters.h"

#include <cstdio>
#include <exception>
#include <functional>

namespace Zelmar {

class Chain;

// Out of line, so that hosts including this header need neither the hardware daemon client nor the tracer.
namespace VolumeFollowing {
// Calls `follower` with the device volume (0..100) whenever the hardware daemon reports a change.
ORVANDELDSP_EXPORT Tools::Connection subscribe(std::function<void(double)> follower);
ORVANDELDSP_EXPORT void reportFailure(Tools::String const& id, char const* what);
} // namespace VolumeFollowing

// A module whose parameter `curveKey` is a curve over the device volume in dB ("-60=9,0=0") rather than
// a number: the base module is always configured with the curve's value at the current volume, and is
// configured again whenever the volume changes. Runs on the main loop thread only; the base's audio
// path sees the result through its usual parameter hand-over.
template <class Base> class VolumeAdaptiveModule : public Base
{
public:
    using tControlGain = FixedPoint<12, 19, true>;

    VolumeAdaptiveModule(Tools::String const& id, char const* curveKey) : Base(id), m_curveKey(curveKey) {}

    // Loads the curve, applies it at the volume last seen, then at the volume the daemon reports now.
    // Throws std::invalid_argument when the curve has no breakpoint, and what std::stod throws.
    void setParameters(Parameters const& params, unsigned int sampleRate) override
    {
        m_storedParameters = params;
        Parameters withoutCurve;
        for (auto const& entry : params.getParams()) {
            if (entry.first == m_curveKey)
                m_interpolator.load(entry.second);
            else
                withoutCurve.set(entry.first, entry.second);
        }
        setParamsWithInterpolated(withoutCurve, sampleRate);
        setControlGain(DeviceVolume::read());
    }

    void onModuleAddedToChain(Chain& chain) override
    {
        Base::onModuleAddedToChain(chain);
        m_volumeSubscription = VolumeFollowing::subscribe([this](double volume) { followVolume(volume); });
    }

    // Re-applies the curve at `volumeDb`, unless that is the volume in force already.
    void setControlGain(tControlGain volumeDb)
    {
        if (volumeDb.toFloat() == m_controlGain.toFloat())
            return;
        m_controlGain = volumeDb;
        Parameters params = m_storedParameters;
        setParamsWithInterpolated(params, this->getSampleRate());
    }

    tControlGain getControlGain() const { return m_controlGain; }

    // The curve, not the value it gives now: a change of another key keeps it.
    Parameters const& getConfiguredParameters() const override { return m_storedParameters; }

protected:
    // Every breakpoint's value must suit the base module; the values between lie between them.
    void checkParameters(Parameters const& params, unsigned int sampleRate) const override
    {
        LinearInterpolator curve;
        curve.load(params.getString(m_curveKey));
        Parameters atBreakpoint = params;
        for (auto const& breakpoint : curve.getBreakpoints()) {
            atBreakpoint.set(m_curveKey, formatValue(breakpoint.second));
            Base::checkParameters(atBreakpoint, sampleRate);
        }
    }

    void setParamsWithInterpolated(Parameters& params, unsigned int sampleRate)
    {
        params.set(m_curveKey, formatValue(m_interpolator.getInterpolated(m_controlGain)));
        Base::setParameters(params, sampleRate);
    }

private:
    static Tools::String formatValue(LinearInterpolator::tValue value)
    {
        char text[32];
        std::snprintf(text, sizeof text, "%f", value.toDouble());
        return text;
    }

    // Called from a D-Bus signal, which an exception must not cross; a curve that cannot be applied was
    // already reported when it was configured. Before that the volume is only noted, to start from.
    void followVolume(double volume)
    {
        if (this->getSampleRate() == 0) {
            m_controlGain = DeviceVolume::toDb(volume);
            return;
        }
        try {
            setControlGain(DeviceVolume::toDb(volume));
        } catch (std::exception const& e) {
            VolumeFollowing::reportFailure(this->getID(), e.what());
        }
    }

    char const* m_curveKey;
    LinearInterpolator m_interpolator;
    tControlGain m_controlGain;
    Parameters m_storedParameters;
    Tools::Connection m_volumeSubscription;
};

} // namespace Zelmar
