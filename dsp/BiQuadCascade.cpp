#include "dsp/BiQuadCascade.h"

#include "base/Assert.h"
#include "dsp/StereoBiQuad.h"

#include <typeinfo>

namespace Zelmar {

namespace {

bool isBiQuad(Module const& module)
{
    return typeid(module) == typeid(BiQuad) || typeid(module) == typeid(StereoBiQuad);
}

} // namespace

BiQuadCascade::BiQuadCascade(std::vector<BiQuad*> members)
    : m_members(std::move(members)), m_sections(m_members.size())
{
    ZELMAR_ASSERT(m_members.size() >= 2);
    m_numChannels = m_members.front()->getNumInPorts();
    for (std::size_t k = 0; k < m_members.size(); ++k)
        m_members[k]->bindCascadeState(m_sections[k]);
    BiQuad const& first = *m_members.front();
    for (unsigned int port = 0; port < m_numChannels; ++port) {
        m_in[port] = first.getInPort(port).get();
        m_out[port] = first.getOutPort(port).get();
    }
}

bool BiQuadCascade::canFollow(Module const& previous, Module const& next)
{
    if (!isBiQuad(previous) || typeid(previous) != typeid(next))
        return false;
    for (unsigned int port = 0; port < next.getNumInPorts(); ++port) {
        Module::InPortSpec const& input = next.getInPortSpec(port);
        if (input.module.get() != &previous || input.port != port || !input.inPlace)
            return false;
    }
    return true;
}

void BiQuadCascade::process()
{
    unsigned int const n = m_in[m_numChannels - 1]->getNumSampleFrames();
    // A stereo module runs the right input's length on both channels; a pair of other lengths is left
    // to the modules themselves.
    if (m_in[0]->getNumSampleFrames() != n) {
        for (BiQuad* member : m_members)
            member->process();
        return;
    }
    for (std::size_t k = 0; k < m_members.size(); ++k)
        m_members[k]->prepareCascadeSection(m_sections[k]);
    tSample const* in[2] = {};
    tSample* out[2] = {};
    for (unsigned int port = 0; port < m_numChannels; ++port) {
        m_out[port]->setSize(n);
        in[port] = m_in[port]->getRawData();
        out[port] = m_out[port]->getRawData();
    }
    runBiQuadCascade(m_sections.data(), unsigned(m_sections.size()), m_numChannels, in, out, n);
}

} // namespace Zelmar
