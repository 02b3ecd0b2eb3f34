#pragma once

#include "base/Expiration.h"
#include "dsp/Export.h"
#include "dsp/SystemSound.h"

#include <cstdint>
#include <map>

namespace Zelmar {

class Chain;

// Control-side front end of the system sounds: plays a sound once on a chain's "system-sounds"
// module, and repeats registered sounds on main-loop timers until they are stopped. Main loop only.
class ORVANDELDSP_EXPORT SystemSoundsPlayer
{
public:
    struct RepeatData
    {
        RepeatData(SystemSound s, unsigned int i) : sound(s), interval(i) {}

        Chain* chain = nullptr;
        Tools::Expiration timer;
        SystemSound sound;
        uint32_t interval;
        bool started = false;
    };

    // The id of the chain's module that plays them.
    static constexpr char const* c_moduleId = "system-sounds";

    SystemSoundsPlayer() = default;

    void play(SystemSound sound, Chain* chain);
    // Nothing plays until the id is started. The interval is in milliseconds.
    unsigned int registerRepeatingSound(SystemSound sound, unsigned int interval);
    // The first play comes when the timer first expires, then one per interval.
    void startRepeatingSound(unsigned int id, Chain* chain);
    void stopRepeatingSound(unsigned int id);
    // Starts, in id order, every registered sound that is not started yet.
    void startAllPendingSounds(Chain* chain);

private:
    static unsigned int getNextId();

    std::map<uint32_t, RepeatData> m_repeatingSounds;
};

} // namespace Zelmar
