#include "dsp/ChainParser.h"

#include "base/Assert.h"
#include "base/PrintableText.h"
#include "dsp/Chain.h"

#include <cstring>

namespace Zelmar {

ChainParser::ChainParser(Chain& chain, Tools::String const& path) : m_chain(chain)
{
    gchar* text = nullptr;
    gsize length = 0;
    GError* error = nullptr;
    if (!g_file_get_contents(path.c_str(), &text, &length, &error))
        g_log(Tools::c_logDomain, G_LOG_LEVEL_ERROR, "Could not open dsp config file: %s\n", error->message);

    GMarkupParser const callbacks = {&ChainParser::startElementCB, &ChainParser::endElementCB,
                                     &ChainParser::elementTextCB, nullptr, nullptr};
    GMarkupParseContext* context =
        g_markup_parse_context_new(&callbacks, GMarkupParseFlags(0), this, nullptr);
    // The end-of-document check is deliberately not requested: a file that stops inside an open
    // element is accepted.
    bool const parsed = g_markup_parse_context_parse(context, text, gssize(length), &error);
    g_markup_parse_context_free(context);
    g_free(text);
    if (m_pendingException) {
        g_clear_error(&error);
        std::rethrow_exception(m_pendingException);
    }
    // GMarkup quotes the offending text, which may hold any bytes of the file.
    if (!parsed)
        g_log(Tools::c_logDomain, G_LOG_LEVEL_ERROR, "Could not parse dsp config file: %s\n",
              Tools::printableLine(error->message).c_str());
}

void ChainParser::applyDelayedParameters()
{
    for (auto const& [module, parameters] : m_delayedParameters) {
        module->validateParameters(parameters, m_chain.getSampleRate());
        module->setParameters(parameters, m_chain.getSampleRate());
    }
}

Tools::String ChainParser::findAttribute(char const** names, char const** values, char const* name)
{
    for (unsigned int i = 0; names[i]; ++i) {
        if (std::strcmp(names[i], name) == 0)
            return values[i];
    }
    return Tools::String();
}

void ChainParser::startElement(Tools::String const& element, char const** names, char const** values)
{
    if (element == "module" || element == "stereo-module") {
        Tools::String const type = findAttribute(names, values, "type");
        Tools::String const id = findAttribute(names, values, "id");
        m_currentModule =
            element == "module" ? m_chain.addModule(type, id) : m_chain.addStereoModule(type, id);
        m_currentParameters.clear();
    } else if (element == "parameter") {
        m_currentParameterKey = findAttribute(names, values, "id");
        m_currentParameterType = findAttribute(names, values, "type");
    } else if (element == "cable") {
        m_chain.pullWire(findAttribute(names, values, "in"), findAttribute(names, values, "out"));
    }
}

void ChainParser::endElement(Tools::String const& element)
{
    if (element == "module" || element == "stereo-module") {
        if (m_currentModule)
            m_delayedParameters[m_currentModule] = m_currentParameters;
        m_currentModule.reset();
    } else if (element == "parameter") {
        m_currentParameterKey = Tools::String();
        m_currentParameterType = Tools::String();
    }
}

void ChainParser::elementText(Tools::String const& text)
{
    // Taken verbatim: white space around a value is part of it.
    if (!m_currentParameterKey.empty() && m_currentModule)
        m_currentParameters.set(m_currentParameterKey, text);
}

template <class F> void ChainParser::guarded(F&& step, GError** error)
{
    try {
        step();
    } catch (...) {
        m_pendingException = std::current_exception();
        g_set_error_literal(error, G_MARKUP_ERROR, G_MARKUP_ERROR_INVALID_CONTENT, "configuration fault");
    }
}

void ChainParser::startElementCB(GMarkupParseContext*, gchar const* element, gchar const** names,
                                 gchar const** values, gpointer self, GError** error)
{
    auto* parser = static_cast<ChainParser*>(self);
    parser->guarded([&] { parser->startElement(element, names, values); }, error);
}

void ChainParser::endElementCB(GMarkupParseContext*, gchar const* element, gpointer self, GError** error)
{
    auto* parser = static_cast<ChainParser*>(self);
    parser->guarded([&] { parser->endElement(element); }, error);
}

void ChainParser::elementTextCB(GMarkupParseContext*, gchar const* text, gsize length, gpointer self,
                                GError** error)
{
    auto* parser = static_cast<ChainParser*>(self);
    parser->guarded([&] { parser->elementText(Tools::String(text, length)); }, error);
}

} // namespace Zelmar
