#pragma once

#include "dsp/Export.h"

#include <cstddef>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace Zelmar {
namespace Tools {

// The library's text type: bytes with value semantics, plus message templates with "%0", "%1", ... and "%%".
class ORVANDELDSP_EXPORT String
{
public:
    String() = default;
    String(char const* text) : m_text(text ? text : "") {}
    String(char const* text, std::size_t length) : m_text(text, length) {}
    String(std::string text) : m_text(std::move(text)) {}

    char const* c_str() const { return m_text.c_str(); }
    char const* data() const { return m_text.data(); }
    std::size_t length() const { return m_text.length(); }
    bool empty() const { return m_text.empty(); }
    std::string const& str() const { return m_text; }
    char operator[](std::size_t i) const { return m_text[i]; }

    bool operator==(char const* other) const { return m_text == other; }
    bool operator==(String const& other) const { return m_text == other.m_text; }
    bool operator!=(char const* other) const { return !(*this == other); }
    bool operator!=(String const& other) const { return !(*this == other); }
    // Byte-wise order; a common prefix puts the shorter text first.
    bool operator<(String const& other) const { return m_text < other.m_text; }

    // With caseSensitive false, ASCII letters compare without regard to case.
    bool equals(String const& other, bool caseSensitive) const;

    // Every byte that is not an ASCII letter or digit becomes `replacement`.
    String replaceNonAlphanumericChars(char replacement) const;

    String& operator+=(String const& other);
    friend String operator+(String const& a, String const& b) { return String(a.m_text + b.m_text); }
    friend std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.m_text; }

    // Fills a template: "%N" is argument N written as a stream writes it, "%%" is "%".
    // A malformed template yields a warning text followed by the raw template, logged at message level.
    template <class... Args> static String format(String const& messageTemplate, Args const&... args)
    {
        std::vector<std::string> written{toText(args)...};
        return formatWritten(messageTemplate, written);
    }

    static String formatWritten(String const& messageTemplate, std::vector<std::string> const& arguments);

    template <class T> static std::string toText(T const& value)
    {
        std::ostringstream os;
        os << value;
        return os.str();
    }

private:
    std::string m_text;
};

} // namespace Tools
} // namespace Zelmar
