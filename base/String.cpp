#include "base/String.h"

#include "base/Assert.h"

#include <cctype>
#include <glib.h>

namespace Zelmar {
namespace Tools {

namespace {

constexpr char const* c_printfPatternWarning =
    "do not use printf like patterns, instead use %0, %1, %2... and %% for the % itself -> ";
constexpr char const* c_trailingPercentWarning = "last character is a single % -> probably you meant %%? ->";

String reportTemplateFault(char const* warning, String const& messageTemplate)
{
    String result = String(warning) + messageTemplate;
    g_log(c_logDomain, G_LOG_LEVEL_MESSAGE, "%s", result.c_str());
    return result;
}

} // namespace

bool String::equals(String const& other, bool caseSensitive) const
{
    if (caseSensitive)
        return m_text == other.m_text;
    if (m_text.length() != other.m_text.length())
        return false;
    for (std::size_t i = 0; i < m_text.length(); ++i) {
        if (std::tolower(static_cast<unsigned char>(m_text[i])) !=
            std::tolower(static_cast<unsigned char>(other.m_text[i])))
            return false;
    }
    return true;
}

String String::replaceNonAlphanumericChars(char replacement) const
{
    std::string result = m_text;
    for (char& c : result) {
        if (!g_ascii_isalnum(c))
            c = replacement;
    }
    return String(result);
}

String& String::operator+=(String const& other)
{
    m_text += other.m_text;
    return *this;
}

String String::formatWritten(String const& messageTemplate, std::vector<std::string> const& arguments)
{
    std::string const& text = messageTemplate.m_text;
    std::string result;
    for (std::size_t i = 0; i < text.length(); ++i) {
        if (text[i] != '%') {
            result += text[i];
            continue;
        }
        if (i + 1 == text.length())
            return reportTemplateFault(c_trailingPercentWarning, messageTemplate);
        char const next = text[i + 1];
        if (next == '%') {
            result += '%';
            ++i;
            continue;
        }
        if (!g_ascii_isdigit(next))
            return reportTemplateFault(c_printfPatternWarning, messageTemplate);
        std::size_t index = 0;
        while (i + 1 < text.length() && g_ascii_isdigit(text[i + 1])) {
            index = index * 10 + static_cast<std::size_t>(text[i + 1] - '0');
            ++i;
        }
        if (index < arguments.size())
            result += arguments[index];
    }
    return String(result);
}

} // namespace Tools
} // namespace Zelmar
