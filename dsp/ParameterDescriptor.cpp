#include "dsp/ParameterDescriptor.h"

#include "base/PrintableText.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <glib.h>
#include <sstream>
#include <stdexcept>

namespace Zelmar {

namespace {

using Finding = ParameterDescriptor::Finding;

// Breakpoints are Q12.19 numbers, which hold magnitudes below 4096.
constexpr double c_curveLimit = 4096.0;

// A value as a message shows it: quoted, on one line, valid UTF-8, and not longer than a line.
std::string quoted(std::string const& value)
{
    std::string text = Tools::printableLine(value);
    constexpr std::size_t c_longest = 40;
    if (g_utf8_strlen(text.c_str(), -1) > glong(c_longest))
        text = text.substr(0, std::size_t(g_utf8_offset_to_pointer(text.c_str(), c_longest) - text.c_str())) +
               "...";
    return "\"" + text + "\"";
}

std::string written(double value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

bool onlyBlanks(std::string const& text, std::size_t from)
{
    for (std::size_t i = from; i < text.size(); ++i) {
        if (!g_ascii_isspace(text[i]))
            return false;
    }
    return true;
}

std::string trimmedBlanks(std::string const& text)
{
    std::size_t const first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return std::string();
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Parses as std::stod does; false (with a finding) where it would throw. An empty text reads as 0.
bool parseNumber(std::string const& text, double& value, std::vector<Finding>& findings)
{
    if (text.empty()) {
        value = 0.0;
        return true;
    }
    std::size_t used = 0;
    try {
        value = std::stod(text, &used);
    } catch (std::invalid_argument const&) {
        findings.push_back({Finding::Refused, quoted(text) + " is not a number"});
        return false;
    } catch (std::out_of_range const&) {
        findings.push_back({Finding::Refused, quoted(text) + " is out of the range of a number"});
        return false;
    }
    if (!onlyBlanks(text, used))
        findings.push_back({Finding::Doubtful, quoted(text) + " reads as " + written(value) +
                                                   ": the text after the number is ignored"});
    return true;
}

} // namespace

ParameterDescriptor::ParameterDescriptor(char const* key, Kind kind, char const* unit, char const* meaning)
    : m_key(key), m_kind(kind), m_unit(unit), m_meaning(meaning)
{
}

ParameterDescriptor ParameterDescriptor::number(char const* key, char const* unit, char const* meaning)
{
    return ParameterDescriptor(key, Kind::Number, unit, meaning);
}

ParameterDescriptor ParameterDescriptor::wholeNumber(char const* key, char const* unit, char const* meaning)
{
    return ParameterDescriptor(key, Kind::WholeNumber, unit, meaning);
}

ParameterDescriptor ParameterDescriptor::onOff(char const* key, char const* meaning)
{
    return ParameterDescriptor(key, Kind::OnOff, "", meaning).byDefault("off");
}

ParameterDescriptor ParameterDescriptor::choice(char const* key, std::vector<char const*> words,
                                                char const* meaning)
{
    ParameterDescriptor descriptor(key, Kind::Choice, "", meaning);
    descriptor.m_words = std::move(words);
    return descriptor;
}

ParameterDescriptor ParameterDescriptor::digits(char const* key, char const* meaning)
{
    return ParameterDescriptor(key, Kind::Digits, "", meaning);
}

ParameterDescriptor ParameterDescriptor::curve(char const* key, char const* unit, char const* meaning)
{
    return ParameterDescriptor(key, Kind::Curve, unit, meaning);
}

ParameterDescriptor ParameterDescriptor::text(char const* key, char const* meaning)
{
    return ParameterDescriptor(key, Kind::Text, "", meaning);
}

ParameterDescriptor ParameterDescriptor::byDefault(char const* value) const
{
    ParameterDescriptor copy = *this;
    copy.m_default = value;
    return copy;
}

ParameterDescriptor ParameterDescriptor::required(char const* example) const
{
    ParameterDescriptor copy = byDefault(example);
    copy.m_required = true;
    return copy;
}

ParameterDescriptor ParameterDescriptor::atLeast(double low) const
{
    ParameterDescriptor copy = *this;
    copy.m_low = low;
    copy.m_lowIncluded = true;
    return copy;
}

ParameterDescriptor ParameterDescriptor::above(double low) const
{
    ParameterDescriptor copy = atLeast(low);
    copy.m_lowIncluded = false;
    return copy;
}

ParameterDescriptor ParameterDescriptor::below(double high) const
{
    ParameterDescriptor copy = *this;
    copy.m_high = high;
    copy.m_highIncluded = false;
    return copy;
}

ParameterDescriptor ParameterDescriptor::between(double low, double high) const
{
    ParameterDescriptor copy = atLeast(low);
    copy.m_high = high;
    copy.m_highIncluded = true;
    return copy;
}

ParameterDescriptor ParameterDescriptor::belowNyquist() const
{
    ParameterDescriptor copy = *this;
    copy.m_belowNyquist = true;
    return copy;
}

ParameterDescriptor ParameterDescriptor::loosely() const
{
    ParameterDescriptor copy = *this;
    copy.m_loose = true;
    return copy;
}

ParameterDescriptor ParameterDescriptor::onlyReported() const
{
    ParameterDescriptor copy = *this;
    copy.m_onlyReported = true;
    return copy;
}

bool ParameterDescriptor::inRange(double value) const
{
    bool const aboveLow = m_lowIncluded ? value >= m_low : value > m_low;
    bool const belowHigh = m_highIncluded ? value <= m_high : value < m_high;
    return aboveLow && belowHigh;
}

std::string ParameterDescriptor::describeRange() const
{
    std::string const unit = *m_unit ? std::string(" ") + m_unit : std::string();
    bool const hasLow = std::isfinite(m_low);
    bool const hasHigh = std::isfinite(m_high);
    if (hasLow && hasHigh && m_lowIncluded && m_highIncluded)
        return "from " + written(m_low) + " to " + written(m_high) + unit;
    std::string range;
    if (hasLow)
        range = (m_lowIncluded ? "at least " : "above ") + written(m_low) + (hasHigh ? "" : unit);
    if (hasHigh)
        range += (hasLow ? " and " : "") + std::string(m_highIncluded ? "at most " : "below ") +
                 written(m_high) + unit;
    return range;
}

std::string ParameterDescriptor::describeValues() const
{
    std::string values;
    switch (m_kind) {
    case Kind::Number:
    case Kind::WholeNumber:
    case Kind::Curve:
        values = describeRange();
        if (m_belowNyquist)
            values += std::string(values.empty() ? "" : ", ") + "below half the sample rate";
        break;
    case Kind::OnOff:
        values = "1, yes, true or on; 0, no, false or off";
        break;
    case Kind::Choice:
        for (char const* word : m_words)
            values += (values.empty() ? "one of " : ", ") + std::string(word);
        break;
    case Kind::Digits:
        values = "decimal digits";
        break;
    case Kind::Text:
        break;
    }
    return values;
}

std::vector<ParameterDescriptor::Finding> ParameterDescriptor::inspect(Tools::String const& value,
                                                                       unsigned int sampleRate) const
{
    std::vector<Finding> findings;
    std::string const& text = value.str();
    if (m_required && m_kind == Kind::Text && text.empty())
        findings.push_back({Finding::Refused, "must not be empty"});
    switch (m_kind) {
    case Kind::Number:
        inspectNumber(text, sampleRate, findings);
        break;
    case Kind::WholeNumber:
        inspectWholeNumber(text, findings);
        break;
    case Kind::OnOff:
        if (!(text == "1" || text == "0" || value.equals("yes", false) || value.equals("no", false) ||
              value.equals("true", false) || value.equals("false", false) || value.equals("on", false) ||
              value.equals("off", false)))
            findings.push_back({Finding::Doubtful, quoted(text) + " reads as off; say " + describeValues()});
        break;
    case Kind::Choice:
        inspectChoice(text, findings);
        break;
    case Kind::Digits:
        if (text.find_first_not_of("0123456789") != std::string::npos)
            findings.push_back({Finding::Refused, "must be decimal digits, not " + quoted(text)});
        break;
    case Kind::Curve:
        inspectCurve(text, findings);
        break;
    case Kind::Text:
        break;
    }
    return findings;
}

void ParameterDescriptor::inspectRange(double value, std::string const& text, std::string const& where,
                                       std::vector<Finding>& findings) const
{
    if (!std::isfinite(value))
        findings.push_back({Finding::Refused, where + "must be a finite number, not " + quoted(text)});
    else if (!inRange(value))
        findings.push_back({m_onlyReported ? Finding::Reported : Finding::Refused,
                            where + "must be " + describeRange() + ", not " + written(value)});
}

void ParameterDescriptor::inspectNumber(std::string const& text, unsigned int sampleRate,
                                        std::vector<Finding>& findings) const
{
    double value = 0.0;
    if (!parseNumber(text, value, findings))
        return;
    inspectRange(value, text, "", findings);
    if (m_belowNyquist && value >= 0.5 * sampleRate)
        findings.push_back({Finding::Reported, written(value) + " " + m_unit +
                                                   " is not below half the sample rate (" +
                                                   written(0.5 * sampleRate) + " " + m_unit + " at " +
                                                   std::to_string(sampleRate) +
                                                   " Hz), so the filter passes audio through unchanged"});
}

void ParameterDescriptor::inspectWholeNumber(std::string const& text, std::vector<Finding>& findings) const
{
    if (text.empty())
        return inspectRange(0.0, text, "", findings);
    std::size_t used = 0;
    int value = 0;
    try {
        value = std::stoi(text, &used);
    } catch (std::invalid_argument const&) {
        findings.push_back({Finding::Refused, quoted(text) + " is not a whole number"});
        return;
    } catch (std::out_of_range const&) {
        findings.push_back({Finding::Refused, quoted(text) + " is out of the range of a whole number"});
        return;
    }
    if (!onlyBlanks(text, used))
        findings.push_back({Finding::Doubtful, quoted(text) + " reads as " + std::to_string(value) +
                                                   ": the text after the number is ignored"});
    inspectRange(value, text, "", findings);
}

void ParameterDescriptor::inspectChoice(std::string const& text, std::vector<Finding>& findings) const
{
    Tools::String const word = m_loose ? trimmedBlanks(text) : text;
    for (char const* choice : m_words) {
        if (word.equals(choice, !m_loose))
            return;
    }
    findings.push_back({m_onlyReported ? Finding::Reported : Finding::Refused,
                        "must be " + describeValues() + ", not " + quoted(text)});
}

void ParameterDescriptor::inspectCurve(std::string const& text, std::vector<Finding>& findings) const
{
    bool anyBreakpoint = false;
    std::istringstream pieces(text);
    std::string piece;
    while (std::getline(pieces, piece, ',')) {
        auto const equals = piece.find('=');
        if (equals == std::string::npos) {
            findings.push_back(
                {Finding::Doubtful, "the piece " + quoted(piece) + " has no \"=\" and is ignored"});
            continue;
        }
        anyBreakpoint = true;
        double key = 0.0;
        double value = 0.0;
        std::size_t const before = findings.size();
        // Both sides are read whole, as std::stod reads them: an empty side is not a number.
        for (auto [side, number] :
             {std::pair{piece.substr(0, equals), &key}, {piece.substr(equals + 1), &value}}) {
            if (side.empty())
                findings.push_back({Finding::Refused, "the breakpoint " + quoted(piece) + " lacks a number"});
            else if (parseNumber(side, *number, findings) && !(std::fabs(*number) < c_curveLimit))
                findings.push_back({Finding::Refused, "the breakpoint " + quoted(piece) +
                                                          " is out of range: volumes and values must lie "
                                                          "between -4096 and 4096"});
        }
        bool const parsed = std::none_of(findings.begin() + long(before), findings.end(),
                                         [](Finding const& f) { return f.level == Finding::Refused; });
        if (parsed)
            inspectRange(value, piece.substr(equals + 1), "the value of " + quoted(piece) + " ", findings);
    }
    if (!anyBreakpoint)
        findings.push_back(
            {Finding::Refused, "needs at least one breakpoint \"volume=value\", not " + quoted(text)});
}

} // namespace Zelmar
