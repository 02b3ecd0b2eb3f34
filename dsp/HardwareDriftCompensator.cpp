#include "dsp/HardwareDriftCompensator.h"

#include "base/Tracer.h"

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace Zelmar {

char const* const HardwareDriftCompensator::s_legacyDevicePath = "/sys/bus/spi/drivers/dac7512/spi0.2/value";
char const* const HardwareDriftCompensator::s_devicePath =
    "/sys/devices/platform/spi/spi_master/spi0/spi0.2/iio:device0/out_voltage0_raw";
Tools::String HardwareDriftCompensator::s_deviceRoot;

namespace {

constexpr int32_t c_maxDacValue = 4095;

int openDevice(Tools::String const& path)
{
    return ::open(path.c_str(), O_WRONLY | O_SYNC);
}

} // namespace

HardwareDriftCompensator::HardwareDriftCompensator() : m_expiration([this] { writeClock(); })
{
    m_fd = openDevice(s_deviceRoot + s_legacyDevicePath);
    if (m_fd < 0)
        m_fd = openDevice(s_deviceRoot + s_devicePath);
    if (m_fd < 0) {
        Tools::trace(Tools::Tracer::Alert, "HardwareDriftCompensator: unable to open hardware clock device");
        return;
    }
    Tools::trace(Tools::Tracer::Notice, "HardwareDriftCompensator: HW clock control initialized");
    m_lastReport = std::chrono::system_clock::now();
}

HardwareDriftCompensator::~HardwareDriftCompensator()
{
    m_expiration.cancel();
    if (m_fd >= 0)
        ::close(m_fd);
}

void HardwareDriftCompensator::start()
{
    Tools::trace(Tools::Tracer::Notice, "HardwareDriftCompensator::start");
    DriftCompensator::start();
    std::atomic_thread_fence(std::memory_order_seq_cst);
    m_expiration.refresh(0, 100, 0);
    clearClockMeasurement();
}

void HardwareDriftCompensator::stop()
{
    // The ALSA variant's text on purpose: both variants log the same stop line.
    Tools::trace(Tools::Tracer::Notice, "AlsaDriftCompensator::stop");
    m_expiration.cancel();
    DriftCompensator::stop();
}

int32_t HardwareDriftCompensator::dacValue(int32_t delta)
{
    auto const product = static_cast<int32_t>((static_cast<uint32_t>(delta) + 2u) * 1024u);
    if (product < 0)
        return 0;
    return product > c_maxDacValue ? c_maxDacValue : product;
}

bool HardwareDriftCompensator::writeClock()
{
    if (!isRunning() || m_fd < 0)
        return false;
    std::atomic_thread_fence(std::memory_order_seq_cst);
    int32_t const delta = m_frameDelta.load();
    std::atomic_thread_fence(std::memory_order_seq_cst);
    m_average.addValue(delta);
    int32_t const value = dacValue(delta);
    if (value != m_lastValue) {
        char text[16] = {};
        int const length = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(value));
        // The driver gets the terminating zero as well.
        auto const count = static_cast<ssize_t>(length + 1);
        if (::write(m_fd, text, static_cast<size_t>(count)) != count)
            Tools::trace(Tools::Tracer::Error, "HardwareDriftCompensator: Can't write to",
                         s_deviceRoot + s_devicePath);
        m_lastValue = value;
    }
    reportFrameDelta(delta);
    m_expiration.refresh(0, 100, 0);
    return true;
}

void HardwareDriftCompensator::setDeviceRoot(Tools::String const& root)
{
    s_deviceRoot = root;
}

} // namespace Zelmar
