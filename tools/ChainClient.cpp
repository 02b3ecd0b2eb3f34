#include "tools/ChainClient.h"

#include "dsp/ChainService.h"
#include "dsp/SystemSoundsPlayer.h"
#include "tools/ControlBus.h"
#include "tools/ToolError.h"

#include <sstream>

namespace Zelmar {
namespace Host {

namespace {

// Long enough for a loaded device, short enough that a wedged service does not hang a script.
constexpr gint c_callTimeoutMs = 10000;

// "a, b, c", or "none".
std::string listed(std::vector<std::string> const& names)
{
    std::string list;
    for (auto const& name : names)
        list += (list.empty() ? "" : ", ") + name;
    return list.empty() ? "none" : list;
}

std::string trimmed(std::string const& text)
{
    size_t const first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

} // namespace

ChainClient::ChainClient(GBusType bus) : m_bus(bus), m_connection(ControlBus::connect(bus)) {}

ChainClient::~ChainClient()
{
    g_object_unref(m_connection);
}

GVariant* ChainClient::call(char const* method, GVariant* arguments, GVariantType const* replyType)
{
    GError* error = nullptr;
    // No auto-start: a chain is a running process, there is nothing the bus could start.
    GVariant* reply = g_dbus_connection_call_sync(
        m_connection, ChainService::c_busName, ChainService::c_objectPath, ChainService::c_interfaceName,
        method, arguments, replyType, G_DBUS_CALL_FLAGS_NO_AUTO_START, c_callTimeoutMs, nullptr, &error);
    if (reply)
        return reply;
    std::string message;
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER)) {
        message = "no chain is being served on " + ControlBus::describe(m_bus);
    } else if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)) {
        // The bus daemon's own text lists the rules it matched, which helps nobody here.
        message = std::string("not allowed to control ") + ChainService::c_busName + " on " +
                  ControlBus::describe(m_bus) +
                  (m_bus == G_BUS_TYPE_SYSTEM ? ": run as root or as a member of group audio" : "");
    } else {
        g_dbus_error_strip_remote_error(error);
        message = error->message;
    }
    g_error_free(error);
    throw ToolError(ToolError::c_ioFailure, message);
}

void ChainClient::refuseWhatTheChainLacks(Setting const& setting) const
{
    if (!m_modules)
        return;
    std::vector<std::string> ids;
    for (auto const& module : *m_modules) {
        if (module.id != setting.module) {
            ids.push_back(module.id);
            continue;
        }
        for (auto const& key : module.parameterKeys) {
            if (key == setting.key)
                return;
        }
        throw ToolError(ToolError::c_ioFailure, "module " + setting.module +
                                                    " of the served chain has no parameter " + setting.key +
                                                    " (it has " + listed(module.parameterKeys) + ")");
    }
    throw ToolError(ToolError::c_ioFailure,
                    "the served chain has no module " + setting.module + " (it has " + listed(ids) + ")");
}

void ChainClient::refuseSoundsWithoutTheirModule() const
{
    if (!m_modules)
        return;
    for (auto const& module : *m_modules) {
        if (module.id == SystemSoundsPlayer::c_moduleId)
            return;
    }
    // The service only logs it and answers success, so the user would hear nothing and see nothing.
    throw ToolError(ToolError::c_ioFailure, std::string("the served chain has no module ") +
                                                SystemSoundsPlayer::c_moduleId + " to play system sounds");
}

void ChainClient::setParameter(Setting const& setting)
{
    refuseWhatTheChainLacks(setting);
    g_variant_unref(call(
        "SetParameter",
        g_variant_new("(sss)", setting.module.c_str(), setting.key.c_str(), setting.value.c_str()), nullptr));
}

void ChainClient::setParameters(std::vector<Setting> const& settings)
{
    for (auto const& setting : settings)
        refuseWhatTheChainLacks(setting);
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sss)"));
    for (auto const& setting : settings)
        g_variant_builder_add(&builder, "(sss)", setting.module.c_str(), setting.key.c_str(),
                              setting.value.c_str());
    g_variant_unref(call("SetParameters", g_variant_new("(a(sss))", &builder), nullptr));
}

void ChainClient::playSound(int sound)
{
    refuseSoundsWithoutTheirModule();
    g_variant_unref(call("PlaySystemSound", g_variant_new("(i)", sound), nullptr));
}

unsigned int ChainClient::loopSound(int sound, unsigned int intervalMs)
{
    refuseSoundsWithoutTheirModule();
    GVariant* const reply =
        call("LoopSystemSound", g_variant_new("(iu)", sound, intervalMs), G_VARIANT_TYPE("(u)"));
    guint32 id = 0;
    g_variant_get(reply, "(u)", &id);
    g_variant_unref(reply);
    return id;
}

void ChainClient::stopSound(unsigned int id)
{
    g_variant_unref(call("StopLoopingSystemSound", g_variant_new("(u)", id), nullptr));
}

std::vector<ChainClient::Setting> ChainClient::readSettings(std::string const& path)
{
    gchar* contents = nullptr;
    GError* error = nullptr;
    if (!g_file_get_contents(path.c_str(), &contents, nullptr, &error)) {
        std::string const why = error->message;
        g_error_free(error);
        throw ToolError(ToolError::c_ioFailure, why);
    }
    std::istringstream text(contents);
    g_free(contents);

    std::vector<Setting> settings;
    std::string line;
    for (unsigned int number = 1; std::getline(text, line); ++number) {
        std::string const content = trimmed(line);
        if (content.empty() || content[0] == '#')
            continue;
        std::istringstream words(content);
        Setting setting;
        words >> setting.module >> setting.key;
        std::getline(words, setting.value);
        setting.value = trimmed(setting.value);
        if (setting.value.empty())
            throw ToolError(ToolError::c_badInput, path + " line " + std::to_string(number) +
                                                       ": expected MODULE KEY VALUE, not \"" + content +
                                                       "\"");
        settings.push_back(setting);
    }
    return settings;
}

} // namespace Host
} // namespace Zelmar
