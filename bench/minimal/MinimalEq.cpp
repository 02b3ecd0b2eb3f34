// The least a program can do to run the ten-band equaliser of configs/ten-band-eq.xml over a WAV file:
// read it with libsndfile, run the library's section loop ten times per channel, write it back. What
// bench/vs-minimal.sh holds `orvandeldsp run` against; no checks, no chain, no stages.
#include "dsp/BiQuadSection.h"

#include <sndfile.h>

#include <cstdio>
#include <vector>

using namespace Zelmar;

namespace {

constexpr unsigned int c_period = 1024;
constexpr unsigned int c_channels = 2;

// The bands of configs/ten-band-eq.xml: frequency, Q, gain in dB.
struct Band
{
    double frequency, q, gain;
};
constexpr Band c_bands[] = {{31, 1.4, 3},   {63, 1.4, -2},   {125, 1.4, 1.5}, {250, 1.4, -3},
                            {500, 1.4, 2},  {1000, 1.4, -2}, {2000, 1.4, 3},  {4000, 1.4, -1.5},
                            {8000, 1.4, 2}, {16000, 1.4, -3}};
constexpr unsigned int c_numBands = sizeof c_bands / sizeof c_bands[0];

// As the output stage writes S32: clipped to just below 1.0, the four headroom bits dropped.
int32_t toS32(tSample sample)
{
    int32_t const raw = sample.getRaw();
    int32_t const clipped = raw < -0x08000000 ? -0x08000000 : raw > 0x07FFFFFF ? 0x07FFFFFF : raw;
    return int32_t(uint32_t(clipped) << 4);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: orvandeldsp-minimal-eq IN.wav OUT.wav (48 kHz stereo)\n");
        return 2;
    }
    SF_INFO info{};
    SNDFILE* in = sf_open(argv[1], SFM_READ, &info);
    if (!in || info.channels != int(c_channels)) {
        std::fprintf(stderr, "orvandeldsp-minimal-eq: cannot read %s as stereo\n", argv[1]);
        return 1;
    }
    SF_INFO outInfo = info;
    outInfo.format = SF_FORMAT_WAV | SF_FORMAT_PCM_32;
    SNDFILE* out = sf_open(argv[2], SFM_WRITE, &outInfo);
    if (!out) {
        std::fprintf(stderr, "orvandeldsp-minimal-eq: cannot write %s\n", argv[2]);
        return 1;
    }
    BiQuadSection sections[c_numBands];
    for (unsigned int b = 0; b < c_numBands; ++b)
        sections[b].design(AudioFilter::Characteristic::Peak, info.samplerate, c_bands[b].frequency,
                           c_bands[b].q, c_bands[b].gain);
    tSample z1[c_channels][c_numBands] = {}, z2[c_channels][c_numBands] = {};
    std::vector<int32_t> frames(c_period * c_channels);
    std::vector<tSample> channel[c_channels] = {std::vector<tSample>(c_period),
                                                std::vector<tSample>(c_period)};
    for (sf_count_t n; (n = sf_readf_int(in, frames.data(), c_period)) > 0;) {
        auto const count = unsigned(n);
        for (unsigned int c = 0; c < c_channels; ++c) {
            tSample* samples = channel[c].data();
            for (unsigned int f = 0; f < count; ++f)
                samples[f] = tSample(frames[f * c_channels + c] >> 4);
            for (unsigned int b = 0; b < c_numBands; ++b)
                sections[b].run(samples, samples, count, z1[c][b], z2[c][b]);
            for (unsigned int f = 0; f < count; ++f)
                frames[f * c_channels + c] = toS32(samples[f]);
        }
        sf_writef_int(out, frames.data(), n);
    }
    sf_close(in);
    return sf_close(out) == 0 ? 0 : 1;
}
