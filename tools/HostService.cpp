#include "tools/HostService.h"

#include "dbus/HostDbus.h"
#include "dsp/Chain.h"
#include "dsp/Meter.h"
#include "dsp/ModuleDescriptor.h"
#include "tools/ChainReloader.h"
#include "tools/ControlBus.h"
#include "tools/LivePeriodLoop.h"
#include "tools/LiveTelemetry.h"
#include "tools/ToolError.h"

#include <cmath>
#include <cstdio>
#include <malloc.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

constexpr guint c_refreshMs = 1000;

OrvandelDspHostDbus* hostDbus(gpointer skeleton)
{
    return ORVANDEL_DSP_HOST_DBUS(skeleton);
}

char const* describeState(LiveTelemetry::State state)
{
    switch (state) {
    case LiveTelemetry::c_starting:
        return "starting";
    case LiveTelemetry::c_running:
        return "running";
    case LiveTelemetry::c_swapping:
        return "reloading";
    case LiveTelemetry::c_stopping:
        return "stopping";
    case LiveTelemetry::c_stopped:
        break;
    }
    return "stopped";
}

double microseconds(uint64_t nanoseconds)
{
    return double(nanoseconds) / 1000.0;
}

uint64_t heapBytes()
{
    struct mallinfo2 const heap = mallinfo2();
    return uint64_t(heap.uordblks) + uint64_t(heap.hblkhd);
}

uint64_t residentBytes()
{
    unsigned long long pages = 0;
    std::FILE* statm = std::fopen("/proc/self/statm", "r");
    if (statm) {
        if (std::fscanf(statm, "%*u %llu", &pages) != 1)
            pages = 0;
        std::fclose(statm);
    }
    return pages * uint64_t(sysconf(_SC_PAGESIZE));
}

// Each meter's peak since the last refresh, which takes it.
GVariant* takeMeterPeaks(std::vector<Meter*> const& meters)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sd)"));
    for (Meter* meter : meters) {
        double const peak = meter->exchange(0.0f);
        g_variant_builder_add(&builder, "(sd)", meter->getID().c_str(),
                              peak > 0.0 ? 20.0 * std::log10(peak) : -INFINITY);
    }
    return g_variant_builder_end(&builder);
}

// Every key the module's type accepts, not only those its config set, so that a client can refuse a
// typo without refusing a key the config left at its default.
GVariant* describeModules(Chain const& chain)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ssas)"));
    for (auto const& module : chain.getModules()) {
        GVariantBuilder keys;
        g_variant_builder_init(&keys, G_VARIANT_TYPE("as"));
        if (ModuleDescriptor const* const descriptor = module->getDescriptor()) {
            for (auto const& parameter : descriptor->getParameters())
                g_variant_builder_add(&keys, "s", parameter.getKey());
        }
        g_variant_builder_add(&builder, "(ssas)", module->getID().c_str(), module->getType().c_str(), &keys);
    }
    return g_variant_builder_end(&builder);
}

GVariant* describeProfile(Chain const& chain, unsigned int periodFrames)
{
    auto const times = chain.getProfile();
    uint64_t total = 0;
    for (auto const& time : times)
        total += time.nanoseconds;
    double const frames = double(chain.getNumProfiledPeriods()) * periodFrames;
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sdd)"));
    for (auto const& time : times)
        g_variant_builder_add(&builder, "(sdd)", time.module->getID().c_str(),
                              frames > 0 ? double(time.nanoseconds) / frames : 0.0,
                              total ? 100.0 * double(time.nanoseconds) / double(total) : 0.0);
    return g_variant_builder_end(&builder);
}

} // namespace

HostService::HostService(GBusType bus, Run const& run, LivePeriodLoop const& loop,
                         LiveTelemetry const& telemetry, ChainReloader& reloader)
    : m_run(run), m_loop(loop), m_telemetry(telemetry), m_reloader(reloader),
      m_connection(ControlBus::connect(bus))
{
    try {
        ControlBus::tryToOwn(m_connection, c_busName, bus, "another live run");
        m_service = std::make_unique<Tools::DbusService>(m_connection, c_busName, c_objectPath,
                                                         orvandel_dsp_host_dbus_skeleton_get_type());
        gpointer const skeleton = m_service->getSkeleton();
        m_reloadHandler =
            g_signal_connect(skeleton, "handle-reload", G_CALLBACK(&HostService::onReload), this);
        OrvandelDspHostDbus* const host = hostDbus(skeleton);
        orvandel_dsp_host_dbus_set_input(host, m_run.input.c_str());
        orvandel_dsp_host_dbus_set_playback(host, m_run.playback.c_str());
        orvandel_dsp_host_dbus_set_rate(host, m_run.sampleRate);
        orvandel_dsp_host_dbus_set_period_frames(host, m_run.periodFrames);
        refresh();
        ControlBus::waitUntilOwned([this] { return m_service->isNameOwned(); }, c_busName, bus);
    } catch (...) {
        if (m_reloadHandler)
            g_signal_handler_disconnect(m_service->getSkeleton(), m_reloadHandler);
        m_service.reset();
        g_object_unref(m_connection);
        throw;
    }
    m_refreshTimer = g_timeout_add(
        c_refreshMs,
        [](gpointer self) {
            static_cast<HostService*>(self)->refresh();
            return gboolean(G_SOURCE_CONTINUE);
        },
        this);
}

HostService::~HostService()
{
    g_source_remove(m_refreshTimer);
    g_signal_handler_disconnect(m_service->getSkeleton(), m_reloadHandler);
    m_service.reset();
    g_object_unref(m_connection);
}

void HostService::refresh()
{
    gpointer const skeleton = m_service->getSkeleton();
    refreshTelemetry(skeleton);
    refreshChain(skeleton);
}

void HostService::refreshTelemetry(gpointer skeleton)
{
    OrvandelDspHostDbus* const host = hostDbus(skeleton);
    LiveTelemetry const& t = m_telemetry;
    auto const& times = t.periodTimes;
    double const periodNanoseconds = 1e9 * m_run.periodFrames / m_run.sampleRate;
    orvandel_dsp_host_dbus_set_frames(host, t.frames.load());
    orvandel_dsp_host_dbus_set_capture_xruns(host, t.xruns[LiveTelemetry::c_capture].load());
    orvandel_dsp_host_dbus_set_playback_xruns(host, t.xruns[LiveTelemetry::c_playback].load());
    orvandel_dsp_host_dbus_set_load(host, takeLoadSinceLastRefresh());
    orvandel_dsp_host_dbus_set_load_max(host, 100.0 * double(times.getMax()) / periodNanoseconds);
    orvandel_dsp_host_dbus_set_period_time_median(host, microseconds(times.quantile(0.5)));
    orvandel_dsp_host_dbus_set_period_time_p99(host, microseconds(times.quantile(0.99)));
    orvandel_dsp_host_dbus_set_period_time_max(host, microseconds(times.getMax()));
    orvandel_dsp_host_dbus_set_latency(host, t.latency.load());
    orvandel_dsp_host_dbus_set_latency_delta(host, t.latencyDelta.load());
    uint64_t const compensated = t.compensatedFrames.load();
    double const corrected = double(t.framesDropped.load()) - double(t.framesInserted.load());
    orvandel_dsp_host_dbus_set_drift_correction(host,
                                                compensated ? 1e6 * corrected / double(compensated) : 0.0);
    orvandel_dsp_host_dbus_set_clipped_samples(host, t.clippedSamples.load());
    orvandel_dsp_host_dbus_set_heap_bytes(host, heapBytes());
    orvandel_dsp_host_dbus_set_resident_bytes(host, residentBytes());
}

void HostService::refreshChain(gpointer skeleton)
{
    OrvandelDspHostDbus* const host = hostDbus(skeleton);
    LiveChain const& chain = m_loop.getChain();
    LiveTelemetry::State const state = m_telemetry.state.load();
    orvandel_dsp_host_dbus_set_state(host,
                                     describeState(state == LiveTelemetry::c_running && m_loop.isSwapping()
                                                       ? LiveTelemetry::c_swapping
                                                       : state));
    gchar* const config = g_canonicalize_filename(chain.getConfig().c_str(), nullptr);
    orvandel_dsp_host_dbus_set_config(host, config);
    g_free(config);
    orvandel_dsp_host_dbus_set_drift_compensator(host, chain.getCompensatorName().c_str());
    orvandel_dsp_host_dbus_set_meters(host, takeMeterPeaks(chain.getMeters()));
    orvandel_dsp_host_dbus_set_modules(host, describeModules(chain.getChain()));
    orvandel_dsp_host_dbus_set_profile(host, describeProfile(chain.getChain(), m_run.periodFrames));
    orvandel_dsp_host_dbus_set_reloads(host, m_reloader.getReloads());
}

double HostService::takeLoadSinceLastRefresh()
{
    uint64_t const busy = m_telemetry.busyNanoseconds.load();
    uint64_t const periods = m_telemetry.periodTimes.getCount();
    double const periodNanoseconds = 1e9 * m_run.periodFrames / m_run.sampleRate;
    double const load = periods > m_periods ? 100.0 * double(busy - m_busyNanoseconds) /
                                                  (double(periods - m_periods) * periodNanoseconds)
                                            : 0.0;
    m_busyNanoseconds = busy;
    m_periods = periods;
    return load;
}

// Answered once the new chain plays or the reload is refused; the run may end first, so the answer holds
// its own references.
gboolean HostService::onReload(gpointer skeleton, GDBusMethodInvocation* invocation, char const* config,
                               HostService* self)
{
    g_object_ref(skeleton);
    g_object_ref(invocation);
    self->m_reloader.reload(config, [skeleton, invocation](ChainReloader::Outcome const& outcome) {
        if (outcome.status == 0)
            orvandel_dsp_host_dbus_complete_reload(hostDbus(skeleton), invocation);
        else
            g_dbus_method_invocation_return_error_literal(
                invocation, G_DBUS_ERROR,
                outcome.status == ToolError::c_badInput ? G_DBUS_ERROR_INVALID_ARGS : G_DBUS_ERROR_FAILED,
                outcome.message.c_str());
        g_object_unref(invocation);
        g_object_unref(skeleton);
    });
    return TRUE;
}

} // namespace Host
} // namespace Zelmar
