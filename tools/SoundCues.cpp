#include "tools/SoundCues.h"

#include "base/SystemSoundCheck.h"
#include "dsp/Chain.h"
#include "dsp/RomplerData.h"
#include "dsp/Sounds.h"
#include "tools/ChainStages.h"
#include "tools/MainContext.h"

#include <algorithm>
#include <cmath>
#include <glib.h>
#include <glib/gstdio.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

// The id under which the control side looks for the sounds module.
constexpr char const* c_soundsId = "system-sounds";
// Decoding a sound of a second takes milliseconds; this is reached only when the loader is stuck.
constexpr double c_loadTimeoutSeconds = 10.0;

ToolError badCue(std::string const& given, std::string const& problem)
{
    return ToolError(ToolError::c_badInput, "--sound " + given + ": " + problem);
}

std::string formatSeconds(double seconds)
{
    char text[G_ASCII_DTOSTR_BUF_SIZE];
    g_ascii_formatd(text, sizeof text, "%.3f", seconds);
    return text;
}

} // namespace

SoundCues::Cue SoundCues::parse(std::string const& given)
{
    auto const at = given.find('@');
    if (at == std::string::npos || at == 0 || at + 1 == given.size())
        throw badCue(given, "give SOUND@SECONDS, such as 3@1.5");
    std::string const number = given.substr(0, at);
    std::string const time = given.substr(at + 1);
    char* end = nullptr;
    long const sound = std::strtol(number.c_str(), &end, 10);
    if (*end != '\0' || !g_ascii_isdigit(number[0]) || !HW::isValidSystemSound(int(std::min(sound, 100L))))
        throw badCue(given, "the system sounds are numbered 0 to 9, not " + number);
    double const seconds = g_ascii_strtod(time.c_str(), &end);
    if (*end != '\0' || !std::isfinite(seconds) || seconds < 0.0)
        throw badCue(given, "the time is seconds from 0 on, not " + time);
    return Cue{given, static_cast<SystemSound>(sound), seconds};
}

SoundCues::SoundCues(Chain& chain, std::string const& config, std::vector<Cue> cues, unsigned int fileRate,
                     sf_count_t inputFrames, unsigned int periodFrames)
    : m_chain(chain), m_periodFrames(periodFrames)
{
    for (auto const& cue : cues) {
        auto const frame = static_cast<sf_count_t>(std::llround(cue.seconds * fileRate));
        if (frame >= inputFrames)
            throw badCue(cue.text,
                         "the input ends at " + formatSeconds(double(inputFrames) / fileRate) + " s");
        m_pending.push_back(Pending{cue.sound, frame});
    }
    std::stable_sort(m_pending.begin(), m_pending.end(),
                     [](Pending const& a, Pending const& b) { return a.frame < b.frame; });
    load(chain, config);
}

// A sound's first trigger starts loading it, and its voice stays silent until the data is there: the
// host loads every cued sound first, so that voices sound from the frame they are triggered at.
void SoundCues::load(Chain& chain, std::string const& config)
{
    auto* sounds = dynamic_cast<Sounds*>(chain.tryFindModule(c_soundsId).get());
    if (!sounds)
        throw configError(config, std::string("--sound needs a module of type \"sounds\" with the id \"") +
                                      c_soundsId + "\"");
    for (auto const& cue : m_pending) {
        std::string const path = RomplerData::getAbsolutePath(sounds->getFileName(cue.sound)).str();
        std::string const name = "system sound " + std::to_string(unsigned(cue.sound)) + " (" + path + ")";
        if (!g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR) || g_access(path.c_str(), R_OK) != 0)
            throw ToolError(ToolError::c_ioFailure, "cannot read " + name);
        auto const data = sounds->getRomplerDataForSoundType(cue.sound);
        if (!dispatchMainContextUntil([&] { return data->isLoaded(); }, c_loadTimeoutSeconds))
            throw ToolError(ToolError::c_ioFailure, name + " did not load within " +
                                                        std::to_string(int(c_loadTimeoutSeconds)) + " s");
    }
}

void SoundCues::beforePeriod()
{
    // The period about to run takes input frames m_periodStart .. m_periodStart + m_periodFrames - 1.
    while (m_played < m_pending.size() && m_pending[m_played].frame < m_periodStart + m_periodFrames) {
        m_player.play(m_pending[m_played].sound, &m_chain);
        ++m_played;
    }
}

void SoundCues::afterPeriod(sf_count_t framesIn, sf_count_t)
{
    m_periodStart = framesIn;
    // Finished voices are freed by a main-loop job.
    dispatchMainContext();
}

void SoundCues::finish()
{
    dispatchMainContext();
}

std::string SoundCues::describeResult() const
{
    return ", " + std::to_string(m_played) + " system sounds played";
}

} // namespace Host
} // namespace Zelmar
