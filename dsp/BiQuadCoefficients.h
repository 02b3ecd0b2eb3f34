#pragma once

#include "base/Assert.h"
#include "base/String.h"
#include "dsp/ParsingException.h"

#include <cmath>
#include <cstdint>
#include <glib.h>
#include <map>

namespace Zelmar {
namespace AudioFilter {

// The values are part of the configuration vocabulary's order; do not renumber.
enum class Characteristic : int
{
    Passthru = 0,
    LoPass = 1,
    HiPass = 2,
    BandPass = 3,
    Notch = 4,
    Peak = 5,
    LoShelf = 6,
    HiShelf = 7
};

// Designs one second-order section (b0, b1, b2, a1, a2 with a0 = 1) in _NUMERICALTYPE_ and delivers it in
// _COEFFICIENTYPE_. The designs keep every coefficient below 4 in magnitude for sensible settings, so
// Q4.27 holds them; the conversion goes through single precision, which the kernel lookup relies on.
template <class _NUMERICALTYPE_, class _COEFFICIENTYPE_> class BiquadCoefficients
{
public:
    using tNumber = _NUMERICALTYPE_;
    using tCoefficient = _COEFFICIENTYPE_;

    static Characteristic translateType(Tools::String const& type)
    {
        auto const& names = getNameTable();
        auto const it = names.find(type);
        if (it == names.end())
            throw ParsingException("The type %0 is unknown for the BiQuad module. Supported values are %1",
                                   type, getListOfAvailableTypes(names));
        return it->second;
    }

    static Tools::String getListOfAvailableTypes(std::map<Tools::String, Characteristic> const& names)
    {
        Tools::String list;
        for (auto const& entry : names) {
            if (!list.empty())
                list += ", ";
            list += entry.first;
        }
        return list;
    }

    static void get(Characteristic type, tNumber sampleRate, tNumber frequency, tNumber Q, tNumber gainDb,
                    tCoefficient& b0, tCoefficient& b1, tCoefficient& b2, tCoefficient& a1, tCoefficient& a2)
    {
        tNumber c[5] = {};
        design(type, sampleRate, frequency, Q, gainDb, c);
        b0 = toCoefficient(c[0]);
        b1 = toCoefficient(c[1]);
        b2 = toCoefficient(c[2]);
        a1 = toCoefficient(c[3]);
        a2 = toCoefficient(c[4]);
    }

    // The coefficients before conversion, so that a caller can check they fit first.
    static void design(Characteristic type, tNumber sampleRate, tNumber frequency, tNumber Q, tNumber gainDb,
                       tNumber (&c)[5])
    {
        tNumber const V = getV(gainDb);
        tNumber const K = getK(sampleRate, frequency);
        bool const boost = gainDb >= tNumber(0);
        auto const overQ = [Q](tNumber v) { return v / Q; };
        switch (type) {
        case Characteristic::Passthru:
            c[0] = 1, c[1] = 0, c[2] = 0, c[3] = 0, c[4] = 0;
            break;
        case Characteristic::LoPass:
        case Characteristic::HiPass:
        case Characteristic::BandPass:
        case Characteristic::Notch:
            ZELMAR_ASSERT(Q != _NUMERICALTYPE_(0));
            designQBased(type, K, overQ, c);
            break;
        case Characteristic::Peak:
            ZELMAR_ASSERT(Q != _NUMERICALTYPE_(0));
            designPeak(K, V, boost, overQ, c);
            break;
        case Characteristic::LoShelf:
            designLowShelf(K, V, boost, c);
            break;
        case Characteristic::HiShelf:
            designHighShelf(K, V, boost, c);
            break;
        default:
            g_log(Tools::c_logDomain, G_LOG_LEVEL_ERROR, "Unknown filter type");
        }
    }

    // The building blocks of get(), for designs that form K/Q differently (the tone controls multiply
    // by a fixed 1/Q). Results are in the order b0, b1, b2, a1, a2.
    static tNumber getV(tNumber gainDb) { return std::pow(tNumber(10.0), std::fabs(gainDb) / tNumber(20.0)); }
    static tNumber getK(tNumber sampleRate, tNumber frequency)
    {
        return std::tan(c_pi * (frequency / sampleRate));
    }

    template <class OverQ>
    static void designPeak(tNumber K, tNumber V, bool boost, OverQ overQ, tNumber (&c)[5])
    {
        tNumber const K2 = K * K;
        if (boost) {
            tNumber const N = 1 / (1 + overQ(K) + K2);
            c[0] = (1 + overQ(V * K) + K2) * N;
            c[1] = 2 * (K2 - 1) * N;
            c[2] = (1 - overQ(V * K) + K2) * N;
            c[3] = 2 * (K2 - 1) * N;
            c[4] = (1 - overQ(K) + K2) * N;
        } else {
            tNumber const M = 1 / (1 + overQ(V * K) + K2);
            c[0] = (1 + overQ(K) + K2) * M;
            c[1] = 2 * (K2 - 1) * M;
            c[2] = (1 - overQ(K) + K2) * M;
            c[3] = 2 * (K2 - 1) * M;
            c[4] = (1 - overQ(V * K) + K2) * M;
        }
    }

    static void designLowShelf(tNumber K, tNumber V, bool boost, tNumber (&c)[5])
    {
        tNumber const K2 = K * K;
        tNumber const root2V = std::sqrt(2 * V);
        if (boost) {
            tNumber const S = 1 / (1 + c_sqrt2 * K + K2);
            c[0] = (1 + root2V * K + V * K2) * S;
            c[1] = 2 * (V * K2 - 1) * S;
            c[2] = (1 - root2V * K + V * K2) * S;
            c[3] = 2 * (K2 - 1) * S;
            c[4] = (1 - c_sqrt2 * K + K2) * S;
        } else {
            tNumber const T = 1 / (1 + root2V * K + V * K2);
            c[0] = (1 + c_sqrt2 * K + K2) * T;
            c[1] = 2 * (K2 - 1) * T;
            c[2] = (1 - c_sqrt2 * K + K2) * T;
            c[3] = 2 * (V * K2 - 1) * T;
            c[4] = (1 - root2V * K + V * K2) * T;
        }
    }

    static void designHighShelf(tNumber K, tNumber V, bool boost, tNumber (&c)[5])
    {
        tNumber const K2 = K * K;
        tNumber const root2V = std::sqrt(2 * V);
        if (boost) {
            tNumber const S = 1 / (1 + c_sqrt2 * K + K2);
            c[0] = (V + root2V * K + K2) * S;
            c[1] = 2 * (K2 - V) * S;
            c[2] = (V - root2V * K + K2) * S;
            c[3] = 2 * (K2 - 1) * S;
            c[4] = (1 - c_sqrt2 * K + K2) * S;
        } else {
            tNumber const U = 1 / (V + root2V * K + K2);
            c[0] = (1 + c_sqrt2 * K + K2) * U;
            c[1] = 2 * (K2 - 1) * U;
            c[2] = (1 - c_sqrt2 * K + K2) * U;
            c[3] = 2 * (K2 - V) * U;
            c[4] = (V - root2V * K + K2) * U;
        }
    }

    // Single precision first, then scaled by a power of two and truncated toward zero; no range check,
    // so a value of 16 or more would wrap.
    static tCoefficient toCoefficient(tNumber value)
    {
        using tRaw = typename tCoefficient::tFundamental;
        float const rawToFloat = tCoefficient(tRaw(1)).toFloat();
        return tCoefficient(static_cast<tRaw>(static_cast<float>(value) * (1.0f / rawToFloat)));
    }

private:
    static constexpr tNumber c_pi = tNumber(3.141592653589793);
    static constexpr tNumber c_sqrt2 = tNumber(1.4142135623730951);

    static std::map<Tools::String, Characteristic> const& getNameTable()
    {
        static std::map<Tools::String, Characteristic> const m{
            {"passthru", Characteristic::Passthru}, {"lopass", Characteristic::LoPass},
            {"hipass", Characteristic::HiPass},     {"bandpass", Characteristic::BandPass},
            {"notch", Characteristic::Notch},       {"peak", Characteristic::Peak},
            {"loshelf", Characteristic::LoShelf},   {"hishelf", Characteristic::HiShelf}};
        return m;
    }

    template <class OverQ>
    static void designQBased(Characteristic type, tNumber K, OverQ overQ, tNumber (&c)[5])
    {
        tNumber const K2 = K * K;
        tNumber const N = 1 / (1 + overQ(K) + K2);
        c[3] = 2 * (K2 - 1) * N;
        c[4] = (1 - overQ(K) + K2) * N;
        switch (type) {
        case Characteristic::LoPass:
            c[0] = K2 * N, c[1] = 2 * K2 * N, c[2] = K2 * N;
            break;
        case Characteristic::HiPass:
            c[0] = N, c[1] = -2 * N, c[2] = N;
            break;
        case Characteristic::BandPass:
            c[0] = overQ(K) * N, c[1] = 0, c[2] = -overQ(K) * N;
            break;
        default:
            c[0] = (1 + K2) * N, c[1] = 2 * (K2 - 1) * N, c[2] = (1 + K2) * N;
            break;
        }
    }
};

} // namespace AudioFilter
} // namespace Zelmar
