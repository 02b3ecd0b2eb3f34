#include "dsp/DriftCompensator.h"

#include "base/Tracer.h"
#include "dsp/AlsaDriftCompensator.h"
#include "dsp/HardwareDriftCompensator.h"
#include "dsp/TimeStretchingDriftCompensator.h"
#include "dsp/TimeStretchingLineInDriftCompensator.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

namespace Zelmar {

namespace {

constexpr long long c_minReportPeriodMs = 50;
constexpr uint64_t c_defaultReportPeriodMs = 500;

bool fileExists(char const* path)
{
    struct stat info;
    return stat(path, &info) == 0;
}

} // namespace

Tools::String DriftCompensator::s_enableFrameDiffFile = "/etc/orvandel/drift_comp_info_enabled";
std::atomic<bool> DriftCompensator::s_enableFrameDiff{false};
std::atomic<uint64_t> DriftCompensator::s_diffReportDelta{c_defaultReportPeriodMs};

std::unique_ptr<DriftCompensator> DriftCompensator::create(Tools::Hardware::DriftCompensatorType type)
{
    using Type = Tools::Hardware::DriftCompensatorType;
    switch (type) {
    case Type::HardwareClock:
        return std::make_unique<HardwareDriftCompensator>();
    case Type::AlsaControl:
        return std::make_unique<AlsaDriftCompensator>();
    case Type::TimeStretching:
        return std::make_unique<TimeStretchingDriftCompensator>();
    case Type::TimeStretchingLineIn:
        return std::make_unique<TimeStretchingLineInDriftCompensator>();
    }
    return nullptr;
}

DriftCompensator::DriftCompensator()
{
    char const* const marker = s_enableFrameDiffFile.c_str();
    bool const enabled = fileExists(marker);
    s_enableFrameDiff.store(enabled, std::memory_order_relaxed);
    long long period = readLogPeriod(marker);
    if (period < c_minReportPeriodMs)
        period = c_defaultReportPeriodMs;
    s_diffReportDelta.store(static_cast<uint64_t>(period), std::memory_order_relaxed);
    if (enabled)
        Tools::trace(Tools::Tracer::Notice, "DriftCompensator::enabling logging with every",
                     static_cast<unsigned long long>(period), "ms");
}

void DriftCompensator::initChain(Chain&) {}

void DriftCompensator::start()
{
    m_running.store(true);
}

void DriftCompensator::stop()
{
    s_enableFrameDiff.store(false, std::memory_order_relaxed);
    m_running.store(false);
}

int DriftCompensator::setFrameDelta(int delta)
{
    std::atomic_thread_fence(std::memory_order_seq_cst);
    m_frameDelta.store(delta);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return 0;
}

void DriftCompensator::reportFrameDelta(int delta)
{
    if (!isFrameDiffLoggingEnabled())
        return;
    tTimePoint const now = std::chrono::system_clock::now();
    auto const period = std::chrono::milliseconds(getDiffReportDelta());
    if (now - m_lastReport <= period)
        return;
    Tools::trace(Tools::Tracer::Info, "frame delta:", delta, m_average.readAndReset());
    m_lastReport = now;
}

long long DriftCompensator::readLogPeriod(char const* path)
{
    std::ifstream file(path);
    std::string line;
    if (!file || !std::getline(file, line))
        return 0;
    return std::strtoll(line.c_str(), nullptr, 10);
}

Tools::String const& DriftCompensator::getEnableFrameDiffFile()
{
    return s_enableFrameDiffFile;
}

void DriftCompensator::setEnableFrameDiffFile(Tools::String const& path)
{
    s_enableFrameDiffFile = path;
}

void DriftCompensator::AverageValue::addValue(int v)
{
    // Wraps rather than overflowing into undefined behaviour on an absurd run of deltas.
    sum = static_cast<int32_t>(static_cast<uint32_t>(sum) + static_cast<uint32_t>(v));
    count += 1;
}

int DriftCompensator::AverageValue::readAndReset()
{
    int result = 0;
    if (count != 0)
        result = static_cast<int>(std::lround(static_cast<float>(sum) / static_cast<float>(count)));
    sum = 0;
    count = 0;
    return result;
}

} // namespace Zelmar
