// A minimal host of liborvandeldsp: checks and loads a dsp config, feeds its input stage a 1 kHz tone
// from memory for half a second, period by period, and prints the chain's meters and the output's peak.
#include "dsp/Chain.h"
#include "dsp/ChainCheck.h"
#include "dsp/InputStage.h"
#include "dsp/MemoryAlsaBuffers.h"
#include "dsp/OutputStage.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

using namespace Zelmar;

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: minimal-host CONFIG.xml\n");
        return 2;
    }
    unsigned int const rate = 48000, period = 1024, periods = 24;
    // The library ends the process on a config it cannot load, so a host checks it first.
    auto const problems = ChainCheck::check(argv[1], rate);
    for (auto const& problem : problems)
        std::fprintf(stderr, "%s\n", problem.describe().c_str());
    if (ChainCheck::hasErrors(problems))
        return 2;

    Chain chain(rate, argv[1]);
    MemoryAlsaBuffers capture(2);
    std::unique_ptr<MemoryAlsaBuffers> playback;
    std::shared_ptr<OutputStage> output;
    for (auto const& module : chain.getModules()) {
        if (auto input = std::dynamic_pointer_cast<InputStage>(module))
            input->setInput(&capture);
        if ((output = std::dynamic_pointer_cast<OutputStage>(module))) {
            playback = std::make_unique<MemoryAlsaBuffers>(output->getNumInPorts());
            output->setOutput(playback.get());
            break;
        }
    }
    output->setMute(false);
    chain.enableMeters(true);

    double peak = 0.0;
    for (unsigned int p = 0; p < periods; ++p) {
        std::vector<tSample> tone(period);
        for (unsigned int f = 0; f < period; ++f)
            tone[f] = tSample(0.5 * std::sin(2.0 * M_PI * 1000.0 * (p * period + f) / rate));
        capture.getChannel(0).setPeriod(tone);
        capture.getChannel(1).setPeriod(tone);
        chain.process();
        auto const& left = playback->getChannel(0);
        for (unsigned int f = 0; f < left.getNumFrames(); ++f)
            peak = std::fmax(peak, std::fabs(left.samples[f].toDouble()));
    }
    chain.printMeters();
    std::printf("output peak %.6f after %u periods of %u frames\n", peak, periods, period);
    return 0;
}
