#pragma once

namespace Zelmar {

// The system sounds; a value is the index of the sound's file in the sounds module's table.
enum class SystemSound : unsigned int
{
    ConnectedBt = 0,
    DisconnectedBt = 1,
    Error = 2,
    Ok = 3,
    Touch = 4,
    TouchPlayPause = 5,
    WaitForConnection = 6,
    DirectLineInPlayback = 7,
    LineInStreaming = 8,
    Welcome = 9
};

constexpr unsigned int c_numSystemSounds = 10;

} // namespace Zelmar
