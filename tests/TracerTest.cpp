#include "base/Tracer.h"

#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar::Tools;

namespace {

// Counts how often it is written, to prove that dropped entries are never formatted.
struct CountedPiece
{
    int* writes;
};

std::ostream& operator<<(std::ostream& os, CountedPiece const& piece)
{
    ++*piece.writes;
    return os << "piece";
}

} // namespace

TEST(TracerTest, DropsEntriesBelowTheMinimumLevelBeforeFormattingAndJoinsPiecesWithSpaces)
{
    std::vector<LogBufferEntry> entries;
    Connection sink = Tracer::get().addSink([&](LogBufferEntry const& e) { entries.push_back(e); });
    int const previous = Tracer::get().getMinLevel();
    Tracer::get().setMinLevel(Tracer::Notice);
    int writes = 0;
    trace(Tracer::Info, "dropped", CountedPiece{&writes});
    trace(Tracer::Error, "value", 2.5, String("x"), 7u, CountedPiece{&writes});
    Tracer::get().setMinLevel(previous);
    EXPECT_EQ(writes, 1);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, 4);
    EXPECT_EQ(entries[0].message, "value 2.5 x 7 piece");
    EXPECT_EQ(entries[0].component, Tracer::getProcessName());
}
