#pragma once

#include "base/String.h"
#include "dsp/Export.h"

#include <exception>

namespace Zelmar {

// An argument outside what an operation accepts. The message is read from getMessage().
class ORVANDELDSP_EXPORT IllegalArgumentException : public std::exception
{
public:
    template <class... Args>
    explicit IllegalArgumentException(Tools::String const& messageTemplate, Args... args)
        : m_message(Tools::String::format(messageTemplate, args...))
    {
    }

    Tools::String const& getMessage() const { return m_message; }

private:
    Tools::String m_message;
};

} // namespace Zelmar
