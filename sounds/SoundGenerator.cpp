// Synthesises the ten system sounds and writes them as 16-bit stereo 44100 Hz FLAC files into the
// directory given as the only argument. Every sound is made here from sines and an envelope.

#include "sounds/FlacWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr unsigned int c_sampleRate = 44100;
constexpr double c_pi = 3.14159265358979323846;
// Peak of every sound, about -6 dBFS, leaving room for the ducked music underneath.
constexpr double c_peak = 0.5;

// A struck tone: partials at whole multiples of the pitch, higher ones dying away faster.
struct Note
{
    double start;     // seconds
    double frequency; // Hz
    double decay;     // seconds for the fundamental to fall to 1/e
    double pan;       // -1 left .. 1 right
    double brightness = 0.35;
};

class Sound
{
public:
    explicit Sound(double seconds) : m_left(frames(seconds)), m_right(frames(seconds)) {}

    Sound& add(Note const& note)
    {
        double const gainLeft = std::sqrt(0.5 * (1.0 - note.pan));
        double const gainRight = std::sqrt(0.5 * (1.0 + note.pan));
        for (std::size_t i = frames(note.start); i < m_left.size(); ++i) {
            double const t = double(i) / c_sampleRate - note.start;
            double const attack = std::min(1.0, t / 0.004);
            double value = 0.0;
            double partialGain = 1.0;
            for (int partial = 1; partial <= 4; ++partial) {
                value += partialGain * std::exp(-t * partial / note.decay) *
                         std::sin(2 * c_pi * note.frequency * partial * t);
                partialGain *= note.brightness;
            }
            m_left[i] += attack * gainLeft * value;
            m_right[i] += attack * gainRight * value;
        }
        return *this;
    }

    // Slow loudness swell, for the waiting prompt.
    Sound& pulse(double rate)
    {
        for (std::size_t i = 0; i < m_left.size(); ++i) {
            double const depth = 0.6 + 0.4 * std::cos(2 * c_pi * rate * double(i) / c_sampleRate);
            m_left[i] *= depth;
            m_right[i] *= depth;
        }
        return *this;
    }

    // Scales to the common peak and ends on a short fade so that no sound stops with a click.
    std::vector<int16_t> render() const
    {
        double peak = 1e-9;
        for (std::size_t i = 0; i < m_left.size(); ++i)
            peak = std::max({peak, std::fabs(m_left[i]), std::fabs(m_right[i])});
        std::size_t const fadeFrames = std::min(m_left.size(), frames(0.01));
        std::vector<int16_t> interleaved(2 * m_left.size());
        for (std::size_t i = 0; i < m_left.size(); ++i) {
            std::size_t const remaining = m_left.size() - i;
            double const fade = remaining < fadeFrames ? double(remaining) / double(fadeFrames) : 1.0;
            double const scale = c_peak / peak * fade * 32767.0;
            interleaved[2 * i] = static_cast<int16_t>(std::lround(m_left[i] * scale));
            interleaved[2 * i + 1] = static_cast<int16_t>(std::lround(m_right[i] * scale));
        }
        return interleaved;
    }

private:
    static std::size_t frames(double seconds) { return static_cast<std::size_t>(seconds * c_sampleRate); }

    std::vector<double> m_left;
    std::vector<double> m_right;
};

// Equal-tempered pitches used below.
constexpr double c_A3 = 220.0, c_C5 = 523.25, c_E5 = 659.26, c_G5 = 783.99, c_B5 = 987.77, c_C6 = 1046.5,
                 c_E6 = 1318.51;

struct NamedSound
{
    char const* file;
    Sound sound;
};

std::vector<NamedSound> makeSounds()
{
    auto const bell = [](double start, double frequency, double pan) {
        return Note{start, frequency, 0.12, pan};
    };
    auto const click = [](double start, double pan) { return Note{start, 3000.0, 0.004, pan, 0.2}; };
    auto const buzz = [](double start) { return Note{start, c_A3, 0.08, 0.0, 0.8}; };
    return {
        {"connected-bt.flac", Sound(0.45).add(bell(0.0, c_E5, -0.3)).add(bell(0.12, c_B5, 0.3))},
        {"disconnected-bt.flac", Sound(0.45).add(bell(0.0, c_B5, 0.3)).add(bell(0.12, c_E5, -0.3))},
        {"error.flac", Sound(0.36).add(buzz(0.0)).add(buzz(0.18))},
        {"ok.flac", Sound(0.3).add(Note{0.0, c_G5, 0.09, 0.0, 0.5})},
        {"touch.flac", Sound(0.03).add(click(0.0, 0.0))},
        {"touch-play-pause.flac", Sound(0.1).add(click(0.0, -0.2)).add(click(0.07, 0.2))},
        {"wait-for-connection.flac", Sound(0.6).add(Note{0.0, c_C5, 0.5, 0.0, 0.2}).pulse(4.0)},
        {"direct-line-in-playback.flac",
         Sound(0.5).add(bell(0.0, c_C5, -0.4)).add(bell(0.1, c_E5, 0.0)).add(bell(0.2, c_G5, 0.4))},
        {"line-in-streaming.flac",
         Sound(0.5).add(bell(0.0, c_C5, 0.4)).add(bell(0.1, c_G5, 0.0)).add(bell(0.2, c_C6, -0.4))},
        {"welcome.flac", Sound(0.9)
                             .add(bell(0.0, c_C5, -0.5))
                             .add(bell(0.12, c_E5, -0.2))
                             .add(bell(0.24, c_G5, 0.2))
                             .add(Note{0.36, c_E6, 0.25, 0.5})},
    };
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIRECTORY\n", argv[0]);
        return 2;
    }
    std::string const directory = argv[1];
    for (auto const& named : makeSounds()) {
        std::string error;
        std::string const path = directory + "/" + named.file;
        if (!Zelmar::SoundGeneration::writeFlacFile(path, named.sound.render(), c_sampleRate,
                                                    "generated by orvandeldsp-sound-generator; do not edit",
                                                    error)) {
            std::fprintf(stderr, "%s: %s\n", path.c_str(), error.c_str());
            return 1;
        }
    }
    return 0;
}
