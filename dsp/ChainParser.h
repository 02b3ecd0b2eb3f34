#pragma once

#include "base/String.h"
#include "dsp/Parameters.h"

#include <exception>
#include <glib.h>
#include <map>
#include <memory>

namespace Zelmar {

class Chain;
class Module;

// Reads a dsp config file into a chain: `module` and `stereo-module` elements add modules, their
// `parameter` children are collected and applied only after the whole file is read, `cable` elements
// become wires. Elements are matched by name anywhere; everything else is ignored.
class ChainParser
{
public:
    ChainParser(Chain& chain, Tools::String const& path);

    // Gives every module its whole parameter set; the order among modules is not defined.
    void applyDelayedParameters();

    static Tools::String findAttribute(char const** names, char const** values, char const* name);

private:
    static void startElementCB(GMarkupParseContext*, gchar const* element, gchar const** names,
                               gchar const** values, gpointer self, GError** error);
    static void endElementCB(GMarkupParseContext*, gchar const* element, gpointer self, GError** error);
    static void elementTextCB(GMarkupParseContext*, gchar const* text, gsize length, gpointer self,
                              GError** error);

    void startElement(Tools::String const& element, char const** names, char const** values);
    void endElement(Tools::String const& element);
    void elementText(Tools::String const& text);
    // Exceptions must not unwind through the C parser: they are kept, the parse is stopped, and the
    // exception is thrown again once the parser has returned.
    template <class F>
    void guarded(F&& step, GError** error);

    Chain& m_chain;
    std::shared_ptr<Module> m_currentModule;
    Tools::String m_currentParameterKey;
    Tools::String m_currentParameterType;
    Parameters m_currentParameters;
    std::map<std::shared_ptr<Module>, Parameters> m_delayedParameters;
    std::exception_ptr m_pendingException;
};

} // namespace Zelmar
