#pragma once

#include "dsp/FixedPoint.h"
#include "dsp/RomplerData.h"

#include <atomic>
#include <cstdint>

namespace Zelmar {

// One playing voice of a sound: adds the sound into two buffers from a position that advances by
// the data's fixed step, without interpolation. A voice waits silently until its data is loaded and
// never restarts once finished. Voices are linked into intrusive lists by the sounds module.
class Rompler
{
public:
    explicit Rompler(RomplerData const& data);
    ~Rompler();

    Rompler(Rompler const&) = delete;
    Rompler& operator=(Rompler const&) = delete;

    // Audio thread. Returns the number of frames added in.
    unsigned int process(tSample* left, tSample* right, unsigned int numFrames);

    bool isFinished() const { return m_finished.load(); }
    Rompler* getNext() { return m_next; }
    void setNext(Rompler* next) { m_next = next; }

    // Voices alive in the process; voices dropped from a list are never freed and stay counted.
    static unsigned int getNumLiveVoices() { return s_numLiveVoices.load(); }

private:
    // A 16-bit sample shifted into Q4.27 keeps its value: 32767 becomes just below 1.0.
    static constexpr unsigned int c_sampleShift = 12;

    RomplerData const& m_data;
    std::atomic<bool> m_finished{false};
    Rompler* m_next = nullptr;
    uint32_t m_position = 0;

    static std::atomic<unsigned int> s_numLiveVoices;
};

} // namespace Zelmar
