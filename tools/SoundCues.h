#pragma once

#include "dsp/SystemSound.h"
#include "dsp/SystemSoundsPlayer.h"
#include "tools/RunFeature.h"

#include <string>
#include <vector>

namespace Zelmar {

class Chain;

namespace Host {

// Plays system sounds at given audio times of a run, through the chain's "system-sounds" module as
// the device's control side does. A sound is triggered before the period that holds its time, so it
// starts with the first frame of that period; its data is loaded before the run begins, so the result
// does not depend on how fast the loader threads are.
class SoundCues : public RunFeature
{
public:
    struct Cue
    {
        std::string text; // as given on the command line, for messages
        SystemSound sound;
        double seconds;
    };

    // "N@SECONDS": a sound number 0 to 9 and a time from 0 on. Throws ToolError (bad input).
    static Cue parse(std::string const& given);

    // Throws when a cue lies at or after the input's end, when the config lacks the module, or when a
    // sound cannot be loaded.
    SoundCues(Chain& chain, std::string const& config, std::vector<Cue> cues, unsigned int fileRate,
              sf_count_t inputFrames, unsigned int periodFrames);

    void beforePeriod() override;
    void afterPeriod(sf_count_t framesIn, sf_count_t framesOut) override;
    void finish() override;
    std::string describeResult() const override;

private:
    void load(Chain& chain, std::string const& config);

    struct Pending
    {
        SystemSound sound;
        sf_count_t frame; // input frame at the cue's time
    };

    Chain& m_chain;
    SystemSoundsPlayer m_player;
    std::vector<Pending> m_pending; // by frame
    unsigned int m_periodFrames;
    sf_count_t m_periodStart = 0;
    unsigned int m_played = 0;
};

} // namespace Host
} // namespace Zelmar
