#include "tools/ChainReloader.h"

#include "tools/LivePeriodLoop.h"
#include "tools/ServedChain.h"
#include "tools/ToolError.h"

#include <cstdio>

namespace Zelmar {
namespace Host {

namespace {

// A refusal stays one line, in the log and in the D-Bus error: the first problem, and how to see all.
std::string refusal(std::string const& problems, std::string const& path)
{
    auto const end = problems.find('\n');
    if (end == std::string::npos)
        return "reload refused: " + problems;
    return "reload refused: " + problems.substr(0, end) + " (and more: orvandeldsp check --config " + path +
           " lists them all)";
}

} // namespace

ChainReloader::ChainReloader(LivePeriodLoop& loop, LiveChain::Needs const& needs, ServedChain* served)
    : m_loop(loop), m_needs(needs), m_served(served)
{
}

ChainReloader::~ChainReloader()
{
    if (m_underWay)
        finish({ToolError::c_ioFailure, "reload of config " + m_config + " not done: the run ended first"});
}

void ChainReloader::reload(std::string const& config, Done done)
{
    std::string const path = config.empty() ? m_loop.getChain().getConfig() : config;
    if (m_underWay) {
        Outcome const busy{ToolError::c_ioFailure, "reload of config " + path +
                                                       " refused: the reload of config " + m_config +
                                                       " is still under way"};
        std::fprintf(stderr, "orvandeldsp: %s\n", busy.message.c_str());
        std::fflush(stderr);
        if (done)
            done(busy);
        return;
    }
    m_underWay = true;
    m_done = std::move(done);
    m_config = path;
    std::unique_ptr<LiveChain> next;
    try {
        next = std::make_unique<LiveChain>(path, m_needs);
    } catch (ToolError const& e) {
        finish({e.getExitStatus(), refusal(e.what(), path)});
        return;
    }
    // From here on `set` reaches the new chain, which takes its changes with it when it starts to play.
    if (m_served)
        m_served->serve(next->getChain());
    bool const offered = m_loop.offer(next, [this] {
        ++m_reloads;
        finish({0, "reloaded config " + m_config});
    });
    if (!offered)
        finish({ToolError::c_ioFailure, "reload refused: the last new chain has not taken over yet"});
}

void ChainReloader::finish(Outcome const& outcome)
{
    std::FILE* const out = outcome.status == 0 ? stdout : stderr;
    std::fprintf(out, "orvandeldsp: %s\n", outcome.message.c_str());
    std::fflush(out);
    m_underWay = false;
    if (auto const done = std::move(m_done))
        done(outcome);
}

} // namespace Host
} // namespace Zelmar
