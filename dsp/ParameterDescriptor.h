#pragma once

#include "base/String.h"
#include "dsp/Export.h"

#include <limits>
#include <string>
#include <vector>

namespace Zelmar {

// What one parameter of a module type accepts: its key, the kind of text it takes, its default, its
// range or words, its unit and what it means. Validation, the config check and the tool's reference
// all read it, so they cannot disagree.
class ORVANDELDSP_EXPORT ParameterDescriptor
{
public:
    enum class Kind
    {
        Number,      // a decimal number as std::stod reads it
        WholeNumber, // as std::stoi reads it
        OnOff,       // 1, yes, true or on; anything else reads as off
        Choice,      // one of a list of words
        Digits,      // decimal digits, one per item
        Curve,       // "key=value" breakpoints separated by ","; the values follow the range
        Text,        // anything
    };

    // How a value falls short. Refused: the module would refuse it, assert on it or apply it in part.
    // Reported: the module has a rule for it (it clamps, ignores or passes through) that a config
    // should not rely on by accident. Doubtful: it reads as something the text may not mean.
    struct Finding
    {
        enum Level
        {
            Refused,
            Reported,
            Doubtful
        };
        Level level;
        std::string message;
    };

    static ParameterDescriptor number(char const* key, char const* unit, char const* meaning);
    static ParameterDescriptor wholeNumber(char const* key, char const* unit, char const* meaning);
    static ParameterDescriptor onOff(char const* key, char const* meaning);
    static ParameterDescriptor choice(char const* key, std::vector<char const*> words, char const* meaning);
    static ParameterDescriptor digits(char const* key, char const* meaning);
    static ParameterDescriptor curve(char const* key, char const* unit, char const* meaning);
    static ParameterDescriptor text(char const* key, char const* meaning);

    // What a missing key reads as.
    ParameterDescriptor byDefault(char const* value) const;
    // A missing key (or, for text, an empty one) is refused; `example` stands in the reference.
    ParameterDescriptor required(char const* example) const;
    ParameterDescriptor atLeast(double low) const;
    ParameterDescriptor above(double low) const;
    ParameterDescriptor below(double high) const;
    ParameterDescriptor between(double low, double high) const;
    // At or above half the sample rate the module passes audio through: reported, not refused.
    ParameterDescriptor belowNyquist() const;
    // Words match without regard to case and to blanks around them.
    ParameterDescriptor loosely() const;
    // Values outside the range or the words are reported, not refused: the module has a rule for them.
    ParameterDescriptor onlyReported() const;

    char const* getKey() const { return m_key; }
    Kind getKind() const { return m_kind; }
    char const* getUnit() const { return m_unit; }
    char const* getMeaning() const { return m_meaning; }
    // The default, or for a required parameter its example.
    char const* getDefault() const { return m_default; }
    bool isRequired() const { return m_required; }
    // For the reference: "below 24", "one of a, b", "at least 0, below half the sample rate" ...
    std::string describeValues() const;

    // Everything wrong with one given value, at this sample rate.
    std::vector<Finding> inspect(Tools::String const& value, unsigned int sampleRate) const;

private:
    ParameterDescriptor(char const* key, Kind kind, char const* unit, char const* meaning);

    bool inRange(double value) const;
    std::string describeRange() const;
    void inspectNumber(std::string const& value, unsigned int sampleRate,
                       std::vector<Finding>& findings) const;
    void inspectWholeNumber(std::string const& value, std::vector<Finding>& findings) const;
    void inspectChoice(std::string const& value, std::vector<Finding>& findings) const;
    void inspectCurve(std::string const& value, std::vector<Finding>& findings) const;
    void inspectRange(double value, std::string const& text, std::string const& where,
                      std::vector<Finding>& findings) const;

    char const* m_key;
    Kind m_kind;
    char const* m_unit;
    char const* m_meaning;
    char const* m_default = "";
    bool m_required = false;
    double m_low = -std::numeric_limits<double>::infinity();
    bool m_lowIncluded = true;
    double m_high = std::numeric_limits<double>::infinity();
    bool m_highIncluded = true;
    bool m_belowNyquist = false;
    bool m_loose = false;
    bool m_onlyReported = false;
    std::vector<char const*> m_words;
};

} // namespace Zelmar
