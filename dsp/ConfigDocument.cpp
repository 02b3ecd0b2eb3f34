#include "dsp/ConfigDocument.h"

#include "base/PrintableText.h"

#include <cstring>
#include <glib.h>
#include <map>
#include <set>

namespace Zelmar {

namespace {

Tools::String attribute(char const** names, char const** values, char const* name)
{
    for (unsigned int i = 0; names[i]; ++i) {
        if (std::strcmp(names[i], name) == 0)
            return values[i];
    }
    return Tools::String();
}

struct KnownElement
{
    char const* name;
    std::set<std::string> attributes;
};

KnownElement const c_knownElements[] = {
    {"module", {"type", "id"}},
    {"stereo-module", {"type", "id"}},
    {"parameter", {"id", "type"}},
    {"cable", {"in", "out"}},
};

} // namespace

// Follows the parser's callbacks. GMarkup reports positions only where it has got to, so the place of
// each start tag is found by scanning the text alongside, which costs one pass over the file.
class ConfigDocument::Reader
{
public:
    Reader(ConfigDocument& document, std::string text) : m_document(document), m_text(std::move(text)) {}

    void parse()
    {
        GMarkupParser const callbacks = {&Reader::startCB, &Reader::endCB, &Reader::textCB, nullptr, nullptr};
        GMarkupParseContext* context =
            g_markup_parse_context_new(&callbacks, GMarkupParseFlags(0), this, nullptr);
        GError* error = nullptr;
        if (!g_markup_parse_context_parse(context, m_text.data(), gssize(m_text.size()), &error)) {
            int line = 0;
            int column = 0;
            g_markup_parse_context_get_position(context, &line, &column);
            noteMalformed(error, Place{unsigned(line), unsigned(column)});
            m_document.m_readable = false;
        } else if (!g_markup_parse_context_end_parse(context, &error)) {
            // The library does not ask for the end-of-document check and reads such a file as far as it
            // goes; what it then leaves out is a fault all the same.
            noteUnfinished(error);
        }
        g_clear_error(&error);
        g_markup_parse_context_free(context);
    }

private:
    struct OpenElement
    {
        std::string name;
        Place place;
        int module; // index of the module it opened, or -1
    };

    static void startCB(GMarkupParseContext*, gchar const* element, gchar const** names, gchar const** values,
                        gpointer self, GError**)
    {
        static_cast<Reader*>(self)->start(element, names, values);
    }
    static void endCB(GMarkupParseContext*, gchar const* element, gpointer self, GError**)
    {
        static_cast<Reader*>(self)->end(element);
    }
    static void textCB(GMarkupParseContext*, gchar const* text, gsize length, gpointer self, GError**)
    {
        static_cast<Reader*>(self)->text(std::string(text, length));
    }

    void start(std::string const& element, char const** names, char const** values)
    {
        Place const place = placeOfNextStartTag();
        noteUnknownAttributes(element, names, values, place);
        int opened = -1;
        if (element == "module" || element == "stereo-module") {
            if (m_current >= 0)
                note(false, place,
                     "a module inside the module at line " +
                         std::to_string(m_document.m_modules[std::size_t(m_current)].place.line) +
                         ": that one gets no parameters");
            Module module;
            module.stereo = element == "stereo-module";
            module.type = attribute(names, values, "type");
            module.id = attribute(names, values, "id");
            module.place = place;
            m_document.m_modules.push_back(module);
            opened = m_current = int(m_document.m_modules.size()) - 1;
            m_collected = Module();
            m_givenBy.clear();
        } else if (element == "parameter") {
            m_key = attribute(names, values, "id");
            m_keyPlace = place;
            ++m_parameterElements;
            if (m_current < 0)
                note(false, place, "a parameter outside any module is ignored");
            else if (m_key.empty())
                note(false, place, "a parameter without an id is ignored");
        } else if (element == "cable") {
            m_document.m_cables.push_back(
                {attribute(names, values, "in"), attribute(names, values, "out"), place});
        }
        m_open.push_back({element, place, opened});
    }

    void end(std::string const& element)
    {
        int const module = m_open.back().module;
        m_open.pop_back();
        if (module >= 0) {
            Module& closed = m_document.m_modules[std::size_t(module)];
            closed.closed = true;
            if (m_current == module) {
                closed.parameters = m_collected.parameters;
                closed.given = m_collected.given;
            }
            m_current = -1;
        } else if (element == "parameter") {
            m_key = Tools::String();
        }
    }

    // As the library takes it: verbatim, a later piece for the same key replacing an earlier one.
    void text(std::string const& value)
    {
        if (m_key.empty() || m_current < 0)
            return;
        for (auto& given : m_collected.given) {
            if (given.key != m_key)
                continue;
            if (m_givenBy[m_key.str()] != m_parameterElements)
                note(false, m_keyPlace,
                     "the parameter " + m_key.str() + " is given again; the later value wins");
            given = {m_key, value, m_keyPlace};
            m_collected.parameters.set(m_key, value);
            m_givenBy[m_key.str()] = m_parameterElements;
            return;
        }
        m_collected.given.push_back({m_key, value, m_keyPlace});
        m_collected.parameters.set(m_key, value);
        m_givenBy[m_key.str()] = m_parameterElements;
    }

    void noteUnknownAttributes(std::string const& element, char const** names, char const** values,
                               Place place)
    {
        for (auto const& known : c_knownElements) {
            if (element != known.name)
                continue;
            for (unsigned int i = 0; names[i]; ++i) {
                if (!known.attributes.count(names[i]))
                    note(false, place,
                         "the attribute " + Tools::printableLine(names[i]) + " of " +
                             describe(element, names, values) + " is unknown and ignored");
            }
        }
    }

    // The element as a message names it.
    std::string describe(std::string const& element, char const** names, char const** values) const
    {
        if (element == "cable")
            return "the cable from " + Tools::printableLine(attribute(names, values, "out").str()) + " to " +
                   Tools::printableLine(attribute(names, values, "in").str());
        std::string const id = Tools::printableLine(attribute(names, values, "id").str());
        if (element != "parameter")
            return element + " " + id;
        std::string text = "parameter " + id;
        if (m_current >= 0)
            text +=
                " of module " + Tools::printableLine(m_document.m_modules[std::size_t(m_current)].id.str());
        return text;
    }

    void noteUnfinished(GError const* error)
    {
        if (g_error_matches(error, G_MARKUP_ERROR, G_MARKUP_ERROR_EMPTY)) {
            note(true, Place{}, "the file holds no XML elements");
            return;
        }
        std::size_t const last = m_text.find_last_not_of(" \t\r\n");
        if (m_open.empty() || last == std::string::npos || m_text[last] != '>') {
            noteMalformed(error, placeAt(m_text.size()));
            return;
        }
        for (auto const& open : m_open)
            note(true, open.place,
                 "the element " + Tools::printableLine(open.name) + " is never closed" +
                     (open.module >= 0 ? ", so its parameters are not applied" : ""));
    }

    void noteMalformed(GError const* error, Place place)
    {
        std::string message = error->message;
        // GMarkup puts its own place first; ours is given apart.
        auto const colon = message.find(": ");
        if (message.rfind("Error on line ", 0) == 0 && colon != std::string::npos)
            message = message.substr(colon + 2);
        note(true, place, "malformed XML: " + Tools::printableLine(message));
    }

    void note(bool error, Place place, std::string message)
    {
        m_document.m_notes.push_back({error, place, std::move(message)});
    }

    // Comments, declarations, processing instructions and end tags are passed over; what is left is the
    // next start tag, the one GMarkup is reporting.
    Place placeOfNextStartTag()
    {
        for (;;) {
            std::size_t const open = m_text.find('<', m_cursor);
            if (open == std::string::npos)
                return Place{};
            m_cursor = open + 1;
            if (skipPast(open, "<!--", "-->") || skipPast(open, "<![CDATA[", "]]>") ||
                skipPast(open, "<?", "?>") || skipPast(open, "<!", ">") || skipPast(open, "</", ">"))
                continue;
            return placeAt(open);
        }
    }

    bool skipPast(std::size_t at, char const* opening, char const* closing)
    {
        if (m_text.compare(at, std::strlen(opening), opening) != 0)
            return false;
        std::size_t const close = m_text.find(closing, at + std::strlen(opening));
        m_cursor = close == std::string::npos ? m_text.size() : close + std::strlen(closing);
        return true;
    }

    // Counted on from the last place, so all places together cost one pass. Columns count characters.
    Place placeAt(std::size_t offset)
    {
        for (; m_counted < offset; ++m_counted) {
            char const c = m_text[m_counted];
            if (c == '\n') {
                ++m_place.line;
                m_place.column = 1;
            } else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) {
                ++m_place.column;
            }
        }
        return m_place;
    }

    ConfigDocument& m_document;
    std::string m_text;
    std::size_t m_cursor = 0;
    std::size_t m_counted = 0;
    Place m_place{1, 1};
    std::vector<OpenElement> m_open;
    int m_current = -1;
    Module m_collected;
    Tools::String m_key;
    Place m_keyPlace;
    unsigned int m_parameterElements = 0;
    std::map<std::string, unsigned int> m_givenBy;
};

ConfigDocument ConfigDocument::read(std::string const& path)
{
    ConfigDocument document;
    gchar* contents = nullptr;
    gsize length = 0;
    GError* error = nullptr;
    if (!g_file_get_contents(path.c_str(), &contents, &length, &error)) {
        document.m_notes.push_back(
            {true, Place{}, "cannot read the file: " + Tools::printableLine(error->message)});
        g_error_free(error);
        return document;
    }
    document.m_readable = true;
    Reader reader(document, std::string(contents, length));
    g_free(contents);
    reader.parse();
    return document;
}

} // namespace Zelmar
