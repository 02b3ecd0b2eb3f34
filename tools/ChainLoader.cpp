#include "tools/ChainLoader.h"

#include "dsp/IllegalArgumentException.h"
#include "dsp/ParsingException.h"
#include "dsp/StereoWrapper.h"
#include "tools/ToolError.h"

#include <functional>
#include <glib.h>
#include <map>
#include <set>
#include <vector>

namespace Zelmar {
namespace Host {

namespace {

ToolError configError(std::string const& path, std::string const& problem)
{
    return ToolError(ToolError::c_badInput, "config " + path + ": " + problem);
}

std::string trimmed(std::string text)
{
    while (!text.empty() && g_ascii_isspace(text.back()))
        text.pop_back();
    return text;
}

bool hasBracket(std::string const& portSpec)
{
    return portSpec.find_first_of("[]") != std::string::npos;
}

// The wires as compile() will see them once shortcuts are expanded; shortcuts it would reject are kept
// so that the library reports them in its own words.
Chain::tWires expandShortcuts(Chain const& chain)
{
    Chain::tWires wires = chain.getWires();
    for (auto const& [to, from] : chain.getWires()) {
        if (hasBracket(to.str()) || hasBracket(from.str()))
            continue;
        auto const destination = chain.tryFindModule(to);
        auto const source = chain.tryFindModule(from);
        if (!destination || !source || destination->getNumInPorts() != source->getNumOutPorts())
            continue;
        for (unsigned int i = 0; i < destination->getNumInPorts(); ++i)
            wires[Tools::String::format("%0[%1]", to, i)] = Tools::String::format("%0[%1]", from, i);
        wires.erase(to);
    }
    return wires;
}

struct PortRef
{
    std::shared_ptr<Module> module;
    unsigned int port = 0;
};

// Resolves a portSpec the way the chain does; false where the chain itself will throw.
bool resolve(Chain const& chain, std::string const& portSpec, PortRef& ref)
{
    auto const bracket = portSpec.find('[');
    if (bracket == std::string::npos)
        return false;
    try {
        ref.port = static_cast<unsigned int>(std::stoi(portSpec.substr(bracket + 1)));
    } catch (std::exception const&) {
        return false;
    }
    ref.module = chain.tryFindModule(portSpec.substr(0, bracket));
    return ref.module != nullptr;
}

template <class F> void forEachModuleAndInner(Chain const& chain, F&& f)
{
    for (auto const& module : chain.getModules()) {
        f(*module);
        if (auto const* wrapper = dynamic_cast<StereoWrapper const*>(module.get())) {
            f(*wrapper->getLeft());
            f(*wrapper->getRight());
        }
    }
}

} // namespace

std::unique_ptr<Chain> ChainLoader::load(std::string const& path, unsigned int sampleRate)
{
    checkReadableAndWellFormed(path);
    auto chain = std::make_unique<Chain>(sampleRate);
    try {
        chain->load(path, false);
        checkWiring(*chain, path);
        chain->compile();
        checkInputsConnected(*chain, path);
    } catch (ToolError const&) {
        throw;
    } catch (ParsingException const& e) {
        throw configError(path, trimmed(e.getMessage().str()));
    } catch (IllegalArgumentException const& e) {
        throw configError(path, trimmed(e.getMessage().str()));
    } catch (std::invalid_argument const& e) {
        throw configError(path,
                          std::string("a parameter value or port number is not a number (") + e.what() + ")");
    } catch (std::out_of_range const& e) {
        throw configError(path,
                          std::string("a parameter value or port number is out of range (") + e.what() + ")");
    } catch (std::exception const& e) {
        throw configError(path, e.what());
    }
    return chain;
}

void ChainLoader::checkReadableAndWellFormed(std::string const& path)
{
    gchar* text = nullptr;
    gsize length = 0;
    GError* error = nullptr;
    if (!g_file_get_contents(path.c_str(), &text, &length, &error)) {
        std::string const message = error->message;
        g_error_free(error);
        throw configError(path, "cannot read the file: " + message);
    }
    // The same parser with the same flags as the library, and likewise no end-of-document check.
    GMarkupParser const ignoreAll = {};
    GMarkupParseContext* context =
        g_markup_parse_context_new(&ignoreAll, GMarkupParseFlags(0), nullptr, nullptr);
    bool const parsed = g_markup_parse_context_parse(context, text, gssize(length), &error);
    int line = 0;
    int column = 0;
    g_markup_parse_context_get_position(context, &line, &column);
    g_markup_parse_context_free(context);
    g_free(text);
    if (!parsed) {
        std::string message = error->message;
        g_error_free(error);
        // GMarkup puts its own position first; ours comes in a fixed form instead.
        auto const colon = message.find(": ");
        if (message.rfind("Error on line ", 0) == 0 && colon != std::string::npos)
            message = message.substr(colon + 2);
        throw configError(path, "malformed XML at line " + std::to_string(line) + ", column " +
                                    std::to_string(column) + ": " + message);
    }
}

void ChainLoader::checkWiring(Chain const& chain, std::string const& path)
{
    std::map<Module const*, std::vector<Module const*>> feeders;
    for (auto const& [to, from] : expandShortcuts(chain)) {
        PortRef destination;
        PortRef source;
        // The library throws on such a wire while wiring, before it could reach the sink check.
        if (!resolve(chain, to.str(), destination) || !resolve(chain, from.str(), source))
            return;
        if (source.port >= source.module->getNumOutPorts())
            throw configError(path, "cable from " + from.str() + " to " + to.str() + ": module " +
                                        source.module->getID().str() + " has no output port " +
                                        std::to_string(source.port) + " (it has " +
                                        std::to_string(source.module->getNumOutPorts()) + ")");
        feeders[destination.module.get()].push_back(source.module.get());
    }

    // Compiling keeps only the sinks and what feeds them; anything else would end the process.
    std::set<Module const*> placed;
    std::function<void(Module const*)> place = [&](Module const* module) {
        if (!placed.insert(module).second)
            return;
        for (Module const* feeder : feeders[module])
            place(feeder);
    };
    for (auto const& module : chain.getModules()) {
        if (module->getNumOutPorts() == 0)
            place(module.get());
    }
    std::string lost;
    for (auto const& module : chain.getModules()) {
        if (!placed.count(module.get()))
            lost += (lost.empty() ? "" : ", ") + module->getID().str();
    }
    if (!lost.empty())
        throw configError(path, "module " + lost +
                                    " leads to no sink: wire it on to an output or a meter, or remove it");
}

void ChainLoader::checkInputsConnected(Chain const& chain, std::string const& path)
{
    for (auto const& module : chain.getModules()) {
        for (unsigned int port = 0; port < module->getNumInPorts(); ++port) {
            if (!module->getInPortSpec(port).module)
                throw configError(path, "input port " + std::to_string(port) + " of module " +
                                            module->getID().str() + " is not connected");
        }
    }
}

} // namespace Host
} // namespace Zelmar
