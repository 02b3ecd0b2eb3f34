#include "tools/StatusReport.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <string>
#include <utility>
#include <vector>

namespace Zelmar {
namespace Host {

namespace {

// A property's value, or an empty one of its type when the service has no such property.
class Properties
{
public:
    explicit Properties(GVariant* all) : m_dictionary(g_variant_dict_new(all)) {}
    ~Properties() { g_variant_dict_unref(m_dictionary); }
    Properties(Properties const&) = delete;
    Properties& operator=(Properties const&) = delete;

    std::string text(char const* name) const
    {
        gchar const* value = nullptr;
        return g_variant_dict_lookup(m_dictionary, name, "&s", &value) ? value : "";
    }
    template <class T> T number(char const* name, char const* type) const
    {
        T value{};
        g_variant_dict_lookup(m_dictionary, name, type, &value);
        return value;
    }
    guint32 u(char const* name) const { return number<guint32>(name, "u"); }
    guint64 t(char const* name) const { return number<guint64>(name, "t"); }
    gint32 i(char const* name) const { return number<gint32>(name, "i"); }
    double d(char const* name) const { return number<double>(name, "d"); }
    // The caller unrefs it; null when missing.
    GVariant* value(char const* name, char const* type) const
    {
        return g_variant_dict_lookup_value(m_dictionary, name, G_VARIANT_TYPE(type));
    }

private:
    GVariantDict* m_dictionary;
};

std::string format(char const* pattern, ...) G_GNUC_PRINTF(1, 2);
std::string format(char const* pattern, ...)
{
    va_list arguments;
    va_start(arguments, pattern);
    gchar* text = g_strdup_vprintf(pattern, arguments);
    va_end(arguments);
    std::string const result = text;
    g_free(text);
    return result;
}

std::string mebibytes(guint64 bytes)
{
    return format("%.1f MiB", double(bytes) / (1024.0 * 1024.0));
}

std::string decibels(double level)
{
    return std::isfinite(level) ? format("%.1f dBFS", level) : "-inf dBFS";
}

using Lines = std::vector<std::pair<std::string, std::string>>;

void addMeters(Properties const& properties, Lines& lines)
{
    GVariant* const meters = properties.value("Meters", "a(sd)");
    if (!meters)
        return;
    GVariantIter iter;
    g_variant_iter_init(&iter, meters);
    gchar const* id = nullptr;
    double peak = 0;
    while (g_variant_iter_next(&iter, "(&sd)", &id, &peak))
        lines.emplace_back(std::string("meter ") + id, decibels(peak));
    g_variant_unref(meters);
}

void addModules(Properties const& properties, Lines& lines)
{
    GVariant* const modules = properties.value("Modules", "a(ssas)");
    if (!modules)
        return;
    GVariantIter iter;
    g_variant_iter_init(&iter, modules);
    gchar const* id = nullptr;
    gchar const* type = nullptr;
    GVariantIter* keys = nullptr;
    while (g_variant_iter_next(&iter, "(&s&sas)", &id, &type, &keys)) {
        std::string description = type;
        gchar const* key = nullptr;
        for (char const* separator = ": "; g_variant_iter_next(keys, "&s", &key); separator = ", ")
            description += separator + std::string(key);
        g_variant_iter_free(keys);
        lines.emplace_back(std::string("module ") + id, description);
    }
    g_variant_unref(modules);
}

void addProfile(Properties const& properties, Lines& lines)
{
    GVariant* const profile = properties.value("Profile", "a(sdd)");
    if (!profile)
        return;
    GVariantIter iter;
    g_variant_iter_init(&iter, profile);
    gchar const* id = nullptr;
    double nsPerFrame = 0, share = 0;
    while (g_variant_iter_next(&iter, "(&sdd)", &id, &nsPerFrame, &share))
        lines.emplace_back(std::string("profile ") + id,
                           format("%.2f ns/frame, %.1f %% of the chain", nsPerFrame, share));
    g_variant_unref(profile);
}

std::string describeDrift(Properties const& properties)
{
    std::string const compensator = properties.text("DriftCompensator");
    if (compensator.empty())
        return "not compensated";
    return format("corrected by %+.1f ppm (%s)", properties.d("DriftCorrection"), compensator.c_str());
}

Lines describe(Properties const& p)
{
    std::string const input = p.text("Input");
    std::string const inputSide = input.substr(0, input.find(' '));
    double const seconds = p.u("Rate") ? double(p.t("Frames")) / p.u("Rate") : 0.0;
    Lines lines = {
        {"state", p.text("State")},
        {"config", p.text("Config")},
        {"reloads", format("%u", p.u("Reloads"))},
        {"input", input},
        {"playback", p.text("Playback")},
        {"rate", format("%u Hz, periods of %u frames", p.u("Rate"), p.u("PeriodFrames"))},
        {"frames", format("%llu (%.3f s)", static_cast<unsigned long long>(p.t("Frames")), seconds)},
        {"xruns", format("%s %u, playback %u", inputSide.c_str(), p.u("CaptureXruns"), p.u("PlaybackXruns"))},
        {"load", format("%.1f %% now, %.1f %% max", p.d("Load"), p.d("LoadMax"))},
        {"period time", format("median %.1f us, p99 %.1f us, max %.1f us", p.d("PeriodTimeMedian"),
                               p.d("PeriodTimeP99"), p.d("PeriodTimeMax"))},
        {"latency",
         format("%d frames, moved %+d since the devices started", p.i("Latency"), p.i("LatencyDelta"))},
        {"drift", describeDrift(p)},
        {"clipped samples", format("%llu", static_cast<unsigned long long>(p.t("ClippedSamples")))},
        {"memory", "heap " + mebibytes(p.t("HeapBytes")) + ", resident " + mebibytes(p.t("ResidentBytes"))},
    };
    addMeters(p, lines);
    addModules(p, lines);
    addProfile(p, lines);
    return lines;
}

// "PeriodTimeP99" -> "period_time_p99".
std::string snakeCase(char const* name)
{
    std::string snake;
    for (char const* c = name; *c; ++c) {
        if (g_ascii_isupper(*c) && c != name)
            snake += '_';
        snake += g_ascii_tolower(*c);
    }
    return snake;
}

// UTF-8 passes as it is; quotes, backslashes and control characters are escaped.
std::string jsonString(char const* text)
{
    std::string quoted = "\"";
    for (char const* c = text; *c; ++c) {
        if (*c == '"' || *c == '\\')
            quoted += std::string("\\") + *c;
        else if (static_cast<unsigned char>(*c) < 0x20)
            quoted += format("\\u%04x", static_cast<unsigned char>(*c));
        else
            quoted += *c;
    }
    return quoted + "\"";
}

std::string jsonNumber(double value)
{
    return std::isfinite(value) ? format("%.10g", value) : "null";
}

std::string jsonValue(GVariant* value);

std::string jsonArray(GVariant* array)
{
    std::string json = "[";
    GVariantIter iter;
    g_variant_iter_init(&iter, array);
    for (GVariant* element = nullptr; (element = g_variant_iter_next_value(&iter)); g_variant_unref(element))
        json += (json.size() > 1 ? "," : "") + jsonValue(element);
    return json + "]";
}

std::string jsonValue(GVariant* value)
{
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING))
        return jsonString(g_variant_get_string(value, nullptr));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32))
        return format("%u", g_variant_get_uint32(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT64))
        return format("%llu", static_cast<unsigned long long>(g_variant_get_uint64(value)));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32))
        return format("%d", g_variant_get_int32(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_DOUBLE))
        return jsonNumber(g_variant_get_double(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE("(sd)"))) {
        gchar const* id = nullptr;
        double peak = 0;
        g_variant_get(value, "(&sd)", &id, &peak);
        return "{\"id\":" + jsonString(id) + ",\"peak_dbfs\":" + jsonNumber(peak) + "}";
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE("(sdd)"))) {
        gchar const* id = nullptr;
        double nsPerFrame = 0, share = 0;
        g_variant_get(value, "(&sdd)", &id, &nsPerFrame, &share);
        return "{\"id\":" + jsonString(id) + ",\"ns_per_frame\":" + jsonNumber(nsPerFrame) +
               ",\"chain_percent\":" + jsonNumber(share) + "}";
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE("(ssas)"))) {
        gchar const* id = nullptr;
        gchar const* type = nullptr;
        GVariant* keys = nullptr;
        g_variant_get(value, "(&s&s@as)", &id, &type, &keys);
        std::string const json = "{\"id\":" + jsonString(id) + ",\"type\":" + jsonString(type) +
                                 ",\"parameters\":" + jsonArray(keys) + "}";
        g_variant_unref(keys);
        return json;
    }
    return jsonArray(value);
}

} // namespace

void StatusReport::print(GVariant* properties, std::FILE* out)
{
    Properties const p(properties);
    Lines const lines = describe(p);
    size_t width = 0;
    for (auto const& line : lines)
        width = std::max(width, line.first.size());
    for (auto const& [label, value] : lines)
        std::fprintf(out, "%-*s  %s\n", int(width), label.c_str(), value.c_str());
}

void StatusReport::printJson(GVariant* properties, std::FILE* out)
{
    std::string json = "{";
    GVariantIter iter;
    g_variant_iter_init(&iter, properties);
    gchar const* name = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_next(&iter, "{&sv}", &name, &value)) {
        if (json.size() > 1)
            json += ",";
        json += jsonString(snakeCase(name).c_str()) + ":" + jsonValue(value);
        g_variant_unref(value);
    }
    std::fprintf(out, "%s}\n", json.c_str());
}

} // namespace Host
} // namespace Zelmar
