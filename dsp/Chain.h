#pragma once

#include "base/String.h"
#include "dsp/BiQuadCascade.h"
#include "dsp/ChainProfile.h"
#include "dsp/Export.h"
#include "dsp/HiddenVolumeManager.h"
#include "dsp/Module.h"

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <vector>

namespace Zelmar {

// The processing graph. Wires are kept as port-portSpec text ("moduleid[portnum]") until compile() turns
// them into buffer bindings, decides which inputs run in place and sorts the modules by signal flow.
// Building and compiling happen on the control thread; process() runs on the audio thread.
class ORVANDELDSP_EXPORT Chain
{
public:
    using tModuleList = std::list<std::shared_ptr<Module>>;
    using tWires = std::map<Tools::String, Tools::String>;

    explicit Chain(unsigned int sampleRate);
    Chain(unsigned int sampleRate, Tools::String const& path);
    virtual ~Chain() = default;

    void load(Tools::String const& path, bool compile);

    std::shared_ptr<Module> addModule(Tools::String const& type, Tools::String const& id);
    std::shared_ptr<Module> addStereoModule(Tools::String const& type, Tools::String const& id);
    std::shared_ptr<Module> tryFindModule(Tools::String const& id) const;
    std::shared_ptr<Module> findModule(Tools::String const& id) const;

    void pullWire(Tools::String const& to, Tools::String const& from) { m_wires[to] = from; }
    bool isExclusiveOutportUser(Tools::String const& to, Tools::String const& from) const;
    std::shared_ptr<Module> parseWireModule(Tools::String const& portSpec) const;
    unsigned int parseWirePort(Tools::String const& portSpec) const;

    // Also finds the series of biquad modules that process() runs as one cascade each (see
    // BiQuadCascade), unless fusing is switched off.
    void compile();
    void process();
    // Whether the next compile() fuses cascades; on by default. The output is the same either way.
    void fuseCascades(bool fuse) { m_fuseCascades = fuse; }

    // From now on, times every module's process() (see ChainProfile); control thread, also while audio
    // runs. A compile() starts the figures afresh.
    void enableProfile(bool enable);
    struct ModuleTime
    {
        std::shared_ptr<Module> module;
        uint64_t nanoseconds;
        // Run in a fused cascade, whose time is shared out equally among its modules.
        bool fused;
    };
    // In signal-flow order; empty unless profiling is enabled.
    std::vector<ModuleTime> getProfile() const;
    // The process() calls those figures cover; 0 unless profiling is enabled.
    uint64_t getNumProfiledPeriods() const;

    void enableMeters(bool enable) { m_metersEnabled = enable; }
    void allocateMeters();
    // Printing switches metering on, so the first print of a chain shows zeros.
    void printMeters() const;

    static constexpr unsigned int getMaxNumFramesPerProcessCall() { return c_maxFramesPerProcessCall; }
    unsigned int getSampleRate() const { return m_sampleRate; }
    HiddenVolumeManager& getHiddenVolumeManager() { return m_hiddenVolumeManager; }
    tModuleList const& getModules() const { return m_modules; }
    tWires const& getWires() const { return m_wires; }

    // Calls f for every module of the container that is a T.
    template <class T, class Container, class F> static void forModule(Container const& modules, F&& f)
    {
        for (auto const& module : modules) {
            if (dynamic_cast<T*>(module.get()))
                f(module);
        }
    }

private:
    static constexpr unsigned int c_maxFramesPerProcessCall = 1280;

    void replaceShortcutWires();
    void wireModules();
    void reorderModulesToSignalFlow();
    using tFeeders = std::map<Module*, std::vector<std::shared_ptr<Module>>>;
    void addModulesSortedBySignalFlow(std::shared_ptr<Module> const& sink, tFeeders const& feeders);
    void append(std::shared_ptr<Module> const& module);
    void findSteps();
    void processMetered(ChainProfile* profile);
    void processProfiled(ChainProfile& profile);

    // What process() runs in turn: a module, or a cascade of the modules from firstModule on.
    struct Step
    {
        Module* module;
        BiQuadCascade* cascade;
        std::size_t firstModule;
        std::size_t numModules;

        void run() const
        {
            if (cascade)
                cascade->process();
            else
                module->process();
        }
    };

    HiddenVolumeManager m_hiddenVolumeManager;
    unsigned int m_sampleRate;
    tModuleList m_modules;
    std::map<Tools::String, std::shared_ptr<Module>> m_modulesById;
    tWires m_wires;
    // Switched by the control side while the audio thread reads it.
    mutable std::atomic<bool> m_metersEnabled{false};
    bool m_fuseCascades = true;
    std::vector<Step> m_steps;
    std::vector<std::unique_ptr<BiQuadCascade>> m_cascades;
    std::unique_ptr<ChainProfile> m_profileStorage;
    // Null while not profiling; replaced only while no process() runs.
    std::atomic<ChainProfile*> m_profile{nullptr};
};

} // namespace Zelmar
