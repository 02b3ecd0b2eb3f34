#include "tools/ChainReport.h"

#include <algorithm>

namespace Zelmar {
namespace Host {

void ChainReport::print(Chain const& chain, std::string const& config, std::FILE* out)
{
    auto const& modules = chain.getModules();
    std::fprintf(out, "%s: OK, %zu modules in signal-flow order\n", config.c_str(), modules.size());
    int idWidth = 0;
    int typeWidth = 0;
    for (auto const& module : modules) {
        idWidth = std::max(idWidth, int(module->getID().length()));
        typeWidth = std::max(typeWidth, int(module->getType().length()));
    }
    for (auto const& module : modules) {
        std::fprintf(out, "  %-*s  %-*s  %u in, %u out", idWidth, module->getID().c_str(), typeWidth,
                     module->getType().c_str(), module->getNumInPorts(), module->getNumOutPorts());
        for (unsigned int port = 0; port < module->getNumInPorts(); ++port) {
            auto const& source = module->getInPortSpec(port);
            // An output stage may leave a port its pattern does not read unconnected.
            if (source.module)
                std::fprintf(out, "%s [%u] <- %s[%u]", port == 0 ? ";" : ",", port,
                             source.module->getID().c_str(), source.port);
            else
                std::fprintf(out, "%s [%u] unconnected", port == 0 ? ";" : ",", port);
        }
        std::fputc('\n', out);
        for (auto const& [key, value] : module->getParameters().getParams())
            std::fprintf(out, "  %-*s    %s = %s\n", idWidth, "", key.c_str(), value.c_str());
    }
}

} // namespace Host
} // namespace Zelmar
