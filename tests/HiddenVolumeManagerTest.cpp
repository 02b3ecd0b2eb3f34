#include "dsp/HiddenVolumeManager.h"

#include "base/HardwaredClient.h"
#include "base/Tracer.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"

#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;
using Testing::runMainLoopUntil;

using HiddenVolumeManagerTest = Testing::HardwaredBusTest;

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
    Testing::LogCapture log;
    HiddenVolumeManager manager;
    bringUpDaemon();

    manager.setHiddenVolumeDelta(6);
    EXPECT_TRUE(
        log.containsStart("HardwaredClientChain: setting hidden volume delta to 6", Tools::Tracer::Info));
    m_daemon.failCallsWith("com.orvandel.Hardwared.Error.Busy", "amplifier busy");
    manager.setHiddenVolumeDelta(2.5);
    ASSERT_TRUE(runMainLoopUntil(
        [&] { return log.containsStart("setting hidden volume delta failed:", Tools::Tracer::Error); }));
    // Not retried.
    EXPECT_EQ(receivedUpToMarker(), (std::vector<double>{6, 2.5, c_marker}));
}
