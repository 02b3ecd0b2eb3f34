#include "dsp/Switch.h"

namespace Zelmar {

void Switch::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    Module::setParameters(parameters, sampleRate);
    int port = parameters.getInt("selected-port");
    // Compared as unsigned, so negative values fall above the range too.
    if (static_cast<unsigned int>(port) >= getNumInPorts())
        port = static_cast<int>(getNumInPorts()) - 1;
    setSelectedPort(port);
}

void Switch::process()
{
    outBuffer(0).copyFrom(&inBuffer(static_cast<unsigned int>(getSelectedPort())));
}

} // namespace Zelmar
