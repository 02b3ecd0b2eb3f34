#pragma once

#include "dsp/BiQuadSection.h"

#include <vector>

namespace Zelmar {

class AudioBuffer;
class BiQuad;
class Module;

// A series of biquad modules of one kind (BiQuad or StereoBiQuad) that the chain runs as one cascade
// in place of their own process() calls: every module is fed by the one before alone and works in its
// buffer, so nothing else can see what lies between them. Each period every module still takes its
// pending parameter set and kernel, and the cascade gives the bits and state their own loops would.
class BiQuadCascade
{
public:
    // Control thread, after the chain has bound its buffers. Needs two members or more.
    explicit BiQuadCascade(std::vector<BiQuad*> members);

    // Whether `next` may follow `previous` in a cascade: both of one of the two kinds, every input of
    // next read in place from the same output of previous.
    static bool canFollow(Module const& previous, Module const& next);

    // Audio thread: one period. No allocation, no lock.
    void process();

    std::vector<BiQuad*> const& getMembers() const { return m_members; }

private:
    std::vector<BiQuad*> m_members;
    std::vector<CascadeSection> m_sections;
    unsigned int m_numChannels = 0;
    AudioBuffer* m_in[2] = {};
    AudioBuffer* m_out[2] = {};
};

} // namespace Zelmar
