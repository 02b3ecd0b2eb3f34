#pragma once

#include "base/MainLoopCallback.h"
#include "base/String.h"

#include <atomic>
#include <cstdint>

namespace Zelmar {

// Counts what a producer had to drop because its consumer fell behind, and reports the count on the
// main loop as an error entry, so a loss is never silent. add() neither locks nor allocates.
class DropReport
{
public:
    // The entry reads: <who> "dropped" <count> <unit> "because its worker thread fell behind".
    DropReport(Tools::String who, Tools::String unit);

    void add(uint32_t count);
    // Everything counted so far, reported or not.
    uint32_t getTotal() const { return m_total.load(std::memory_order_relaxed); }

private:
    void report();

    Tools::String m_who;
    Tools::String m_unit;
    std::atomic<uint32_t> m_unreported{0};
    std::atomic<uint32_t> m_total{0};
    Tools::MainLoopCallback m_callback;
};

} // namespace Zelmar
