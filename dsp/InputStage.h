#pragma once

#include "dsp/AlsaAudioBuffersWrapperBase.h"
#include "dsp/Export.h"
#include "dsp/Module.h"

namespace Zelmar {

// The chain's source: copies the host's captured left and right channels into out ports 0 and 1.
class ORVANDELDSP_EXPORT InputStage : public Module
{
public:
    explicit InputStage(Tools::String const& id) : Module(id) {}
    ~InputStage() override = default;

    void setInput(AlsaAudioBuffersWrapperBase* input) { m_input = input; }

    unsigned int getNumOutPorts() const override { return 2; }
    unsigned int getNumInPorts() const override { return 0; }
    void process() override;

protected:
    AlsaAudioBuffersWrapperBase* getInput() const { return m_input; }

private:
    AlsaAudioBuffersWrapperBase* m_input = nullptr;
};

} // namespace Zelmar
