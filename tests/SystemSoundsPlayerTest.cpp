#include "dsp/SystemSoundsPlayer.h"

#include "dsp/Chain.h"
#include "dsp/Sounds.h"
#include "support/LogCapture.h"
#include "support/SoundFiles.h"

#include <cstdlib>
#include <gtest/gtest.h>

using namespace Zelmar;

namespace {

// A chain with a "system-sounds" module whose voices are counted as the audio thread would see them.
struct SoundsChain
{
    SoundsChain() : chain(44100)
    {
        chain.addModule("input", "in");
        sounds = std::dynamic_pointer_cast<Sounds>(chain.addModule("sounds", "system-sounds"));
        sounds->setParameters(Parameters(), 44100);
        chain.pullWire("system-sounds", "in");
    }

    // Voices triggered and not yet picked up or played.
    unsigned int countNewVoices() const { return Rompler::getNumLiveVoices() - baseline; }

    Chain chain;
    std::shared_ptr<Sounds> sounds;
    unsigned int baseline = Rompler::getNumLiveVoices();
};

void iterateMainLoopFor(unsigned int milliseconds)
{
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_timeout_add(
        milliseconds,
        [](gpointer loop) {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
        },
        loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
}

} // namespace

TEST(SystemSoundsPlayerTest, TheFirstIdOfAProcessIsOne)
{
    // A fresh process: the counter is process-wide and other tests may have drawn ids already.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(SystemSoundsPlayer().registerRepeatingSound(SystemSound::Ok, 100) == 1 ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

TEST(SystemSoundsPlayerTest, IdsCountUpAndUnknownIdsAreLogged)
{
    Testing::LogCapture log;
    SystemSoundsPlayer player;
    unsigned int const first = player.registerRepeatingSound(SystemSound::Ok, 100);
    EXPECT_EQ(player.registerRepeatingSound(SystemSound::Touch, 100), first + 1);
    player.stopRepeatingSound(first + 1);
    player.stopRepeatingSound(first + 1);
    EXPECT_EQ(SystemSoundsPlayer().registerRepeatingSound(SystemSound::Ok, 100), first + 2) << "never reused";
    player.startRepeatingSound(first + 7, nullptr);
    player.play(SystemSound::Ok, nullptr);
    Chain empty(44100);
    player.play(SystemSound::Ok, &empty);
    auto const id = [&](unsigned int offset) { return std::to_string(first + offset); };
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"SystemSoundsPlayer::stopRepeatingSound(): sound with id " + id(1) +
                                            " neither registered nor started",
                                        "SystemSoundsPlayer::startRepeatingSound(): no sound with id " +
                                            id(7) + " registered",
                                        "SystemSoundsPlayer::play(): no chain provided",
                                        "SystemSoundsPlayer::play(): could not find module system-sounds"}));
}

TEST(SystemSoundsPlayerTest, RepeatsEachIntervalFromStartUntilStopped)
{
    Testing::TemporarySoundsDirectory folder;
    folder.write("ok.flac", Testing::makeConstant(10, 1));
    SoundsChain target;
    SystemSoundsPlayer player;
    unsigned int const early = player.registerRepeatingSound(SystemSound::Ok, 40);
    player.play(SystemSound::Ok, &target.chain);
    EXPECT_EQ(target.countNewVoices(), 1u) << "a single play triggers at once";
    iterateMainLoopFor(100);
    EXPECT_EQ(target.countNewVoices(), 1u) << "registered sounds wait for a chain";

    player.startAllPendingSounds(&target.chain);
    unsigned int const late = player.registerRepeatingSound(SystemSound::Ok, 40);
    player.startRepeatingSound(late, &target.chain);
    iterateMainLoopFor(10);
    EXPECT_EQ(target.countNewVoices(), 3u) << "the first plays come when the fresh timers expire";
    player.startAllPendingSounds(&target.chain);
    iterateMainLoopFor(190);
    // Two sounds, one play each at 0 ms and then every 40 ms, for 200 ms.
    EXPECT_GE(target.countNewVoices(), 1u + 2 * 3);
    EXPECT_LE(target.countNewVoices(), 1u + 2 * 6);

    player.stopRepeatingSound(early);
    player.stopRepeatingSound(late);
    unsigned int const afterStop = target.countNewVoices();
    iterateMainLoopFor(100);
    EXPECT_EQ(target.countNewVoices(), afterStop);
}
