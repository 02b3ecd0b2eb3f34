#pragma once

#include "base/String.h"
#include "dsp/Export.h"

#include <exception>

namespace Zelmar {

// A fault in a chain configuration. The message is read from getMessage(); what() is not overridden.
class ORVANDELDSP_EXPORT ParsingException : public std::exception
{
public:
    explicit ParsingException(Tools::String const& messageTemplate)
        : m_message(Tools::String::format(messageTemplate))
    {
    }
    ParsingException(Tools::String const& messageTemplate, Tools::String a)
        : m_message(Tools::String::format(messageTemplate, a))
    {
    }
    ParsingException(Tools::String const& messageTemplate, Tools::String a, Tools::String b)
        : m_message(Tools::String::format(messageTemplate, a, b))
    {
    }
    ParsingException(Tools::String const& messageTemplate, unsigned int a, Tools::String b)
        : m_message(Tools::String::format(messageTemplate, a, b))
    {
    }

    Tools::String const& getMessage() const { return m_message; }

private:
    Tools::String m_message;
};

} // namespace Zelmar
