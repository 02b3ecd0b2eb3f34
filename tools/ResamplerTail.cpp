#include "tools/ResamplerTail.h"

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "tools/FileAudioBuffers.h"
#include "tools/SoundFileWriter.h"

#include <algorithm>

namespace Zelmar {
namespace Host {

namespace {

// Each flushing period feeds this many copies of the last frame; the resampler holds back about two.
constexpr unsigned int c_heldFrames = 4;
constexpr unsigned int c_maxFlushPeriods = 8;

} // namespace

ResamplerTail::ResamplerTail(InputStage const& input, FileAudioBuffers& capture, unsigned int inRate,
                             unsigned int outRate)
    : m_input(input), m_capture(capture), m_inRate(inRate), m_outRate(outRate)
{
}

void ResamplerTail::afterPeriod(unsigned int framesIn)
{
    m_framesIn += framesIn;
    m_framesResampled += m_input.getOutPort(0)->getNumSampleFrames();
    m_lastPeriodFrames = framesIn;
}

void ResamplerTail::flush(Chain& chain, FileAudioBuffers& playback, SoundFileWriter& writer)
{
    if (m_inRate == m_outRate || m_lastPeriodFrames == 0)
        return;
    // Rounded to the nearest frame.
    uint64_t const due = (m_framesIn * m_outRate * 2 + m_inRate) / (uint64_t(m_inRate) * 2);
    if (due <= m_framesResampled)
        return;
    uint64_t owed = due - m_framesResampled;
    for (unsigned int period = 0; owed > 0 && period < c_maxFlushPeriods; ++period) {
        m_capture.holdFrame(m_lastPeriodFrames - 1, c_heldFrames);
        m_lastPeriodFrames = c_heldFrames;
        playback.setNumFrames(0);
        chain.process();
        auto const frames =
            static_cast<unsigned int>(std::min<uint64_t>(owed, playback.getChannel(0).getNumFrames()));
        writer.writePeriod(playback, frames);
        owed -= frames;
    }
}

} // namespace Host
} // namespace Zelmar
