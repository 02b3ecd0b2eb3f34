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

TEST_F(HiddenVolumeManagerTest, SendsAtOnceWhileConnectedAndLogsIt)
{
    std::vector<Tools::LogBufferEntry> entries;
    auto const sink =
        Tools::Tracer::get().addSink([&](Tools::LogBufferEntry const& e) { entries.push_back(e); });
    HiddenVolumeManager manager;
    bringUpDaemon();

    manager.setHiddenVolumeDelta(6);
    ASSERT_TRUE(runMainLoopUntil([&] { return !m_daemon.getReceivedDeltas().empty(); }));
    EXPECT_EQ(m_daemon.getReceivedDeltas(), std::vector<double>{6});
    auto const logged = std::find_if(entries.begin(), entries.end(), [](auto const& e) {
        return e.message == "HardwaredClientChain: setting hidden volume delta to 6";
    });
    ASSERT_NE(logged, entries.end());
    EXPECT_EQ(logged->level, Tools::Tracer::Info);
}

TEST_F(HiddenVolumeManagerTest, FailedDeltaIsLoggedAndNotRetried)
{
    std::vector<Tools::LogBufferEntry> errors;
    auto const sink = Tools::Tracer::get().addSink([&](Tools::LogBufferEntry const& e) {
        if (e.level == Tools::Tracer::Error)
            errors.push_back(e);
    });
    HiddenVolumeManager manager;
    bringUpDaemon();
    m_daemon.failCallsWith("com.orvandel.Hardwared.Error.Busy", "amplifier busy");
    manager.setHiddenVolumeDelta(6);
    ASSERT_TRUE(runMainLoopUntil([&] { return !errors.empty(); }));
    EXPECT_EQ(errors[0].message.str().rfind("setting hidden volume delta failed:", 0), 0u)
        << errors[0].message;
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, c_marker}));
}
