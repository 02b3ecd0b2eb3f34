#pragma once

#include "tools/LiveChain.h"

#include <functional>
#include <string>

namespace Zelmar {
namespace Host {

class LivePeriodLoop;
class ServedChain;

// Loads the config again, or another one, while a live run plays: the new chain is built and compiled
// on the main loop and handed to the period loop, which fades the old one out and the new one in. A
// config that fails to load, fails the checks `orvandeldsp check` makes, or needs another rate or
// channel count is refused and the chain playing is left untouched. Each outcome is told in one line,
// on stdout or stderr. Main loop only.
class ChainReloader
{
public:
    // 0 once the new chain plays; else the status the tool would end with for the problem, and its line.
    struct Outcome
    {
        int status = 0;
        std::string message;
    };
    using Done = std::function<void(Outcome const&)>;

    // `served` (none without a service) is switched to each new chain.
    ChainReloader(LivePeriodLoop& loop, LiveChain::Needs const& needs, ServedChain* served);
    // A reload still under way is answered: the run ended before the new chain played.
    ~ChainReloader();

    ChainReloader(ChainReloader const&) = delete;
    ChainReloader& operator=(ChainReloader const&) = delete;

    // `config` "" for the config in force. `done` runs when the new chain plays or the reload is refused.
    void reload(std::string const& config, Done done = {});
    unsigned int getReloads() const { return m_reloads; }

private:
    void finish(Outcome const& outcome);

    LivePeriodLoop& m_loop;
    LiveChain::Needs m_needs;
    ServedChain* m_served;
    // Set from the start of a reload until its outcome, so that a second one waits its turn.
    bool m_underWay = false;
    Done m_done;
    std::string m_config;
    unsigned int m_reloads = 0;
};

} // namespace Host
} // namespace Zelmar
