#pragma once

#include "base/String.h"
#include "dsp/Parameters.h"

#include <string>
#include <vector>

namespace Zelmar {

// A dsp config file read into what it declares, each piece with its place in the file, the way
// ChainParser reads it (elements matched by name anywhere, parameters collected per module and kept
// only once the module's element closes) but without building anything or ending the process.
class ConfigDocument
{
public:
    struct Place
    {
        unsigned int line = 0; // 0: nowhere in particular
        unsigned int column = 0;
    };

    struct Parameter
    {
        Tools::String key;
        Tools::String value;
        Place place;
    };

    struct Module
    {
        bool stereo = false;
        Tools::String type;
        Tools::String id;
        Place place;
        // What the module is configured with: empty unless its element was closed.
        Parameters parameters;
        // Where each configured key was given.
        std::vector<Parameter> given;
        bool closed = false;
    };

    struct Cable
    {
        Tools::String in;
        Tools::String out;
        Place place;
    };

    // Something about the text itself; an error means the library would not read the file as meant.
    struct Note
    {
        bool error;
        Place place;
        std::string message;
    };

    static ConfigDocument read(std::string const& path);

    // False when the file could not be read or is not well-formed XML; the notes say why.
    bool isReadable() const { return m_readable; }
    std::vector<Module> const& getModules() const { return m_modules; }
    std::vector<Cable> const& getCables() const { return m_cables; }
    std::vector<Note> const& getNotes() const { return m_notes; }

private:
    class Reader;

    bool m_readable = false;
    std::vector<Module> m_modules;
    std::vector<Cable> m_cables;
    std::vector<Note> m_notes;
};

} // namespace Zelmar
