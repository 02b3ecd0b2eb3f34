#pragma once

#include <cstdint>

namespace Zelmar {

class Chain;
class InputStage;

namespace Host {

class FileAudioBuffers;
class SoundFileWriter;

// A resampling input stage keeps back the last input frames it interpolates between. At the end of a
// file, copies of its last frame push them out, so that the output ends where the rate ratio puts the
// end of the input: 220500 frames at 44.1 kHz give 240000 at 48 kHz. A time stretcher further down
// keeps what it changed the length by.
class ResamplerTail
{
public:
    ResamplerTail(InputStage const& input, FileAudioBuffers& capture, unsigned int inRate,
                  unsigned int outRate);

    // After the chain has processed a period of `framesIn` input frames.
    void afterPeriod(unsigned int framesIn);
    // After the last period: processes the held frames and writes what the input still owes.
    void flush(Chain& chain, FileAudioBuffers& playback, SoundFileWriter& writer);

private:
    InputStage const& m_input;
    FileAudioBuffers& m_capture;
    unsigned int m_inRate;
    unsigned int m_outRate;
    uint64_t m_framesIn = 0;
    uint64_t m_framesResampled = 0;
    unsigned int m_lastPeriodFrames = 0;
};

} // namespace Host
} // namespace Zelmar
