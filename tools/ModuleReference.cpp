#include "tools/ModuleReference.h"

#include "dsp/ModuleFactory.h"

#include <algorithm>
#include <glib.h>

namespace Zelmar {
namespace Host {

namespace {

constexpr char const* c_fileFormat = R"(## The config file

A dsp config is an XML file. Its elements are found by name wherever they stand: the root element's
name is free (`<dsp>` by convention), and other elements are ignored with their attributes.

- `<module type="TYPE" id="ID">` adds a module of one of the types below. The id names it for cables
  and for the chain service (`orvandeldsp set ID KEY VALUE`); each module needs an id of its own.
- `<stereo-module type="TYPE" id="ID">` adds the stereo form of a type: its stereo variant where it has
  one, otherwise two modules of the type side by side, inputs 0 to n-1 on the left and n to 2n-1 on
  the right, output 0 left and 1 right.
- `<parameter id="KEY">VALUE</parameter>` inside a module element sets one parameter. The text is taken
  as it stands, blanks included; a later parameter with the same key wins. A module's parameters are
  applied together once the whole file has been read. A `type` attribute is allowed and ignored.
- `<cable out="ID[PORT]" in="ID[PORT]"/>` joins an output port to an input port. Cables may stand
  anywhere and name modules declared further down. A cable without port numbers on either side
  (`out="a" in="b"`) joins every output of a to the input of b with the same number, so a needs as
  many outputs as b has inputs. An input takes one cable: a later cable to it replaces an earlier one.

A chain runs when it has an input stage (`input` or `resampler`) and an output stage (`output`), when
every input its modules read is connected (an output stage reads only the ports its
interleave-pattern names), and when every module leads on to a sink, a module without outputs.

Numbers are read as C's `strtod` reads them, so text after a number is ignored ("3 dB" reads as 3);
on/off values are on for 1, yes, true or on, and off for anything else. Levels marked "six decibels per
doubling" take 2^(dB/6) as the factor; filter gains are true decibels.

`orvandeldsp check --config FILE [--rate HZ]` reports every problem of a file with its line and
column: errors for what the library would refuse, could not run or would take otherwise than meant,
warnings for what it ignores.
)";

char const* kindName(ParameterDescriptor::Kind kind)
{
    switch (kind) {
    case ParameterDescriptor::Kind::Number:
        return "number";
    case ParameterDescriptor::Kind::WholeNumber:
        return "whole number";
    case ParameterDescriptor::Kind::OnOff:
        return "on/off";
    case ParameterDescriptor::Kind::Choice:
        return "word";
    case ParameterDescriptor::Kind::Digits:
        return "digits";
    case ParameterDescriptor::Kind::Curve:
        return "curve";
    case ParameterDescriptor::Kind::Text:
        return "text";
    }
    return "";
}

std::string describePorts(ModuleDescriptor const& type)
{
    std::string ins = type.getInPortsKey() ? std::string("one in per digit of ") + type.getInPortsKey()
                                           : std::to_string(type.getNumInPorts(Parameters())) + " in";
    std::string ports = ins + ", " + std::to_string(type.getNumOutPorts()) + " out";
    if (*type.getPortNote())
        ports += " (" + std::string(type.getPortNote()) + ")";
    return ports;
}

std::string describeDefault(ParameterDescriptor const& parameter)
{
    std::string const value = *parameter.getDefault() ? parameter.getDefault() : "empty";
    return parameter.isRequired() ? "required, for example " + value : "default " + value;
}

std::string describeKind(ParameterDescriptor const& parameter)
{
    std::string kind = kindName(parameter.getKind());
    if (*parameter.getUnit())
        kind += std::string(", ") + parameter.getUnit();
    return kind;
}

std::string sentence(char const* phrase)
{
    std::string text = phrase;
    if (!text.empty())
        text[0] = char(g_ascii_toupper(text[0]));
    return text + ".";
}

// Table cells must not hold a pipe.
std::string cell(std::string text)
{
    std::replace(text.begin(), text.end(), '|', '/');
    return text;
}

} // namespace

void ModuleReference::printList(std::FILE* out)
{
    int typeWidth = 0;
    int portWidth = 0;
    for (auto const& [name, type] : ModuleFactory::get().getDescriptors()) {
        typeWidth = std::max(typeWidth, int(name.length()));
        portWidth = std::max(portWidth, int(describePorts(type).length()));
    }
    for (auto const& [name, type] : ModuleFactory::get().getDescriptors())
        std::fprintf(out, "%-*s  %-*s  %s\n", typeWidth, name.c_str(), portWidth, describePorts(type).c_str(),
                     type.getMeaning());
}

bool ModuleReference::printType(std::string const& name, std::FILE* out)
{
    ModuleDescriptor const* type = ModuleFactory::get().findDescriptor(name);
    if (!type)
        return false;
    std::fprintf(out, "%s: %s\n  ports: %s\n", name.c_str(), type->getMeaning(),
                 describePorts(*type).c_str());
    if (type->getStereoVariant())
        std::fprintf(out, "  as a stereo-module: %s\n", type->getStereoVariant());
    if (type->getParameters().empty())
        std::fprintf(out, "  no parameters\n");
    for (auto const& parameter : type->getParameters()) {
        std::fprintf(out, "  %s (%s; %s)\n", parameter.getKey(), describeKind(parameter).c_str(),
                     describeDefault(parameter).c_str());
        if (!parameter.describeValues().empty())
            std::fprintf(out, "      %s\n", parameter.describeValues().c_str());
        std::fprintf(out, "      %s\n", parameter.getMeaning());
    }
    return true;
}

void ModuleReference::printMarkdown(std::FILE* out)
{
    std::fprintf(out,
                 "<!-- Generated by `orvandeldsp types --markdown` from the module descriptors of the "
                 "library; do not edit. -->\n\n# dsp config reference\n\n%s\n## Module types\n\n"
                 "| type | ports | what it does |\n|---|---|---|\n",
                 c_fileFormat);
    auto const& types = ModuleFactory::get().getDescriptors();
    for (auto const& [name, type] : types)
        std::fprintf(out, "| [%s](#%s) | %s | %s |\n", name.c_str(), name.c_str(),
                     cell(describePorts(type)).c_str(), cell(type.getMeaning()).c_str());
    for (auto const& [name, type] : types) {
        std::fprintf(out, "\n### %s\n\n%s\n\n- Ports: %s.\n", name.c_str(),
                     sentence(type.getMeaning()).c_str(), describePorts(type).c_str());
        if (type.getStereoVariant())
            std::fprintf(out, "- As a stereo-module it is a %s.\n", type.getStereoVariant());
        if (type.getParameters().empty()) {
            std::fprintf(out, "- No parameters.\n");
            continue;
        }
        std::fprintf(out, "\n| parameter | kind | values | default | meaning |\n|---|---|---|---|---|\n");
        for (auto const& parameter : type.getParameters())
            std::fprintf(out, "| %s | %s | %s | %s | %s |\n", parameter.getKey(),
                         cell(describeKind(parameter)).c_str(), cell(parameter.describeValues()).c_str(),
                         cell(describeDefault(parameter)).c_str(), cell(parameter.getMeaning()).c_str());
    }
}

} // namespace Host
} // namespace Zelmar
