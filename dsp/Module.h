#pragma once

#include "base/MainLoopCallback.h"
#include "base/String.h"
#include "dsp/AudioBuffer.h"
#include "dsp/Parameters.h"

#include <atomic>
#include <bitset>
#include <memory>
#include <sstream>
#include <vector>

namespace Zelmar {

class Chain;

// Base of every processing block. A module reads the output buffers of the modules wired to its
// inputs and writes its own output buffers, once per period, on the audio thread.
class Module
{
public:
    // Immutable snapshot of a module's settings, handed from the control thread to the audio thread.
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

    virtual bool canProcessInPlace() const;
    virtual void preSetup(Chain& chain, unsigned int maxFrames);
    virtual void postSetup(unsigned int maxFrames);
    virtual void setParameters(Parameters const& parameters, unsigned int sampleRate);
    // States what the module accepts: throws IllegalArgumentException (or the parse error) for a set that
    // setParameters would refuse with an assertion or would apply only in part. Changes nothing.
    virtual void validateParameters(Parameters const& parameters, unsigned int sampleRate) const;
    virtual unsigned int getNumOutPorts() const = 0;
    virtual unsigned int getNumInPorts() const = 0;
    virtual void process() = 0;
    virtual void activeInPlaceProcessingForPort(unsigned int inPort);
    virtual void setInPortBuffer(unsigned int inPort, std::shared_ptr<Module> source, unsigned int outPort);
    virtual void setOutPortBuffer(unsigned int port, std::shared_ptr<AudioBuffer> buffer);
    virtual Parameters const& getParameters() const;
    virtual void onModuleAddedToChain(Chain& chain);

    Tools::String const& getID() const { return m_id; }
    Tools::String getDotSafeID() const { return m_id.replaceNonAlphanumericChars('_'); }
    Tools::String const& getType() const { return m_type; }
    void setType(Tools::String const& type) { m_type = type; }
    unsigned int getSampleRate() const { return m_sampleRate; }

    // Applies one key on top of the current configuration through setParameters.
    void setParameter(Tools::String const& key, Tools::String const& value);
    // Validates, then sets; a set that still throws is undone, so the module keeps what it had.
    void applyParameters(Parameters const& parameters, unsigned int sampleRate);

    std::shared_ptr<AudioBuffer> getInPort(unsigned int inPort) const;
    std::shared_ptr<AudioBuffer> getOutPort(unsigned int port) const { return m_outputs[port]; }
    std::shared_ptr<AudioBuffer> getOutPortBuffer(unsigned int port) const { return m_outputs[port]; }
    InPortSpec const& getInPortSpec(unsigned int inPort) const { return m_ins[inPort]; }

    void setCompileFlag(int flag) { m_compileFlags.set(flag); }
    void resetCompileFlag(int flag) { m_compileFlags.reset(flag); }
    void resetCompileFlags() { m_compileFlags.reset(); }
    bool getCompileFlag(int flag) const { return m_compileFlags.test(flag); }

    void allocateMeters();
    void resetMeters();
    void storeMeters();
    float getStoredMeter(unsigned int port) const { return m_meters[port]; }

    void describe(std::stringstream& out) const;

    // Control thread: offer a new snapshot. A snapshot the audio thread never took is discarded unseen.
    void setFutureParameterSet(ParameterSet* parameterSet);
    // Audio thread: take a pending snapshot, if any, and return the one in force (null before the first).
    ParameterSet* getCurrentParameterSet();

protected:
    // Throws when value, converted to a sample through single precision, would not fit (16 or more, NaN).
    void requireSampleRange(double value, char const* what) const;
    // Audio-thread access to the buffers without touching shared-pointer counts; wired ports only.
    AudioBuffer& inBuffer(unsigned int inPort) const { return *m_ins[inPort].module->m_outputs[m_ins[inPort].port]; }
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
