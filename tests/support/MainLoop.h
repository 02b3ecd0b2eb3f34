#pragma once

#include <chrono>
#include <functional>

namespace Zelmar {
namespace Testing {

// Iterates the default main context until condition() holds or the timeout passes; returns condition().
bool runMainLoopUntil(std::function<bool()> const& condition,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5));

} // namespace Testing
} // namespace Zelmar
