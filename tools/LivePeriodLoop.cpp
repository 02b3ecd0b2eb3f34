#include "tools/LivePeriodLoop.h"

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "tools/AlsaPcm.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace Zelmar {
namespace Host {

namespace {

uint64_t nowNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return uint64_t(now.tv_sec) * 1000000000u + uint64_t(now.tv_nsec);
}

} // namespace

LivePeriodLoop::LivePeriodLoop(std::unique_ptr<LiveChain> chain, PeriodSource& source, AlsaPcm& playback,
                               Settings const& settings, LiveTelemetry& telemetry)
    : m_source(source), m_playback(playback), m_settings(settings), m_telemetry(telemetry),
      m_captured(source.makeBuffers()), m_played(playback.makeBuffers()), m_chains(std::move(chain))
{
    attach(m_chains.getCurrent());
}

void LivePeriodLoop::attach(LiveChain& chain)
{
    chain.getInput().setInput(m_captured.get());
    chain.getOutput().setOutput(m_played.get());
}

bool LivePeriodLoop::offer(std::unique_ptr<LiveChain>& next, std::function<void()> onSwapped)
{
    if (isSwapping())
        return false;
    attach(*next);
    return m_chains.offer(next, std::move(onSwapped));
}

void LivePeriodLoop::run(std::atomic<bool> const& stopRequested)
{
    runPeriods(stopRequested);
    m_telemetry.state.store(LiveTelemetry::c_stopped, std::memory_order_relaxed);
}

void LivePeriodLoop::runPeriods(std::atomic<bool> const& stopRequested)
{
    // The sound fades in over the output stage's 100 ms rather than starting with a click.
    m_chains.getCurrent().getOutput().initialMute();
    if (!startDevices())
        return;
    m_chains.getCurrent().getOutput().setMute(false);
    m_telemetry.state.store(LiveTelemetry::c_running, std::memory_order_relaxed);

    uint64_t frames = 0;
    while (!isOver(frames, stopRequested)) {
        uint64_t const left = m_settings.maxFrames ? m_settings.maxFrames - frames : UINT64_MAX;
        int const captured =
            m_source.readPeriod(*m_captured, unsigned(std::min<uint64_t>(left, m_settings.periodFrames)));
        if (captured == 0)
            break;
        if (captured < 0) {
            if (!recover(LiveTelemetry::c_capture, captured))
                return;
            continue;
        }
        frames += unsigned(captured);
        if (!playPeriod(frames))
            return;
    }
    if (int const error = m_playback.drain(); error < 0)
        fail(m_playback, error);
    m_source.stop();
}

// Over when the frames asked for are through, or when a fade-out asked for by a signal has ended: after
// a second at the latest, since a system sound may keep the output open.
bool LivePeriodLoop::isOver(uint64_t frames, std::atomic<bool> const& stopRequested)
{
    OutputStage& output = m_chains.getCurrent().getOutput();
    if (m_fadedOutBy == c_notFading && stopRequested.load(std::memory_order_relaxed)) {
        output.setMute(true);
        m_fadedOutBy = frames + m_settings.sampleRate;
        m_telemetry.state.store(LiveTelemetry::c_stopping, std::memory_order_relaxed);
    }
    bool const fadedOut = m_fadedOutBy != c_notFading && (output.isMuting() || frames >= m_fadedOutBy);
    return fadedOut || (m_settings.maxFrames && frames >= m_settings.maxFrames);
}

// A chain handed over takes over once the one playing has faded out, as at the end of a run; a run
// that is ending keeps the one it has.
LiveChain& LivePeriodLoop::chainForPeriod(uint64_t frames)
{
    LiveChain& current = m_chains.getCurrent();
    if (m_fadedOutBy != c_notFading || !m_chains.hasOffer())
        return current;
    if (m_swapBy == c_notFading) {
        current.getOutput().setMute(true);
        m_swapBy = frames + m_settings.sampleRate;
        m_telemetry.state.store(LiveTelemetry::c_swapping, std::memory_order_relaxed);
        return current;
    }
    if (!current.getOutput().isMuting() && frames < m_swapBy)
        return current;
    m_swapBy = c_notFading;
    LiveChain& next = m_chains.swap();
    next.getOutput().initialMute();
    next.getOutput().setMute(false);
    m_telemetry.state.store(LiveTelemetry::c_running, std::memory_order_relaxed);
    return next;
}

// Takes the captured period through the chain to the playback; false when the playback failed.
bool LivePeriodLoop::playPeriod(uint64_t frames)
{
    LiveChain& chain = chainForPeriod(frames);
    uint64_t const started = nowNanoseconds();
    // The chain decides how many frames leave it; an untouched playback period plays none.
    m_played->setNumFrames(0);
    chain.getChain().process();
    uint64_t const busy = nowNanoseconds() - started;
    m_telemetry.periodTimes.record(busy);
    LiveTelemetry::add(m_telemetry.busyNanoseconds, busy);
    m_telemetry.frames.store(frames, std::memory_order_relaxed);
    m_telemetry.clippedSamples.store(m_played->getClippedSamples(), std::memory_order_relaxed);
    int const written = m_playback.writePeriod(*m_played, m_played->getNumFrames());
    if (written < 0)
        return recover(LiveTelemetry::c_playback, written);
    measureLatency(chain, m_captured->getNumFrames());
    return true;
}

// Captured and not read plus written and not played: the two devices' positions apart, which moves only
// as far as their clocks drift (and the compensator corrects).
void LivePeriodLoop::measureLatency(LiveChain& chain, unsigned int frames)
{
    int const captured = m_source.delay();
    int const queued = m_playback.delay();
    // An xrun, which the next transfer reports and recovers from.
    if (captured < 0 || queued < 0)
        return;
    int const latency = captured + queued;
    if (m_latencyAtStart == c_unmeasured)
        m_latencyAtStart = latency;
    int const delta = latency - m_latencyAtStart;
    m_telemetry.latency.store(latency, std::memory_order_relaxed);
    m_telemetry.latencyDelta.store(delta, std::memory_order_relaxed);
    if (latency < m_telemetry.latencyMin.load(std::memory_order_relaxed))
        m_telemetry.latencyMin.store(latency, std::memory_order_relaxed);
    if (latency > m_telemetry.latencyMax.load(std::memory_order_relaxed))
        m_telemetry.latencyMax.store(latency, std::memory_order_relaxed);

    if (!chain.compensatesDrift())
        return;
    LiveTelemetry::add<uint64_t>(m_telemetry.compensatedFrames, frames);
    int const correction = chain.compensate(delta);
    if (correction > 0)
        LiveTelemetry::add<uint64_t>(m_telemetry.framesDropped, 1);
    else if (correction < 0)
        LiveTelemetry::add<uint64_t>(m_telemetry.framesInserted, 1);
}

bool LivePeriodLoop::startDevices()
{
    // Both devices start from scratch: the capture empty, the playback's whole buffer primed with
    // silence, so that it holds as much as it can before the first period arrives.
    m_latencyAtStart = c_unmeasured;
    if (int const error = m_source.stop(); error < 0)
        return fail(m_source, error);
    if (int const error = m_playback.stop(); error < 0)
        return fail(m_playback, error);
    if (int const error = m_playback.writeSilence(m_playback.getBufferFrames()); error < 0)
        return fail(m_playback, error);
    if (int const error = m_playback.start(); error < 0)
        return fail(m_playback, error);
    if (int const error = m_source.start(); error < 0)
        return fail(m_source, error);
    return true;
}

bool LivePeriodLoop::recover(LiveTelemetry::Side side, int error)
{
    PeriodSource const& device = side == LiveTelemetry::c_capture ? m_source : m_playback;
    if (error != -EPIPE)
        return fail(device, error);
    LiveTelemetry::add<uint32_t>(m_telemetry.xruns[side], 1);
    if (!startDevices())
        return false;
    m_chains.getCurrent().getOutput().initialMute();
    return true;
}

bool LivePeriodLoop::fail(PeriodSource const& device, int error)
{
    m_failedDevice = &device;
    m_failure = error;
    return false;
}

std::string LivePeriodLoop::describeFailure() const
{
    return m_failedDevice ? m_failedDevice->describe() + ": " + snd_strerror(m_failure) : "";
}

} // namespace Host
} // namespace Zelmar
