#include "dsp/SystemSoundsPlayer.h"

#include "base/Tracer.h"
#include "dsp/Chain.h"
#include "dsp/Sounds.h"

#include <stdexcept>
#include <tuple>

namespace Zelmar {

void SystemSoundsPlayer::play(SystemSound sound, Chain* chain)
{
    if (!chain) {
        Tools::trace(Tools::Tracer::Error, "SystemSoundsPlayer::play(): no chain provided");
        return;
    }
    auto sounds = std::dynamic_pointer_cast<Sounds>(chain->tryFindModule(c_moduleId));
    if (!sounds) {
        Tools::trace(Tools::Tracer::Error, "SystemSoundsPlayer::play(): could not find module system-sounds");
        return;
    }
    sounds->trigger(sound);
}

unsigned int SystemSoundsPlayer::registerRepeatingSound(SystemSound sound, unsigned int interval)
{
    unsigned int const id = getNextId();
    m_repeatingSounds.emplace(std::piecewise_construct, std::forward_as_tuple(id),
                              std::forward_as_tuple(sound, interval));
    return id;
}

void SystemSoundsPlayer::startRepeatingSound(unsigned int id, Chain* chain)
{
    RepeatData* entry = nullptr;
    try {
        entry = &m_repeatingSounds.at(id);
    } catch (std::out_of_range const&) {
        Tools::trace(Tools::Tracer::Error, "SystemSoundsPlayer::startRepeatingSound(): no sound with id", id,
                     "registered");
        return;
    }
    entry->chain = chain;
    entry->timer.setCallback([this, entry] {
        play(entry->sound, entry->chain);
        entry->timer.refresh(0, entry->interval, 0);
    });
    entry->timer.refresh();
    entry->started = true;
}

void SystemSoundsPlayer::stopRepeatingSound(unsigned int id)
{
    if (m_repeatingSounds.erase(id) == 0)
        Tools::trace(Tools::Tracer::Error, "SystemSoundsPlayer::stopRepeatingSound(): sound with id", id,
                     "neither registered nor started");
}

void SystemSoundsPlayer::startAllPendingSounds(Chain* chain)
{
    for (auto& [id, entry] : m_repeatingSounds) {
        if (!entry.started)
            startRepeatingSound(id, chain);
    }
}

unsigned int SystemSoundsPlayer::getNextId()
{
    // Process-wide, so ids are never reused, not even across players.
    static uint32_t lastId = 0;
    return ++lastId;
}

} // namespace Zelmar
