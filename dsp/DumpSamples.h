#pragma once

#include "dsp/DropReport.h"
#include "dsp/Module.h"
#include "dsp/OneWriterOneReaderRingBuffer.h"
#include "dsp/WorkerWakeup.h"

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

namespace Zelmar {

// Debugging aid ("dump-samples"): passes its one input through unchanged (in place when it can)
// and records every frame that reaches it to a file.
//
// Parameters: "directory" (required) names an existing directory; every setParameters starts a new
// recording in <directory>/<id>.raw, truncating an earlier one. The module id must not contain '/'.
//
// File format: no header; one signed 32-bit word per frame in the host's byte order, holding the raw
// Q4.27 sample (so 1.0 is 0x08000000), mono, at the chain's sample rate. For example
// `sox -t raw -e signed -b 32 -c 1 -r 48000 -v 16 left.raw left.wav` makes it playable.
//
// The audio thread only copies into a ring buffer; a worker thread writes the file. Samples the worker
// has no room for are dropped, counted and reported on the main loop. Everything queued is written
// before the file is closed (at the next setParameters or on destruction).
class DumpSamples : public Module
{
public:
    // 2^17 frames: 2.7 s at 48 kHz (512 KiB) of slack for a slow storage device.
    static constexpr unsigned int c_defaultCapacity = 0x20000;
    static constexpr unsigned int c_wakeThreshold = 0x1000;

    explicit DumpSamples(Tools::String const& id, unsigned int capacity = c_defaultCapacity);
    ~DumpSamples() override;

    bool canProcessInPlace() const override { return true; }
    void setParameters(Parameters const& parameters, unsigned int sampleRate) override;
    unsigned int getNumOutPorts() const override { return 1; }
    unsigned int getNumInPorts() const override { return 1; }
    void process() override;

    std::string const& getPath() const { return m_path; }
    uint32_t getDroppedSamples() const { return m_dropped.getTotal(); }

private:
    enum class State
    {
        Idle,      // no file; process() leaves the ring buffer alone
        Recording, // worker running; process() queues
        Stopping,  // worker draining; process() leaves the ring buffer alone
    };

    void startRecording(std::FILE* file);
    void stopRecording();
    void runWorker(std::FILE* file);

    OneWriterOneReaderRingBuffer<tSample> m_ring;
    std::atomic<State> m_state{State::Idle};
    std::atomic<bool> m_stop{false};
    WorkerWakeup m_wakeup;
    DropReport m_dropped;
    std::string m_path;
    std::thread m_worker;
};

} // namespace Zelmar
