#include "tools/ResponseMeasurement.h"

#include "dsp/FormatConversion.h"
#include "tools/ToolError.h"

#include <algorithm>
#include <cmath>

namespace Zelmar {
namespace Host {

namespace {

// S32 holds every sample bit and clips as the converters do, so the output is what a card would get.
constexpr snd_pcm_format_t c_format = SND_PCM_FORMAT_S32_LE;
constexpr unsigned int c_periodFrames = 1024;
// A resampler makes up to chainRate / inputRate times as many frames of a period, plus one; they must
// fit into the chain's buffers with room to spare.
constexpr unsigned int c_resampledFrames = 1200;
// The largest sample the capture side delivers: full scale less one step.
constexpr double c_fullScale = double((1 << 27) - 1);
// A chain that delivers nothing for this many periods in a row never will.
constexpr unsigned int c_maxEmptyPeriods = 64;

} // namespace

ResponseMeasurement::ResponseMeasurement(Chain& chain, InputStage& input, OutputStage& output,
                                         unsigned int inputRate, double levelDb)
    : m_chain(chain), m_chainRate(chain.getSampleRate()),
      m_periodFrames(periodFrames(inputRate, m_chainRate)),
      m_amplitude(c_fullScale * std::pow(10.0, levelDb / 20.0)), m_sine(inputRate, m_chainRate),
      m_capture(c_format, 2, m_periodFrames),
      m_playback(c_format, output.getNumInPorts(), Chain::getMaxNumFramesPerProcessCall()),
      m_captureSamples(m_periodFrames),
      m_output(output.getNumInPorts(), std::vector<tSample>(Chain::getMaxNumFramesPerProcessCall()))
{
    m_capture.setNumFrames(m_periodFrames);
    input.setInput(&m_capture);
    output.setOutput(&m_playback);
    // A fresh stage is at full level, so this opens it without a fade.
    output.setMute(false);
}

unsigned int ResponseMeasurement::periodFrames(unsigned int inputRate, unsigned int chainRate)
{
    return unsigned(std::min<uint64_t>(c_periodFrames, uint64_t(c_resampledFrames) * inputRate / chainRate));
}

ResponseMeasurement::Point ResponseMeasurement::measure(double frequency)
{
    m_sine.retune(frequency, m_inputPosition);
    // What is left of the last period was played at the frequency before.
    m_outputPosition += m_outputFrames - m_outputUsed;
    m_outputUsed = m_outputFrames;

    unsigned int const frames = windowFrames(frequency);
    unsigned int const maxWindows =
        std::max(3u, unsigned(std::ceil(c_maxSettleSeconds * m_chainRate / frames)));
    Window last = measureWindow(frames);
    bool settled = false;
    for (unsigned int window = 1; window < maxWindows && !settled; ++window) {
        Window next = measureWindow(frames);
        settled = agree(last, next);
        last = std::move(next);
    }
    return {frequency, last.gains, settled};
}

unsigned int ResponseMeasurement::windowFrames(double frequency) const
{
    double const framesPerCycle = m_chainRate / frequency;
    double const cycles = std::ceil(c_minWindowFrames / framesPerCycle);
    return unsigned(std::lround(cycles * framesPerCycle));
}

bool ResponseMeasurement::agree(Window const& before, Window const& after)
{
    for (size_t c = 0; c < after.gains.size(); ++c) {
        double const tolerance = c_agreement * std::max(std::abs(after.gains[c]), c_silence) +
                                 c_noiseMargin * std::max(before.noise[c], after.noise[c]);
        if (std::abs(before.gains[c] - after.gains[c]) > tolerance)
            return false;
    }
    return true;
}

// A single-bin DFT: each output channel correlated with the sine's own phase t. For
// y = A g sin(t + p), with G = A g e^(ip), the sum D = sum(y e^(-it)) over N frames is
// (G N - conj(G) S) / 2i, where S = sum(e^(-2it)) is the sine's negative-frequency image. S vanishes
// only over whole periods that are also whole frames, so it is taken out rather than neglected:
// G = 2i (D N - S conj(D)) / (N^2 - |S|^2).
// What the sine and the offset leave of the output is taken for noise, and its share in the bin for
// the uncertainty of the gain; harmonics count too, which only widens the tolerance.
ResponseMeasurement::Window ResponseMeasurement::measureWindow(unsigned int frames)
{
    struct Sums
    {
        std::complex<double> correlation;
        double values = 0.0;
        double squares = 0.0;
    };
    std::vector<Sums> sums(m_output.size());
    std::complex<double> image;
    unsigned int remaining = frames;
    while (remaining > 0) {
        if (m_outputUsed == m_outputFrames)
            playPeriod();
        unsigned int const taken = std::min(remaining, m_outputFrames - m_outputUsed);
        std::complex<double> reference = std::polar(1.0, -m_sine.phaseAtOutput(m_outputPosition));
        std::complex<double> const step = std::polar(1.0, -m_sine.outputStep());
        for (unsigned int f = m_outputUsed; f < m_outputUsed + taken; ++f) {
            for (size_t c = 0; c < m_output.size(); ++c) {
                double const y = m_output[c][f].getRaw();
                sums[c].correlation += y * reference;
                sums[c].values += y;
                sums[c].squares += y * y;
            }
            image += reference * reference;
            reference *= step;
        }
        m_outputUsed += taken;
        m_outputPosition += taken;
        remaining -= taken;
    }

    double const n = frames;
    std::complex<double> const toSine(0.0, 2.0 / (n * n - std::norm(image)));
    Window window;
    for (auto const& channel : sums) {
        std::complex<double> const sine =
            toSine * (channel.correlation * n - image * std::conj(channel.correlation));
        // The energy of the fitted sine over the window: the sum of Im(G e^(it))^2.
        double const sineEnergy = (n * std::norm(sine) - (sine * sine * std::conj(image)).real()) / 2.0;
        double const residual = channel.squares - channel.values * channel.values / n - sineEnergy;
        window.gains.push_back(sine / m_amplitude);
        // White noise of variance r^2 moves G by 2 r / sqrt(N), root mean square.
        window.noise.push_back(2.0 * std::sqrt(std::max(residual, 0.0)) / (n * m_amplitude));
    }
    return window;
}

void ResponseMeasurement::playPeriod()
{
    for (unsigned int empty = 0; empty < c_maxEmptyPeriods; ++empty) {
        fillCapturePeriod();
        m_playback.setNumFrames(0);
        m_chain.process();
        m_outputFrames = m_playback.getChannel(0).getNumFrames();
        m_outputUsed = 0;
        for (size_t c = 0; c < m_output.size(); ++c)
            FormatConversion::convertFrom(c_format, m_playback.getChannel(unsigned(c)).bytes(),
                                          m_output[c].data(), m_outputFrames);
        if (m_outputFrames > 0)
            return;
    }
    throw ToolError(ToolError::c_badInput, "the chain delivers no audio to its output stage");
}

void ResponseMeasurement::fillCapturePeriod()
{
    std::complex<double> phasor = std::polar(1.0, m_sine.phaseAtInput(m_inputPosition));
    std::complex<double> const step = std::polar(1.0, m_sine.inputStep());
    for (auto& sample : m_captureSamples) {
        sample = tSample(int32_t(std::lround(m_amplitude * phasor.imag())));
        phasor *= step;
    }
    for (unsigned int c = 0; c < 2; ++c)
        FormatConversion::convertTo(c_format, m_captureSamples.data(), m_capture.getChannel(c).bytes(),
                                    m_periodFrames);
    m_inputPosition += m_periodFrames;
}

} // namespace Host
} // namespace Zelmar
