#include "base/HardwaredClient.h"
#include "base/Tracer.h"
#include "tests/support/FakeHardwared.h"
#include "tests/support/LogCapture.h"
#include "tests/support/MainLoop.h"

#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <vector>

using namespace Zelmar;
using Testing::runMainLoopUntil;

using HardwaredClientTest = Testing::HardwaredBusTest;

TEST_F(HardwaredClientTest, FollowsTheDaemonAsItComesAndGoes)
{
    std::vector<bool> states;
    auto const subscription =
        HardwaredClient::get().onConnectionStateChanged([&](bool c) { states.push_back(c); });
    EXPECT_FALSE(HardwaredClient::get().isConnected());

    bringUpDaemon();
    m_daemon.releaseName();
    ASSERT_TRUE(runMainLoopUntil([] { return !HardwaredClient::get().isConnected(); }));
    bringUpDaemon();
    EXPECT_EQ(states, (std::vector<bool>{true, false, true}));
}

TEST_F(HardwaredClientTest, RunsExactlyOneHandlerPerCallAndLogsErrorsAtLevelFour)
{
    std::vector<Tools::String> errors;
    int successes = 0;
    auto const onSuccess = [&] { ++successes; };
    auto const onError = [&](Tools::String const& message) { errors.push_back(message); };
    Testing::LogCapture log;

    // Refused at once, before any main-loop iteration.
    HardwaredClient::get().setHiddenVolumeDelta(2.0, onSuccess, onError);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].str().find("not connected"), std::string::npos) << errors[0];
    bringUpDaemon();
    HardwaredClient::get().setHiddenVolumeDelta(NAN, onSuccess, onError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[1].str().find("not a finite number"), std::string::npos) << errors[1];

    HardwaredClient::get().setHiddenVolumeDelta(4.5, onSuccess, onError);
    ASSERT_TRUE(runMainLoopUntil([&] { return successes == 1; }));
    m_daemon.failCallsWith("com.orvandel.Hardwared.Error.Busy", "amplifier busy");
    HardwaredClient::get().setHiddenVolumeDelta(1.0, onSuccess, onError);
    HardwaredClient::get().setHiddenVolumeDelta(1.5, onSuccess,
                                                HardwaredClient::getErrorLogger("setting delta"));
    ASSERT_TRUE(runMainLoopUntil([&] {
        return errors.size() == 3 && log.containsStart("setting delta failed: ", Tools::Tracer::Error);
    }));
    EXPECT_NE(errors[2].str().find("amplifier busy"), std::string::npos) << errors[2];
    EXPECT_EQ(log.countStarting("setting delta failed: ", Tools::Tracer::Error), 1u);
    EXPECT_EQ(successes, 1);
    EXPECT_EQ(m_daemon.getReceivedDeltas(), (std::vector<double>{4.5, 1.0, 1.5}));
}

TEST_F(HardwaredClientTest, TracksTheVolumeProperty)
{
    std::vector<double> volumes;
    auto const subscription = HardwaredClient::get().onVolumeChanged([&](double v) { volumes.push_back(v); });
    EXPECT_EQ(HardwaredClient::get().getVolume(), 0.0);

    m_daemon.setVolume(40.0);
    bringUpDaemon();
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 40.0; }));
    m_daemon.setVolume(55.5);
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 55.5; }));
    // A repeated value is not news.
    m_daemon.setVolume(55.5);
    m_daemon.setVolume(60.0);
    ASSERT_TRUE(runMainLoopUntil([] { return HardwaredClient::get().getVolume() == 60.0; }));
    EXPECT_EQ(volumes, (std::vector<double>{40.0, 55.5, 60.0}));

    // Last seen value is kept while the daemon is away.
    m_daemon.releaseName();
    ASSERT_TRUE(runMainLoopUntil([] { return !HardwaredClient::get().isConnected(); }));
    EXPECT_EQ(HardwaredClient::get().getVolume(), 60.0);
}

TEST_F(HardwaredClientTest, WithoutABusStaysDisconnectedAndRefusesCalls)
{
    Testing::LogCapture log;
    m_daemon.ownName();
    Testing::ScopedBusAddress noBus("DBUS_SYSTEM_BUS_ADDRESS", Testing::c_noBusAddress);
    HardwaredClient::reset();
    std::vector<bool> states;
    auto const subscription =
        HardwaredClient::get().onConnectionStateChanged([&](bool c) { states.push_back(c); });
    ASSERT_TRUE(runMainLoopUntil([&] { return log.containsStart("HardwaredClient: no system bus:"); }));

    Tools::String error;
    HardwaredClient::get().setHiddenVolumeDelta(
        1.0, [] {}, [&](Tools::String const& message) { error = message; });
    EXPECT_FALSE(HardwaredClient::get().isConnected());
    EXPECT_TRUE(states.empty());
    EXPECT_FALSE(error.empty());
}

TEST_F(HardwaredClientTest, TellsWhyAPropertyCannotBeRead)
{
    double value = -1;
    auto& client = HardwaredClient::get();
    EXPECT_EQ(client.tryGetProperty("volume", value), HardwaredClient::PropertyState::NoProxy);
    m_daemon.setVolume(30.0);
    bringUpDaemon();
    EXPECT_EQ(client.tryGetProperty("volume", value), HardwaredClient::PropertyState::Found);
    EXPECT_EQ(value, 30.0);
    EXPECT_EQ(client.tryGetProperty("colour", value), HardwaredClient::PropertyState::Missing);
    EXPECT_EQ(value, 30.0);
}
