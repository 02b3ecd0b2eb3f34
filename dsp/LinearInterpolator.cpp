#include "dsp/LinearInterpolator.h"

#include "base/Assert.h"

#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Zelmar {

void LinearInterpolator::load(Tools::String const& text)
{
    m_breakpoints.clear();
    std::istringstream pieces(text.str());
    std::string piece;
    while (std::getline(pieces, piece, ','))
        loadBreakpoint(piece);
}

void LinearInterpolator::loadBreakpoint(Tools::String const& piece)
{
    std::string const& text = piece.str();
    auto const equals = text.find('=');
    if (equals == std::string::npos)
        return;
    tKey const key(std::stod(text.substr(0, equals)));
    tValue const value(std::stod(text.substr(equals + 1)));
    m_breakpoints[key] = value;
}

LinearInterpolator::tValue LinearInterpolator::getInterpolated(tKey key) const
{
    if (m_breakpoints.empty())
        throw std::invalid_argument("linear interpolator is not set up properly");

    // Keys meet as single-precision numbers, the resolution the dB values were parsed with.
    float const wanted = key.toFloat();
    auto it = m_breakpoints.begin();
    while (it != m_breakpoints.end() && it->first.toFloat() < wanted)
        ++it;
    if (it == m_breakpoints.end())
        return std::prev(it)->second;
    if (it == m_breakpoints.begin())
        return it->second;

    auto const before = std::prev(it);
    ZELMAR_ASSERT(it != before);
    ZELMAR_ASSERT(before->first <= key);
    ZELMAR_ASSERT(key <= it->first);
    // The fraction of the way along the segment is in [0, 1], so the result stays between the two values;
    // every step truncates. Differences wrap, so breakpoints must lie less than 4096 apart in key and value.
    tValue const fraction = (key - before->first) / (it->first - before->first);
    return before->second + (it->second - before->second) * fraction;
}

} // namespace Zelmar
