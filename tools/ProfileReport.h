#pragma once

#include <cstdint>
#include <string>

namespace Zelmar {

class Chain;

namespace Host {

// `--profile`: where a run's time went. One line per module in signal-flow order (id, type, ns per
// frame, share of the chain's time), then the chain's and the host's own share of the run's wall time,
// with what the host does around the chain. Empty when the chain was not profiled.
std::string profileReport(Chain const& chain, uint64_t frames, uint64_t wallNanoseconds,
                          std::string const& hostDoes);

} // namespace Host
} // namespace Zelmar
