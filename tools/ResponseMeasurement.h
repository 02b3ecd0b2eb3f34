#pragma once

#include "dsp/Chain.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "tools/FileAudioBuffers.h"
#include "tools/SteppedSine.h"

#include <complex>
#include <cstdint>
#include <vector>

namespace Zelmar {
namespace Host {

// Measures a compiled chain's frequency response by running it: a steady sine goes into both capture
// channels, and once the chain has settled, the output channels are compared with it by a single-bin
// DFT over whole periods of the sine. Quantisation, clipping, limiters and volume-adaptive modules
// therefore show as they act at the level played. The chain runs on from one frequency to the next
// (the sine steps without a jump in phase), so each point starts near its own steady state.
class ResponseMeasurement
{
public:
    // The response at one frequency: output over input as a complex gain, one per output channel.
    struct Point
    {
        double frequency = 0.0;
        std::vector<std::complex<double>> gains;
        // False when the gains still changed between the last two windows when time ran out.
        bool settled = false;
    };

    // Plays at `inputRate` (a resampler's source rate, else the chain's) `levelDb` below full scale.
    // The output stage is opened at full level, so no fade is measured.
    ResponseMeasurement(Chain& chain, InputStage& input, OutputStage& output, unsigned int inputRate,
                        double levelDb);

    Point measure(double frequency);

    // Input frames per period; 0 when not even one input frame's worth of output fits into the chain.
    static unsigned int periodFrames(unsigned int inputRate, unsigned int chainRate);

    // Settled means: two successive windows agree within this part of the gain (about 0.01 dB or 0.06
    // degrees), or of c_silence where the gain itself is smaller, plus c_noiseMargin times the
    // uncertainty that the chain's own noise leaves in a window's gain (which matters at low levels).
    static constexpr double c_agreement = 1e-3;
    static constexpr double c_silence = 1e-3;
    static constexpr double c_noiseMargin = 4.0;
    // A window holds whole periods of the sine, which keeps its harmonics out of the bin, and at least
    // this many frames, over which the chain's noise averages out.
    static constexpr unsigned int c_minWindowFrames = 4096;
    // How long one frequency may take to settle before its last window is taken as it is.
    static constexpr double c_maxSettleSeconds = 2.0;

private:
    // One window's gains, and the standard uncertainty of each from the noise in the output.
    struct Window
    {
        std::vector<std::complex<double>> gains;
        std::vector<double> noise;
    };

    Window measureWindow(unsigned int frames);
    static bool agree(Window const& before, Window const& after);
    void playPeriod();
    void fillCapturePeriod();
    unsigned int windowFrames(double frequency) const;

    Chain& m_chain;
    unsigned int m_chainRate;
    unsigned int m_periodFrames;
    // Peak of the played sine in raw sample units.
    double m_amplitude;
    SteppedSine m_sine;
    FileAudioBuffers m_capture;
    FileAudioBuffers m_playback;
    std::vector<tSample> m_captureSamples;
    // Output of the last period, per channel, and how much of it is used up.
    std::vector<std::vector<tSample>> m_output;
    unsigned int m_outputFrames = 0;
    unsigned int m_outputUsed = 0;
    uint64_t m_inputPosition = 0;
    uint64_t m_outputPosition = 0;
};

} // namespace Host
} // namespace Zelmar
