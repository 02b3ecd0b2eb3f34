#include "dsp/AlsaDriftCompensator.h"

#include "base/Tracer.h"

namespace Zelmar {

char const* const AlsaDriftCompensator::s_controlName = "Drift compensator";

AlsaDriftCompensator::AlsaDriftCompensator()
    : m_expiration([this] { writeClock(); }), m_control(10.0f, 3.0f, 1.5f)
{
    m_control.setMinMax(-1000.0f, 1000.0f);
    int const result = snd_ctl_open(&m_ctl, "default", 0);
    if (result < 0) {
        m_ctl = nullptr;
        Tools::trace(
            Tools::Tracer::Alert,
            "AlsaDriftCompensator: unable to open mixer device for clock control:", snd_strerror(result));
        return;
    }
    if (!initAlsaControl()) {
        Tools::trace(Tools::Tracer::Alert,
                     "AlsaDriftCompensator: unable to initialize drift alsa control:", s_controlName);
        return;
    }
    Tools::trace(Tools::Tracer::Notice, "AlsaDriftCompensator: 2nd generation HW clock control initialized");
    m_lastReport = std::chrono::system_clock::now();
}

AlsaDriftCompensator::~AlsaDriftCompensator()
{
    m_expiration.cancel();
    resetDriftCompensator();
    if (m_value)
        snd_ctl_elem_value_free(m_value);
    if (m_ctl)
        snd_ctl_close(m_ctl);
}

bool AlsaDriftCompensator::initAlsaControl()
{
    snd_ctl_elem_value_malloc(&m_value);
    snd_ctl_elem_id_t* id = nullptr;
    snd_ctl_elem_id_alloca(&id);
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, s_controlName);
    snd_ctl_elem_info_t* info = nullptr;
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_info_set_id(info, id);
    if (snd_ctl_elem_info(m_ctl, info) < 0) {
        Tools::trace(Tools::Tracer::Alert, "AlsaDriftCompensator: Cannot find mixer control", s_controlName);
        snd_ctl_elem_value_free(m_value);
        m_value = nullptr;
        return false;
    }
    // The info carries the element's full id (numid included), which the writes need.
    snd_ctl_elem_info_get_id(info, id);
    snd_ctl_elem_value_set_id(m_value, id);
    return true;
}

void AlsaDriftCompensator::start()
{
    Tools::trace(Tools::Tracer::Notice, "AlsaDriftCompensator::start");
    DriftCompensator::start();
    std::atomic_thread_fence(std::memory_order_seq_cst);
    m_expiration.refresh(0, 100, 0);
    clearClockMeasurement();
    m_control.reset();
}

void AlsaDriftCompensator::stop()
{
    Tools::trace(Tools::Tracer::Notice, "AlsaDriftCompensator::stop");
    m_expiration.cancel();
    DriftCompensator::stop();
}

bool AlsaDriftCompensator::writeClock()
{
    if (!isRunning())
        return false;
    if (!m_ctl || !m_value) {
        Tools::trace(Tools::Tracer::Error, "STOP DRIFT COMP");
        return false;
    }
    std::atomic_thread_fence(std::memory_order_seq_cst);
    int32_t const delta = m_frameDelta.load();
    std::atomic_thread_fence(std::memory_order_seq_cst);
    m_average.addValue(delta);
    m_control.process(static_cast<int>(delta));
    auto const value = static_cast<int32_t>(m_control.getOutput().toFloat());
    if (value != m_lastValue) {
        writeValue(value);
        m_lastValue = value;
    }
    reportFrameDelta(delta);
    m_expiration.refresh(0, 100, 0);
    return true;
}

void AlsaDriftCompensator::resetDriftCompensator()
{
    if (m_ctl && m_value)
        writeValue(0);
}

void AlsaDriftCompensator::writeValue(int32_t value)
{
    snd_ctl_elem_value_set_integer(m_value, 0, value);
    int const result = snd_ctl_elem_write(m_ctl, m_value);
    if (result < 0)
        Tools::trace(Tools::Tracer::Error, "AlsaDriftCompensator: Can't write to ALSA control", s_controlName,
                     snd_strerror(result));
}

} // namespace Zelmar
