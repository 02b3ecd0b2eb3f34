#pragma once

#include "base/MainLoopCallback.h"
#include "base/String.h"
#include "dsp/AudioBuffer.h"
#include "dsp/Export.h"
#include "dsp/Parameters.h"

#include <atomic>
#include <bitset>
#include <memory>
#include <sstream>
#include <vector>

namespace Zelmar {

class Chain;
class ModuleDescriptor;

// A processing block. Made by the factory from a type name, configured with a parameter set, wired
// and compiled by its chain (preSetup, setInPortBuffer, activeInPlaceProcessingForPort, postSetup),
// then run once per period by process(), which reads the buffers its inputs are wired to and writes
// its own output buffers.
//
// Threads: process() runs on the audio thread and neither allocates, frees, locks nor logs. What it
// reads of the configuration reaches it from the control thread (the main loop) either as an
// immutable ParameterSet, handed over with setFutureParameterSet and taken at the start of a period,
// or as one atomic word. Everything else here belongs to the control thread.
class ORVANDELDSP_EXPORT Module
{
public:
    class ParameterSet
    {
    public:
        virtual ~ParameterSet() = default;
    };

    struct InPortSpec
    {
        std::shared_ptr<Module> module;
        unsigned int port = 0;
        bool inPlace = false;
    };

    explicit Module(Tools::String const& id);
    virtual ~Module();
    Module(Module const&) = delete;
    Module& operator=(Module const&) = delete;

    // In this order the operations every module may override (the defaults are described where defined).
    virtual bool canProcessInPlace() const;
    virtual void preSetup(Chain& chain, unsigned int maxFrames);
    virtual void postSetup(unsigned int maxFrames);
    // Takes effect from the next period on. Throws for what it cannot read; applyParameters is the
    // checked way.
    virtual void setParameters(Parameters const& parameters, unsigned int sampleRate);
    virtual unsigned int getNumOutPorts() const = 0;
    virtual unsigned int getNumInPorts() const = 0;
    virtual void process() = 0;
    virtual void activeInPlaceProcessingForPort(unsigned int inPort);
    virtual void setInPortBuffer(unsigned int inPort, std::shared_ptr<Module> source, unsigned int outPort);
    virtual void setOutPortBuffer(unsigned int port, std::shared_ptr<AudioBuffer> buffer);
    // What the module reports of its configuration.
    virtual Parameters const& getParameters() const;
    virtual void onModuleAddedToChain(Chain& chain);
    // What the module was configured with; a change of one key starts from here.
    virtual Parameters const& getConfiguredParameters() const;
    // The descriptor of its type; null for a class the factory has no type for.
    virtual ModuleDescriptor const* getDescriptor() const;

    // Throws IllegalArgumentException (naming the module and the key) for a set that setParameters
    // would refuse, assert on or apply only in part; changes nothing.
    void validateParameters(Parameters const& parameters, unsigned int sampleRate) const;
    // Validates and sets; should setting still fail, the configured set is restored and the error thrown.
    void applyParameters(Parameters const& parameters, unsigned int sampleRate);
    // One key changed on top of the configured set, through setParameters.
    void setParameter(Tools::String const& key, Tools::String const& value);

    Tools::String const& getID() const { return m_id; }
    Tools::String getDotSafeID() const { return m_id.replaceNonAlphanumericChars('_'); }
    Tools::String const& getType() const { return m_type; }
    void setType(Tools::String const& type) { m_type = type; }
    unsigned int getSampleRate() const { return m_sampleRate; }

    std::shared_ptr<AudioBuffer> getInPort(unsigned int inPort) const;
    std::shared_ptr<AudioBuffer> getOutPort(unsigned int port) const { return m_outputs[port]; }
    std::shared_ptr<AudioBuffer> getOutPortBuffer(unsigned int port) const { return m_outputs[port]; }
    InPortSpec const& getInPortSpec(unsigned int inPort) const { return m_ins[inPort]; }

    void setCompileFlag(int flag) { m_compileFlags.set(flag); }
    void resetCompileFlag(int flag) { m_compileFlags.reset(flag); }
    void resetCompileFlags() { m_compileFlags.reset(); }
    bool getCompileFlag(int flag) const { return m_compileFlags.test(flag); }

    // Peak level of each output since the last reset, stored by the chain after each period.
    void allocateMeters();
    void resetMeters();
    void storeMeters();
    float getStoredMeter(unsigned int port) const { return m_meters[port]; }

    // The node of this module in a graph drawing.
    void describe(std::stringstream& out) const;

    // Control thread: offer a new snapshot. A snapshot the audio thread never took is discarded unseen.
    void setFutureParameterSet(ParameterSet* parameterSet);
    // Audio thread: take a pending snapshot, if any, and return the one in force (null before the first).
    // The replaced one is freed on the main loop.
    ParameterSet* getCurrentParameterSet();

protected:
    // What the descriptor cannot say; the default has nothing to add.
    virtual void checkParameters(Parameters const& parameters, unsigned int sampleRate) const;
    // Throws when value, converted to a sample through single precision, would not fit (16 or more, NaN).
    void requireSampleRange(double value, char const* what) const;
    // Audio thread: the snapshot taken at this call, or null when none came since the last one.
    ParameterSet* takeNewParameterSet();
    // Audio-thread access to the buffers without touching shared-pointer counts; wired ports only.
    AudioBuffer& inBuffer(unsigned int inPort) const
    {
        return *m_ins[inPort].module->m_outputs[m_ins[inPort].port];
    }
    AudioBuffer& outBuffer(unsigned int port) const { return *m_outputs[port]; }

    std::vector<InPortSpec> m_ins;
    std::vector<std::shared_ptr<AudioBuffer>> m_outputs;

private:
    void deleteOldParameterSet();

    Tools::String m_id;
    Tools::String m_type;
    Parameters m_parameters;
    // A replaced snapshot waits here for the main loop; a second swap before that overwrites it, unfreed.
    std::atomic<ParameterSet*> m_oldParameterSet{nullptr};
    ParameterSet* m_currentParameterSet = nullptr;
    std::atomic<ParameterSet*> m_futureParameterSet{nullptr};
    std::bitset<8> m_compileFlags;
    std::vector<float> m_meters;
    unsigned int m_sampleRate = 0;
    Tools::MainLoopCallback m_deleteOldParameterSetCallback;
};

using tModulePtr = std::shared_ptr<Module>;

} // namespace Zelmar
