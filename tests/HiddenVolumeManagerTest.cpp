#include "dsp/HiddenVolumeManager.h"

#include "base/HardwaredClient.h"
#include "base/Tracer.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/MainLoop.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;
using Testing::runMainLoopUntil;

namespace {

class HiddenVolumeManagerTest : public Testing::HardwaredBusTest
{
protected:
    // Calls on one connection arrive in order, so once this marker is in, any earlier call is too.
    std::vector<double> receivedUpToMarker()
    {
        bool done = false;
        HardwaredClient::get().setHiddenVolumeDelta(
            c_marker, [&] { done = true; }, [&](auto const&) { done = true; });
        EXPECT_TRUE(runMainLoopUntil([&] { return done; }));
        return m_daemon.getReceivedDeltas();
    }

    static constexpr double c_marker = 0.25;
};

} // namespace

TEST_F(HiddenVolumeManagerTest, SendsOnlyTheNewestPendingDeltaOnConnecting)
{
    HiddenVolumeManager manager;
    manager.setHiddenVolumeDelta(3);
    manager.setHiddenVolumeDelta(6);
    EXPECT_TRUE(m_daemon.getReceivedDeltas().empty());

    bringUpDaemon();
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, c_marker}));

    // Sent once: a reconnection has nothing left to flush.
    m_daemon.releaseName();
    ASSERT_TRUE(runMainLoopUntil([] { return !HardwaredClient::get().isConnected(); }));
    bringUpDaemon();
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, c_marker, c_marker}));
}

TEST_F(HiddenVolumeManagerTest, ConnectingWithNothingPendingSendsNothing)
{
    HiddenVolumeManager manager;
    bringUpDaemon();
    EXPECT_EQ(receivedUpToMarker(), std::vector<double>{c_marker});
}

TEST_F(HiddenVolumeManagerTest, SendsAtOnceWhileConnectedAndLogsTheCallAndItsFailure)
{
    std::vector<Tools::LogBufferEntry> entries;
    auto const sink =
        Tools::Tracer::get().addSink([&](Tools::LogBufferEntry const& e) { entries.push_back(e); });
    auto const logged = [&](int level, std::string const& start) {
        return std::any_of(entries.begin(), entries.end(), [&](auto const& e) {
            return e.level == level && e.message.str().rfind(start, 0) == 0;
        });
    };
    HiddenVolumeManager manager;
    bringUpDaemon();

    manager.setHiddenVolumeDelta(6);
    EXPECT_TRUE(logged(Tools::Tracer::Info, "HardwaredClientChain: setting hidden volume delta to 6"));
    m_daemon.failCallsWith("com.orvandel.Hardwared.Error.Busy", "amplifier busy");
    manager.setHiddenVolumeDelta(2.5);
    ASSERT_TRUE(runMainLoopUntil(
        [&] { return logged(Tools::Tracer::Error, "setting hidden volume delta failed:"); }));
    // Not retried.
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, 2.5, c_marker}));
}
