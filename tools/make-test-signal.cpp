// Writes the test signal the README's first command runs through the default chain: a stereo 24-bit
// WAV with a logarithmic sweep from 20 Hz to 20 kHz at -6 dBFS on the left and a 1 kHz tone at -12 dBFS
// on the right, so that the meters and the output show both channels distinctly.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sndfile.h>
#include <vector>

int main(int argc, char** argv)
{
    if (argc < 2 || argc > 4) {
        std::fprintf(stderr, "usage: orvandeldsp-test-signal OUTPUT.wav [SECONDS] [RATE]\n");
        return 2;
    }
    double const seconds = argc > 2 ? std::atof(argv[2]) : 5.0;
    int const rate = argc > 3 ? std::atoi(argv[3]) : 48000;
    if (seconds <= 0.0 || rate < 1000) {
        std::fprintf(stderr, "orvandeldsp-test-signal: SECONDS must be positive and RATE at least 1000\n");
        return 2;
    }

    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    SNDFILE* file = sf_open(argv[1], SFM_WRITE, &info);
    if (!file) {
        std::fprintf(stderr, "orvandeldsp-test-signal: cannot write %s: %s\n", argv[1], sf_strerror(nullptr));
        return 1;
    }

    auto const frames = static_cast<long>(seconds * rate);
    double const pi = std::acos(-1.0);
    double const sweepRate = std::log(20000.0 / 20.0) / seconds;
    std::vector<double> samples(2 * size_t(frames));
    for (long f = 0; f < frames; ++f) {
        double const t = double(f) / rate;
        // The sweep's phase is the integral of its exponentially rising frequency.
        double const sweepPhase = 2.0 * pi * 20.0 * (std::exp(sweepRate * t) - 1.0) / sweepRate;
        samples[2 * size_t(f)] = 0.5 * std::sin(sweepPhase);
        samples[2 * size_t(f) + 1] = 0.25 * std::sin(2.0 * pi * 1000.0 * t);
    }
    bool const written = sf_writef_double(file, samples.data(), frames) == frames;
    if (sf_close(file) != 0 || !written) {
        std::fprintf(stderr, "orvandeldsp-test-signal: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
