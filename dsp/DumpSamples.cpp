#include "dsp/DumpSamples.h"

#include "base/Tracer.h"
#include "dsp/IllegalArgumentException.h"

#include <algorithm>
#include <vector>

namespace Zelmar {

DumpSamples::DumpSamples(Tools::String const& id, unsigned int capacity)
    : Module(id), m_ring(capacity), m_dropped("DumpSamples " + id, "samples")
{
}

DumpSamples::~DumpSamples()
{
    stopRecording();
}

void DumpSamples::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    Module::setParameters(parameters, sampleRate);
    Tools::String const directory = parameters.getString("directory");
    if (directory.empty())
        throw IllegalArgumentException("DumpSamples %0: parameter \"directory\" is missing", getID());
    if (getID().str().find('/') != std::string::npos)
        throw IllegalArgumentException("DumpSamples %0: the id must not contain '/'", getID());
    stopRecording();
    std::string const path = directory.str() + "/" + getID().str() + ".raw";
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        throw IllegalArgumentException("DumpSamples %0: cannot open %1 for writing", getID(), path);
    m_path = path;
    startRecording(file);
}

void DumpSamples::process()
{
    AudioBuffer const& in = inBuffer(0);
    AudioBuffer& out = outBuffer(0);
    unsigned int const n = in.getNumSampleFrames();
    if (&in != &out) {
        out.setSize(n);
        std::copy(in.getRawData(), in.getRawData() + n, out.getRawData());
    }

    if (m_state.load() != State::Recording)
        return;
    // A period may exceed the free room; push takes what fits and the rest is counted as lost.
    m_dropped.add(n - m_ring.push(in.getRawData(), n));
    if (m_ring.getNumReadable() >= c_wakeThreshold)
        m_wakeup.notify();
}

void DumpSamples::startRecording(std::FILE* file)
{
    // The audio thread may still be inside a push of the recording before, so the counters run on
    // rather than start over; what that recording left unread is not this one's.
    m_ring.skipUnread();
    m_stop.store(false);
    m_state.store(State::Recording);
    m_worker = std::thread([this, file] { runWorker(file); });
}

void DumpSamples::stopRecording()
{
    if (!m_worker.joinable())
        return;
    m_state.store(State::Stopping);
    m_stop.store(true);
    m_wakeup.notify();
    m_worker.join();
    m_state.store(State::Idle);
}

void DumpSamples::runWorker(std::FILE* file)
{
    std::vector<tSample> block(8192);
    bool failed = false;
    for (;;) {
        unsigned int const n = m_ring.pop(block.data(), static_cast<unsigned int>(block.size()));
        if (n > 0) {
            // After a failed write the rest is still taken from the ring buffer, so nothing counts as
            // dropped.
            if (!failed && std::fwrite(block.data(), sizeof(tSample), n, file) != n) {
                failed = true;
                Tools::trace(Tools::Tracer::Error, "DumpSamples", getID(), "writing", m_path, "failed");
            }
        } else if (m_stop.load()) {
            break;
        } else {
            m_wakeup.wait();
        }
    }
    if (std::fclose(file) != 0 && !failed)
        Tools::trace(Tools::Tracer::Error, "DumpSamples", getID(), "writing", m_path, "failed");
}

} // namespace Zelmar
