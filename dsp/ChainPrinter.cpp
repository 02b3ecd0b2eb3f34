#include "dsp/ChainPrinter.h"

#include "base/Assert.h"
#include "dsp/Chain.h"

#include <gio/gio.h>
#include <sstream>

namespace Zelmar {

Tools::String ChainPrinter::describe(Chain const& chain)
{
    std::stringstream text;
    text << "digraph signalflow {"
         << "size=\"6,6\";"
         << "node [style=\"filled, bold\" penwidth=1 fillcolor=\"white\" fontname=\"Courier New\" "
            "shape=\"record\"];\n";
    // A module feeding several inputs is described once per wire; dot merges the repeats.
    for (auto const& wire : chain.getWires()) {
        if (auto const source = chain.parseWireModule(wire.second)) {
            source->describe(text);
            text << "\n";
        }
    }
    for (auto const& [to, from] : chain.getWires()) {
        auto const source = chain.parseWireModule(from);
        auto const destination = chain.parseWireModule(to);
        if (source && destination)
            text << source->getDotSafeID() << " -> " << destination->getDotSafeID() << "\n";
    }
    text << "}";
    return text.str();
}

void ChainPrinter::print(Chain const& chain, Tools::String const& format, Tools::String const& output,
                         Tools::String const& dotFile)
{
    Tools::String const text = describe(chain);
    GError* error = nullptr;
    if (!g_file_set_contents(dotFile.c_str(), text.data(), gssize(text.length()), &error) ||
        !render(format, output, dotFile, &error)) {
        g_log(Tools::c_logDomain, G_LOG_LEVEL_MESSAGE, "%s", error->message);
        g_error_free(error);
    }
}

bool ChainPrinter::render(Tools::String const& format, Tools::String const& output,
                          Tools::String const& dotFile, GError** error)
{
    Tools::String const command = Tools::String("dot -T") + format + " " + dotFile;
    g_log(Tools::c_logDomain, G_LOG_LEVEL_MESSAGE, "invoking %s", command.c_str());
    GSubprocess* dot = g_subprocess_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE, error, "dot", "-T", format.c_str(),
                                        dotFile.c_str(), nullptr);
    if (!dot)
        return false;

    bool ok = true;
    if (!output.empty()) {
        GFile* file = g_file_new_for_commandline_arg(output.c_str());
        GFileOutputStream* target = g_file_replace(file, nullptr, FALSE, G_FILE_CREATE_NONE, nullptr, error);
        if (target) {
            ok = g_output_stream_splice(G_OUTPUT_STREAM(target), g_subprocess_get_stdout_pipe(dot),
                                        GOutputStreamSpliceFlags(G_OUTPUT_STREAM_SPLICE_CLOSE_SOURCE |
                                                                 G_OUTPUT_STREAM_SPLICE_CLOSE_TARGET),
                                        nullptr, error) >= 0;
            g_object_unref(target);
        } else {
            ok = false;
        }
        g_object_unref(file);
    }
    if (ok && output.empty()) {
        // Reading the pipe to its end keeps a large picture from stalling dot; the bytes are dropped.
        GBytes* discarded = nullptr;
        ok = g_subprocess_communicate(dot, nullptr, nullptr, &discarded, nullptr, error);
        if (discarded)
            g_bytes_unref(discarded);
    } else {
        GError* waitError = nullptr;
        bool const waited = g_subprocess_wait(dot, nullptr, ok ? error : &waitError);
        g_clear_error(&waitError);
        ok = ok && waited;
    }
    g_object_unref(dot);
    return ok;
}

} // namespace Zelmar
