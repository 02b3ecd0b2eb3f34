#include "dsp/ChainCheck.h"

#include "base/PrintableText.h"
#include "dsp/ConfigDocument.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/Module.h"
#include "dsp/ModuleFactory.h"
#include "dsp/ParsingException.h"

#include <algorithm>
#include <map>
#include <memory>

namespace Zelmar {

namespace {

using Place = ConfigDocument::Place;
using Problem = ChainCheck::Problem;
using Finding = ParameterDescriptor::Finding;

// A declared module as the wiring sees it.
struct Node
{
    ConfigDocument::Module const* declared;
    // What is made: the type itself, its stereo variant, or (wrapped) two of it in a stereo wrapper.
    ModuleDescriptor const* descriptor = nullptr;
    bool wrapped = false;
    // Duplicated ids and missing ones are faults of their own; cables cannot reach such a module.
    bool reachable = true;
    unsigned int ins = 0;
    unsigned int outs = 0;
    std::vector<bool> wired;
    std::vector<std::size_t> feeders;

    std::string name() const
    {
        if (!declared->id.empty())
            return "module " + declared->id.str();
        return "the " + declared->type.str() + " module at line " + std::to_string(declared->place.line);
    }

    bool readsInPort(unsigned int port) const
    {
        unsigned int const perSide = ins / 2;
        if (wrapped)
            return descriptor->readsInPort(declared->parameters, port < perSide ? port : port - perSide);
        return descriptor->readsInPort(declared->parameters, port);
    }
};

std::string count(unsigned int n, char const* what)
{
    return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
}

struct PortRef
{
    std::size_t node;
    unsigned int port;
};

struct Wire
{
    PortRef from;
    PortRef to;
    Place place;
};

class Checker
{
public:
    Checker(std::string path, unsigned int sampleRate) : m_path(std::move(path)), m_sampleRate(sampleRate) {}

    std::vector<Problem> run()
    {
        ConfigDocument const document = ConfigDocument::read(m_path);
        for (auto const& note : document.getNotes())
            report(note.error, note.place, note.message);
        if (!document.isReadable())
            return finish();
        if (document.getModules().empty() && !ChainCheck::hasErrors(m_problems))
            report(true, Place{}, "the config declares no modules");
        for (auto const& declared : document.getModules())
            addNode(declared);
        for (auto& node : m_nodes)
            checkParameters(node);
        for (auto const& cable : document.getCables())
            addCable(cable);
        connectWires();
        checkInputs();
        checkSinks();
        checkStages();
        return finish();
    }

private:
    void report(bool error, Place place, std::string message)
    {
        m_problems.push_back({error ? Problem::Error : Problem::Warning, m_path, place.line, place.column,
                              std::move(message)});
    }

    std::vector<Problem> finish()
    {
        std::stable_sort(m_problems.begin(), m_problems.end(), [](Problem const& a, Problem const& b) {
            return a.line != b.line ? a.line < b.line : a.column < b.column;
        });
        return m_problems;
    }

    void addNode(ConfigDocument::Module const& declared)
    {
        Node node;
        node.declared = &declared;
        ModuleDescriptor const* type = ModuleFactory::get().findDescriptor(declared.type);
        if (!type) {
            report(true, declared.place,
                   "Module type " + declared.type.str() + " not found in module factory");
        } else if (declared.stereo && type->getStereoVariant()) {
            node.descriptor = ModuleFactory::get().findDescriptor(type->getStereoVariant());
        } else {
            node.descriptor = type;
            node.wrapped = declared.stereo;
        }
        if (node.descriptor) {
            unsigned int const sides = node.wrapped ? 2 : 1;
            node.ins = sides * node.descriptor->getNumInPorts(declared.parameters);
            node.outs = sides * node.descriptor->getNumOutPorts();
            node.wired.assign(node.ins, false);
            if (node.wrapped && (node.ins > 2 || node.outs > 2))
                report(
                    false, declared.place,
                    "a stereo-module of type " + declared.type.str() +
                        " pairs modules of more than one input or output; each side gets only one of each");
        }
        if (declared.id.empty()) {
            node.reachable = false;
            report(true, declared.place,
                   "the " + declared.type.str() + " module has no id, so no cable can reach it");
        } else if (!m_byId.emplace(declared.id, m_nodes.size()).second) {
            node.reachable = false;
            report(true, declared.place,
                   "the id " + declared.id.str() + " is taken already by the module at line " +
                       std::to_string(m_nodes[m_byId[declared.id]].declared->place.line) +
                       "; cables reach only that one");
        }
        m_nodes.push_back(node);
    }

    Place placeOf(ConfigDocument::Module const& declared, Tools::String const& key) const
    {
        for (auto const& given : declared.given) {
            if (given.key == key)
                return given.place;
        }
        return declared.place;
    }

    void checkParameters(Node const& node)
    {
        ConfigDocument::Module const& declared = *node.declared;
        // An unclosed module gets no parameters at all; that is reported with the element.
        if (!node.descriptor || !declared.closed)
            return;
        bool refused = false;
        for (auto const& keyFinding : node.descriptor->review(declared.parameters, m_sampleRate)) {
            Finding const& finding = keyFinding.finding;
            refused = refused || finding.level == Finding::Refused;
            report(finding.level != Finding::Doubtful, placeOf(declared, keyFinding.key),
                   "parameter " + keyFinding.key.str() + " of " + node.name() + ": " + finding.message);
        }
        // The module's own checks repeat the descriptor's first, which has spoken already.
        if (!refused)
            checkWithModule(node);
    }

    void checkWithModule(Node const& node)
    {
        ConfigDocument::Module const& declared = *node.declared;
        std::unique_ptr<Module> const module(node.descriptor->create(declared.id));
        try {
            module->validateParameters(declared.parameters, m_sampleRate);
        } catch (IllegalArgumentException const& e) {
            report(true, declared.place, e.getMessage().str());
        } catch (ParsingException const& e) {
            report(true, declared.place, e.getMessage().str());
        } catch (std::exception const& e) {
            report(true, declared.place, node.name() + ": " + e.what());
        }
    }

    // As the chain resolves "moduleid[portnum]"; false, with the fault reported, where it would throw.
    bool resolve(Tools::String const& port, ConfigDocument::Cable const& cable, PortRef& ref)
    {
        std::string const& text = port.str();
        std::string const where = "cable from " + cable.out.str() + " to " + cable.in.str() + ": ";
        auto const bracket = text.find('[');
        if (bracket == std::string::npos) {
            report(true, cable.place, where + "\"" + text + "\" is not of the form moduleid[portnum]");
            return false;
        }
        try {
            ref.port = static_cast<unsigned int>(std::stoi(text.substr(bracket + 1)));
        } catch (std::exception const&) {
            report(true, cable.place, where + "the port of \"" + text + "\" is not a number");
            return false;
        }
        auto const it = m_byId.find(text.substr(0, bracket));
        if (it == m_byId.end()) {
            report(true, cable.place, where + "no module has the id " + text.substr(0, bracket));
            return false;
        }
        ref.node = it->second;
        return true;
    }

    void addCable(ConfigDocument::Cable const& cable)
    {
        auto const hasBracket = [](Tools::String const& port) {
            return port.str().find_first_of("[]") != std::string::npos;
        };
        if (!hasBracket(cable.in) && !hasBracket(cable.out))
            return addShortcut(cable);
        PortRef to;
        PortRef from;
        if (!resolve(cable.in, cable, to) || !resolve(cable.out, cable, from))
            return;
        Node& source = m_nodes[from.node];
        Node& destination = m_nodes[to.node];
        if (!source.descriptor || !destination.descriptor)
            return;
        std::string const where = "cable from " + cable.out.str() + " to " + cable.in.str() + ": ";
        if (from.port >= source.outs)
            return report(true, cable.place,
                          where + source.name() + " has no output port " + std::to_string(from.port) +
                              " (it has " + std::to_string(source.outs) + ")");
        if (to.port >= destination.ins)
            return report(true, cable.place,
                          where + destination.name() + " has no input port " + std::to_string(to.port) +
                              " (it has " + std::to_string(destination.ins) + ")");
        auto const earlier = m_wires.find(cable.in);
        if (earlier != m_wires.end())
            report(false, cable.place,
                   "input " + cable.in.str() + " has a cable at line " +
                       std::to_string(earlier->second.place.line) + " already; this later one replaces it");
        m_wires[cable.in] = {from, to, cable.place};
    }

    void addShortcut(ConfigDocument::Cable const& cable)
    {
        std::string const where = "cable from " + cable.out.str() + " to " + cable.in.str() + ": ";
        auto const to = m_byId.find(cable.in);
        auto const from = m_byId.find(cable.out);
        for (auto const& [found, id] : {std::pair{to, cable.in}, {from, cable.out}}) {
            if (found == m_byId.end())
                return report(true, cable.place, where + "no module has the id " + id.str());
        }
        Node const& source = m_nodes[from->second];
        Node const& destination = m_nodes[to->second];
        if (!source.descriptor || !destination.descriptor)
            return;
        if (source.outs != destination.ins)
            return report(true, cable.place,
                          where + "a cable without port numbers joins every port, but " + source.name() +
                              " has " + count(source.outs, "output") + " and " + destination.name() + " " +
                              count(destination.ins, "input") + "; name the ports");
        m_shortcuts.push_back({{from->second, 0}, {to->second, 0}, cable.place});
    }

    // As compiling wires them: the chain keys wires by the input's text, the later cable winning, and
    // expands cables without port numbers last, over cables to the same inputs.
    void connectWires()
    {
        for (Wire const& shortcut : m_shortcuts) {
            Node const& destination = m_nodes[shortcut.to.node];
            for (unsigned int port = 0; port < destination.ins; ++port)
                m_wires[destination.declared->id + "[" + std::to_string(port) + "]"] = {
                    {shortcut.from.node, port}, {shortcut.to.node, port}, shortcut.place};
        }
        for (auto const& entry : m_wires) {
            Wire const& wire = entry.second;
            m_nodes[wire.to.node].wired[wire.to.port] = true;
            m_nodes[wire.to.node].feeders.push_back(wire.from.node);
        }
    }

    void checkInputs()
    {
        for (auto const& node : m_nodes) {
            for (unsigned int port = 0; node.descriptor && node.reachable && port < node.ins; ++port) {
                if (!node.wired[port] && node.readsInPort(port))
                    report(true, node.declared->place,
                           "input port " + std::to_string(port) + " of " + node.name() + " is not connected");
            }
        }
    }

    // Compiling keeps only the sinks and what feeds them, and ends the process on anything else.
    void checkSinks()
    {
        std::vector<bool> placed(m_nodes.size(), false);
        std::vector<std::size_t> pending;
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            if (m_nodes[i].descriptor && m_nodes[i].outs == 0)
                pending.push_back(i);
        }
        while (!pending.empty()) {
            std::size_t const i = pending.back();
            pending.pop_back();
            if (placed[i])
                continue;
            placed[i] = true;
            for (std::size_t const feeder : m_nodes[i].feeders)
                pending.push_back(feeder);
        }
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            Node const& node = m_nodes[i];
            if (!placed[i] && node.descriptor && node.reachable)
                report(true, node.declared->place,
                       node.name() + " leads to no sink: wire it on to an output or a meter, or remove it");
        }
    }

    void checkStages()
    {
        unsigned int inputs = 0;
        unsigned int outputs = 0;
        Node const* sounds = nullptr;
        for (auto const& node : m_nodes) {
            if (!node.descriptor)
                continue;
            std::string const type = node.descriptor->getType();
            unsigned int const count = node.wrapped ? 2 : 1;
            inputs += type == "input" || type == "resampler" ? count : 0;
            outputs += type == "output" ? count : 0;
            if (type == "sounds" && !sounds)
                sounds = &node;
        }
        if (m_nodes.empty())
            return;
        if (inputs == 0)
            report(true, Place{}, "the chain has no input stage (a module of type input or resampler)");
        if (outputs == 0)
            report(true, Place{}, "the chain has no output stage (a module of type output)");
        if (sounds && outputs > 1)
            report(true, sounds->declared->place,
                   "The current implementation for unmuting the output stage on system sounds relies on only "
                   "one "
                   "output stage existing.");
    }

    std::string m_path;
    unsigned int m_sampleRate;
    std::vector<Problem> m_problems;
    std::vector<Node> m_nodes;
    std::map<Tools::String, std::size_t> m_byId;
    std::map<Tools::String, Wire> m_wires;
    std::vector<Wire> m_shortcuts;
};

} // namespace

std::string ChainCheck::Problem::describe() const
{
    std::string text = file + ":";
    if (line > 0)
        text += std::to_string(line) + ":" + std::to_string(column) + ":";
    // Ids, values and XML errors come from the file; whatever bytes it holds, the report stays readable.
    return text + (severity == Warning ? " warning: " : " ") + Tools::printableLine(message);
}

std::vector<ChainCheck::Problem> ChainCheck::check(std::string const& path, unsigned int sampleRate)
{
    return Checker(path, sampleRate).run();
}

bool ChainCheck::hasErrors(std::vector<Problem> const& problems)
{
    return std::any_of(problems.begin(), problems.end(),
                       [](Problem const& p) { return p.severity == Problem::Error; });
}

} // namespace Zelmar
