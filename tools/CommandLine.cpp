#include "tools/CommandLine.h"

#include "dsp/Chain.h"
#include "dsp/ChainService.h"
#include "dsp/RomplerData.h"
#include "tools/ChainClient.h"
#include "tools/ChainLoader.h"
#include "tools/ChainReport.h"
#include "tools/ControlBus.h"
#include "tools/GraphDrawing.h"
#include "tools/HostClient.h"
#include "tools/HostService.h"
#include "tools/LiveHost.h"
#include "tools/ModuleReference.h"
#include "tools/OfflineHost.h"
#include "tools/ResponseHost.h"
#include "tools/SoundFileWriter.h"
#include "tools/StatusReport.h"
#include "tools/ToolData.h"
#include "tools/ToolError.h"
#include "tools/ToolLog.h"

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <glib.h>
#include <memory>
#include <string>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

constexpr char const* c_programName = "orvandeldsp";

constexpr char const* c_usage =
    "usage: orvandeldsp run   [--config FILE] [--period FRAMES] [--format s16|s24|s32] [--meters] "
    "[--profile]\n"
    "                         [--type wav|flac|aiff|caf] [--rate HZ] [--drift PPM]\n"
    "                         [--detect [--threshold-dir DIR]] [--encode OUT.flac] [--sound N@SECONDS ...]\n"
    "                         [--progress|--quiet] [--realtime [--bus system|session]]\n"
    "                         INPUT OUTPUT.wav|.flac|.aiff|.caf|-\n"
    "       orvandeldsp live  [--config FILE] (--capture PCM | --input FILE) --playback PCM\n"
    "                         [--rate HZ] [--period FRAMES] [--periods N] [--format s16|s24|s32]\n"
    "                         [--frames N] [--priority N] [--bus system|session | --no-service] [--quiet]\n"
    "                         [--profile]\n"
    "       orvandeldsp set   [--bus system|session] MODULE KEY VALUE | --file PARAMS.txt\n"
    "       orvandeldsp sound [--bus system|session] play N | loop N INTERVAL_MS | stop ID\n"
    "       orvandeldsp status [--bus system|session] [--json]\n"
    "       orvandeldsp reload [--bus system|session] [--config FILE]\n"
    "       orvandeldsp check [--config FILE] [--rate HZ]\n"
    "       orvandeldsp types [TYPE | --markdown]\n"
    "       orvandeldsp graph [--config FILE] [--format png|svg|pdf] -o OUTPUT\n"
    "       orvandeldsp response [--config FILE] [--rate HZ] [--level DBFS] [--points N] [--from HZ]\n"
    "                            [--to HZ] [--volume PERCENT] [--csv FILE] [-o PLOT.svg|png|pdf]\n"
    "       orvandeldsp --help | --version | COMMAND --help\n"
    "Every command also takes -v (--verbose) for the library's informational lines.\n";

// Chains that check and graph build without audio run at this rate.
constexpr unsigned int c_checkSampleRate = 48000;

constexpr char const* c_shortUsage =
    "usage: orvandeldsp run|live|check|types|graph|response|set|sound|status|reload [OPTIONS] (see "
    "orvandeldsp --help)";

ToolError usageError(std::string const& problem)
{
    return ToolError(ToolError::c_badInput, problem + "\n" + c_shortUsage);
}

// Options of one command, parsed with GOption so that `COMMAND --help` lists them. Every command
// takes --verbose, which shows the library's informational log lines too.
class OptionParser
{
public:
    OptionParser(char const* parameters, char const* summary) : m_context(g_option_context_new(parameters))
    {
        g_option_context_set_summary(m_context, summary);
        add(m_common);
    }
    ~OptionParser() { g_option_context_free(m_context); }
    OptionParser(OptionParser const&) = delete;
    OptionParser& operator=(OptionParser const&) = delete;

    void add(GOptionEntry const* entries) { g_option_context_add_main_entries(m_context, entries, nullptr); }
    // Options must come first; what follows the first argument is taken as it is, "-12" included.
    void stopAtFirstArgument() { g_option_context_set_strict_posix(m_context, TRUE); }

    // Leaves the positional arguments in argc/argv, after the command name.
    void parse(int& argc, char**& argv)
    {
        GError* error = nullptr;
        // GOption names the program in its help by prgname: "orvandeldsp run" there, plain elsewhere.
        g_set_prgname(argv[0]);
        bool const parsed = g_option_context_parse(m_context, &argc, &argv, &error);
        g_set_prgname(c_programName);
        if (!parsed) {
            std::string const message = error->message;
            g_error_free(error);
            throw usageError(message);
        }
        dropEndOfOptions(argc, argv);
        ToolLog::setVerbose(m_verbose);
    }

private:
    // GOption stops at "--" but leaves it among the arguments.
    static void dropEndOfOptions(int& argc, char** argv)
    {
        char** const end = argv + argc;
        char** const marker =
            std::find_if(argv + 1, end, [](char const* arg) { return std::strcmp(arg, "--") == 0; });
        if (marker == end)
            return;
        std::copy(marker + 1, end, marker);
        --argc;
    }

    GOptionContext* m_context;
    gboolean m_verbose = FALSE;
    GOptionEntry const m_common[2] = {{"verbose", 'v', 0, G_OPTION_ARG_NONE, &m_verbose,
                                       "show the library's informational log lines too", nullptr},
                                      {}};
};

std::string describeConfigDefault()
{
    return "the dsp config file (default: " + ToolData::defaultConfig() + ")";
}

snd_pcm_format_t parsePcmFormat(char const* name)
{
    if (!name)
        return SND_PCM_FORMAT_UNKNOWN;
    if (std::strcmp(name, "s16") == 0)
        return SND_PCM_FORMAT_S16_LE;
    if (std::strcmp(name, "s24") == 0)
        return SND_PCM_FORMAT_S24_3LE;
    if (std::strcmp(name, "s32") == 0)
        return SND_PCM_FORMAT_S32_LE;
    throw usageError(std::string("unknown --format ") + name + " (use s16, s24 or s32)");
}

int parseContainer(std::string const& output, gchar const* type)
{
    int const container = SoundFileWriter::containerFor(output, type ? type : "");
    if (container)
        return container;
    if (type)
        throw usageError(std::string("unknown --type ") + type + " (use wav, flac, aiff or caf)");
    throw usageError("cannot tell the output's type from its name " + output +
                     ": end it in .wav, .flac, .aiff or .caf, or give --type");
}

// Parsed in the C locale whatever the user's, and bounded so that the clock stays a clock.
double parsePpm(char const* text)
{
    char* end = nullptr;
    double const ppm = g_ascii_strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(ppm) || std::fabs(ppm) > 10000.0)
        throw usageError(std::string("--drift takes parts per million between -10000 and 10000, not ") +
                         text);
    return ppm;
}

constexpr char const* c_busHelp = "the bus the chain is served on (default: system as root, else session)";
constexpr char const* c_liveBusHelp =
    "the bus the live run is served on (default: system as root, else session)";

GBusType parseBus(gchar const* name)
{
    if (!name)
        return ControlBus::defaultType();
    if (std::strcmp(name, "session") == 0)
        return G_BUS_TYPE_SESSION;
    if (std::strcmp(name, "system") == 0)
        return G_BUS_TYPE_SYSTEM;
    throw usageError(std::string("unknown --bus ") + name + " (use system or session)");
}

// Whole decimal numbers only, so that "2x" or "-1" for an id is a usage mistake, not a different id.
guint64 parseNumber(char const* text, char const* what, guint64 max)
{
    guint64 number = 0;
    if (!g_ascii_string_to_unsigned(text, 10, 0, max, &number, nullptr))
        throw usageError(std::string(what) + " must be a whole number from 0 to " + std::to_string(max) +
                         ", not " + text);
    return number;
}

void checkRate(gint rate)
{
    if (rate < 1000 || rate > 768000)
        throw usageError("--rate must be between 1000 and 768000 Hz");
}

std::string configOrDefault(gchar const* config)
{
    return config ? config : ToolData::defaultConfig();
}

int runCommand(int argc, char** argv)
{
    gchar* config = nullptr;
    gint period = 1024;
    gchar* format = nullptr;
    gchar* type = nullptr;
    gboolean meters = FALSE;
    gboolean profile = FALSE;
    gboolean progress = FALSE;
    gboolean quiet = FALSE;
    gint rate = 0;
    gchar* drift = nullptr;
    gboolean detect = FALSE;
    gchar* thresholdDir = nullptr;
    gboolean realtime = FALSE;
    gchar* bus = nullptr;
    gchar* encode = nullptr;
    gchar** sounds = nullptr;
    std::string const configHelp = describeConfigDefault();
    GOptionEntry const entries[] = {
        {"config", 'c', 0, G_OPTION_ARG_FILENAME, &config, configHelp.c_str(), "FILE"},
        {"period", 'p', 0, G_OPTION_ARG_INT, &period, "frames per period, 1 to 1280 (default 1024)",
         "FRAMES"},
        {"format", 'f', 0, G_OPTION_ARG_STRING, &format,
         "output samples (default: the input's bit depth, at most s24 in FLAC)", "s16|s24|s32"},
        {"type", 't', 0, G_OPTION_ARG_STRING, &type,
         "the output file's type (default: from its name; wav for -, which writes to standard output)",
         "wav|flac|aiff|caf"},
        {"meters", 'm', 0, G_OPTION_ARG_NONE, &meters, "print the chain's peak meters at the end", nullptr},
        {"profile", 0, 0, G_OPTION_ARG_NONE, &profile,
         "time every module of the chain and print, at the end, where the time went", nullptr},
        {"progress", 0, 0, G_OPTION_ARG_NONE, &progress, "show progress even when stderr is no terminal",
         nullptr},
        {"quiet", 'q', 0, G_OPTION_ARG_NONE, &quiet, "print nothing but errors (and meters if asked for)",
         nullptr},
        {"rate", 'r', 0, G_OPTION_ARG_INT, &rate,
         "the chain's and the output's rate (default: the input's); another rate needs a \"resampler\" "
         "input stage whose source-rate is the input's",
         "HZ"},
        {"drift", 0, 0, G_OPTION_ARG_STRING, &drift,
         "simulate a playback clock PPM parts per million fast (+, frames inserted) or slow (-, frames "
         "dropped), corrected by the config's \"timestretcher\"",
         "PPM"},
        {"detect", 0, 0, G_OPTION_ARG_NONE, &detect,
         "poll the config's \"signal-detector\" every 250 ms of audio and print its transitions", nullptr},
        {"threshold-dir", 0, 0, G_OPTION_ARG_FILENAME, &thresholdDir,
         "where the detector keeps its learnt threshold (default: a temporary directory for the run)", "DIR"},
        {"realtime", 0, 0, G_OPTION_ARG_NONE, &realtime,
         "play at the audio's own speed and serve the chain on D-Bus meanwhile, for `orvandeldsp set` and "
         "`orvandeldsp sound`",
         nullptr},
        {"bus", 0, 0, G_OPTION_ARG_STRING, &bus, c_busHelp, "system|session"},
        {"encode", 0, 0, G_OPTION_ARG_FILENAME, &encode,
         "also write the stream of the config's \"flac-encoder\" (24-bit FLAC) to OUT.flac", "OUT.flac"},
        {"sound", 0, 0, G_OPTION_ARG_STRING_ARRAY, &sounds,
         "play system sound N (0 to 9) through the config's \"system-sounds\" module; it starts with the "
         "first frame of the --period that holds the input frame at SECONDS, which must lie before the "
         "input's end (repeatable)",
         "N@SECONDS"},
        {}};
    OptionParser parser(
        "INPUT OUTPUT",
        "Runs a sound file through a dsp chain into a WAV, FLAC, AIFF or CAF file, or with OUTPUT "
        "- to standard output (then every line the run prints goes to stderr).");
    parser.add(entries);
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const configOwner(config, g_free), formatOwner(format, g_free),
        typeOwner(type, g_free), driftOwner(drift, g_free), thresholdDirOwner(thresholdDir, g_free),
        busOwner(bus, g_free), encodeOwner(encode, g_free);
    std::unique_ptr<gchar*, decltype(&g_strfreev)> const soundsOwner(sounds, g_strfreev);

    if (argc != 3)
        throw usageError("run needs INPUT and OUTPUT");
    if (period < 1 || period > int(Chain::getMaxNumFramesPerProcessCall()))
        throw usageError("--period must be between 1 and 1280 frames");
    if (progress && quiet)
        throw usageError("--progress and --quiet exclude each other");
    if (rate != 0)
        checkRate(rate);

    OfflineHost::Options options;
    options.config = configOrDefault(config);
    options.input = argv[1];
    options.output = argv[2];
    options.periodFrames = unsigned(period);
    options.format = parsePcmFormat(format);
    options.container = parseContainer(argv[2], type);
    if (options.container == SF_FORMAT_FLAC && options.format == SND_PCM_FORMAT_S32_LE)
        throw usageError("FLAC holds at most 24-bit samples: use --format s16 or s24");
    options.meters = meters;
    options.profile = profile;
    options.progress = progress || isatty(STDERR_FILENO);
    options.quiet = quiet;
    options.rate = unsigned(rate);
    if (drift) {
        options.drift = true;
        options.driftPpm = parsePpm(drift);
    }
    options.detect = detect;
    if (thresholdDir && !detect)
        throw usageError("--threshold-dir goes with --detect");
    options.thresholdDirectory = thresholdDir ? thresholdDir : "";
    // A simulated clock and a detector polled by audio time have nothing to gain from a real clock.
    if (realtime && (drift || detect))
        throw usageError("--realtime cannot be combined with --drift or --detect");
    // Both need the main loop between periods, which a realtime run leaves to the service.
    if (realtime && (encode || sounds))
        throw usageError("--realtime cannot be combined with --encode or --sound (use orvandeldsp sound)");
    if (bus && !realtime)
        throw usageError("--bus goes with --realtime");
    options.realtime = realtime;
    options.bus = parseBus(bus);
    options.encodedOutput = encode ? encode : "";
    for (gchar** sound = sounds; sound && *sound; ++sound)
        options.sounds.push_back(SoundCues::parse(*sound));
    OfflineHost::run(options);
    return 0;
}

int liveCommand(int argc, char** argv)
{
    gchar* config = nullptr;
    gchar* capture = nullptr;
    gchar* input = nullptr;
    gchar* playback = nullptr;
    gint rate = 0;
    gint period = 1024;
    gint periods = 3;
    gchar* format = nullptr;
    gint64 frames = 0;
    gint priority = 70;
    gchar* bus = nullptr;
    gboolean noService = FALSE;
    gboolean quiet = FALSE;
    gboolean profile = FALSE;
    std::string const configHelp = describeConfigDefault();
    GOptionEntry const entries[] = {
        {"config", 'c', 0, G_OPTION_ARG_FILENAME, &config, configHelp.c_str(), "FILE"},
        {"capture", 0, 0, G_OPTION_ARG_STRING, &capture,
         "the capture PCM, as aplay -D names it (hw:0,0, default)", "PCM"},
        {"input", 'i', 0, G_OPTION_ARG_FILENAME, &input,
         "play a sound file instead of capturing; the run ends at its end", "FILE"},
        {"playback", 0, 0, G_OPTION_ARG_STRING, &playback, "the playback PCM", "PCM"},
        {"rate", 'r', 0, G_OPTION_ARG_INT, &rate,
         "the devices' and the chain's rate (default 48000, or the input's)", "HZ"},
        {"period", 'p', 0, G_OPTION_ARG_INT, &period, "frames per period, 1 to 1280 (default 1024)",
         "FRAMES"},
        {"periods", 0, 0, G_OPTION_ARG_INT, &periods, "periods in a device's buffer, 2 or more (default 3)",
         "N"},
        {"format", 'f', 0, G_OPTION_ARG_STRING, &format, "both devices' samples (default s32)",
         "s16|s24|s32"},
        {"frames", 'n', 0, G_OPTION_ARG_INT64, &frames, "end after N frames have gone through the chain",
         "N"},
        {"priority", 0, 0, G_OPTION_ARG_INT, &priority,
         "SCHED_FIFO priority of the audio thread, 1 to 99 (default 70); 0 runs it at normal priority", "N"},
        {"bus", 0, 0, G_OPTION_ARG_STRING, &bus, c_busHelp, "system|session"},
        {"no-service", 0, 0, G_OPTION_ARG_NONE, &noService, "do not serve the chain on D-Bus", nullptr},
        {"quiet", 'q', 0, G_OPTION_ARG_NONE, &quiet, "print the summary only when the run fails", nullptr},
        {"profile", 0, 0, G_OPTION_ARG_NONE, &profile,
         "time every module of the chain and print, at the end, where the time went", nullptr},
        {}};
    OptionParser parser("",
                        "Runs a dsp chain live from a capture device or a sound file to a playback device.");
    parser.add(entries);
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const configOwner(config, g_free),
        captureOwner(capture, g_free), inputOwner(input, g_free), playbackOwner(playback, g_free),
        formatOwner(format, g_free), busOwner(bus, g_free);

    if (argc != 1)
        throw usageError("live takes no file arguments; name the input with --input");
    if (!capture == !input)
        throw usageError("live needs either --capture PCM or --input FILE");
    if (!playback)
        throw usageError("live needs --playback PCM");
    // As an unset variable of a service's environment file leaves them.
    if ((capture && !*capture) || !*playback)
        throw usageError("--capture and --playback need a PCM name, not an empty one");
    if (rate < 0 || (rate > 0 && rate < 1000) || rate > 768000)
        throw usageError("--rate must be between 1000 and 768000 Hz");
    if (period < 1 || period > int(Chain::getMaxNumFramesPerProcessCall()))
        throw usageError("--period must be between 1 and 1280 frames");
    if (periods < 2 || periods > 1024)
        throw usageError("--periods must be between 2 and 1024");
    if (frames < 0)
        throw usageError("--frames must not be negative");
    if (priority < 0 || priority > 99)
        throw usageError("--priority must be between 0 and 99");
    if (bus && noService)
        throw usageError("--bus and --no-service exclude each other");

    LiveHost::Options options;
    options.config = configOrDefault(config);
    options.capture = capture ? capture : "";
    options.input = input ? input : "";
    options.playback = playback;
    options.rate = unsigned(rate);
    options.periodFrames = unsigned(period);
    options.periods = unsigned(periods);
    options.format = format ? parsePcmFormat(format) : SND_PCM_FORMAT_S32_LE;
    options.frames = uint64_t(frames);
    options.priority = priority;
    if (!noService)
        options.bus = parseBus(bus);
    options.quiet = quiet;
    options.profile = profile;
    LiveHost::run(options);
    return 0;
}

int checkCommand(int argc, char** argv)
{
    gchar* config = nullptr;
    gint rate = c_checkSampleRate;
    std::string const configHelp = describeConfigDefault();
    GOptionEntry const entries[] = {
        {"config", 'c', 0, G_OPTION_ARG_FILENAME, &config, configHelp.c_str(), "FILE"},
        {"rate", 'r', 0, G_OPTION_ARG_INT, &rate, "the sample rate to check the chain at (default 48000)",
         "HZ"},
        {}};
    OptionParser parser("", "Reports every problem of a dsp config, or lists its modules when it has none.");
    parser.add(entries);
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const configOwner(config, g_free);
    if (argc != 1)
        throw usageError("check takes no file arguments; name the config with --config");
    checkRate(rate);

    std::string const path = configOrDefault(config);
    ChainReport::print(*ChainLoader::load(path, unsigned(rate)), path, stdout);
    return 0;
}

int typesCommand(int argc, char** argv)
{
    gboolean markdown = FALSE;
    GOptionEntry const entries[] = {
        {"markdown", 0, 0, G_OPTION_ARG_NONE, &markdown, "the whole config reference in Markdown", nullptr},
        {}};
    OptionParser parser("[TYPE]",
                        "Lists the module types a dsp config can use, or the ports and parameters of one.");
    parser.add(entries);
    parser.parse(argc, argv);
    if (argc > 2 || (markdown && argc != 1))
        throw usageError("types takes one TYPE, or --markdown alone");

    if (markdown)
        ModuleReference::printMarkdown(stdout);
    else if (argc == 1)
        ModuleReference::printList(stdout);
    else if (!ModuleReference::printType(argv[1], stdout))
        throw ToolError(ToolError::c_badInput, std::string("there is no module type ") + argv[1] +
                                                   " (orvandeldsp types lists them)");
    return 0;
}

int graphCommand(int argc, char** argv)
{
    gchar* config = nullptr;
    gchar* format = nullptr;
    gchar* output = nullptr;
    std::string const configHelp = describeConfigDefault();
    GOptionEntry const entries[] = {
        {"config", 'c', 0, G_OPTION_ARG_FILENAME, &config, configHelp.c_str(), "FILE"},
        {"format", 'f', 0, G_OPTION_ARG_STRING, &format,
         "picture format (default: from OUTPUT's name, else svg)", "png|svg|pdf"},
        {"output", 'o', 0, G_OPTION_ARG_FILENAME, &output, "the picture file to write", "OUTPUT"},
        {}};
    OptionParser parser("", "Draws a dsp chain's signal flow with Graphviz dot.");
    parser.add(entries);
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const configOwner(config, g_free), formatOwner(format, g_free),
        outputOwner(output, g_free);
    if (argc != 1 || !output)
        throw usageError("graph needs -o OUTPUT");

    std::string picture = format ? format : "svg";
    if (!format) {
        for (char const* extension : {"png", "pdf"}) {
            if (g_str_has_suffix(output, (std::string(".") + extension).c_str()))
                picture = extension;
        }
    }
    if (picture != "png" && picture != "svg" && picture != "pdf")
        throw usageError("unknown --format " + picture + " (use png, svg or pdf)");

    GraphDrawing::draw(*ChainLoader::load(configOrDefault(config), c_checkSampleRate), picture, output);
    return 0;
}

// The picture format of a plot, from its file name.
std::string plotFormat(std::string const& output)
{
    for (char const* format : {"svg", "png", "pdf"}) {
        if (g_str_has_suffix(output.c_str(), (std::string(".") + format).c_str()))
            return format;
    }
    throw usageError("-o takes a plot named *.svg, *.png or *.pdf, not " + output);
}

int responseCommand(int argc, char** argv)
{
    ResponseHost::Options options;
    gchar* config = nullptr;
    gint rate = int(options.rate);
    gint points = int(options.points);
    gint volume = 0;
    gchar* csv = nullptr;
    gchar* plot = nullptr;
    std::string const configHelp = describeConfigDefault();
    GOptionEntry const entries[] = {
        {"config", 'c', 0, G_OPTION_ARG_FILENAME, &config, configHelp.c_str(), "FILE"},
        {"rate", 'r', 0, G_OPTION_ARG_INT, &rate, "the chain's rate, 1000 to 768000 (default 48000)", "HZ"},
        {"level", 'l', 0, G_OPTION_ARG_DOUBLE, &options.levelDb,
         "the sine's level, -120 to 0 dB below full scale (default -20); a limiter shows near 0", "DBFS"},
        {"points", 'n', 0, G_OPTION_ARG_INT, &points, "frequencies measured, 2 to 10000 (default 200)", "N"},
        {"from", 0, 0, G_OPTION_ARG_DOUBLE, &options.from, "the lowest frequency, from 1 Hz (default 20)",
         "HZ"},
        {"to", 0, 0, G_OPTION_ARG_DOUBLE, &options.to,
         "the highest frequency, at most 0.45 times the rate (default 20000, or that limit if lower)", "HZ"},
        {"volume", 0, 0, G_OPTION_ARG_INT, &volume,
         "the device volume, 0 to 100, that volume-adaptive modules follow (default 0, as without the "
         "hardware daemon)",
         "PERCENT"},
        {"csv", 0, 0, G_OPTION_ARG_FILENAME, &csv, "write the figures to FILE (default: stdout unless -o)",
         "FILE"},
        {"output", 'o', 0, G_OPTION_ARG_FILENAME, &plot, "draw gain and phase with gnuplot",
         "PLOT.svg|PLOT.png|PLOT.pdf"},
        {}};
    OptionParser parser("", "Measures a dsp chain's frequency response by running sines through it: the "
                            "gain in dB and phase in degrees of each output channel.");
    parser.add(entries);
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const configOwner(config, g_free), csvOwner(csv, g_free),
        plotOwner(plot, g_free);
    if (argc != 1)
        throw usageError("response takes no file arguments; name them with --config, --csv and -o");
    if (rate < 1000 || rate > 768000)
        throw usageError("--rate must be between 1000 and 768000 Hz");
    // The tests of the doubles are written so that NaN fails them too.
    if (!(options.levelDb >= -120.0 && options.levelDb <= 0.0))
        throw usageError("--level must be between -120 and 0 dBFS");
    if (points < 2 || points > 10000)
        throw usageError("--points must be between 2 and 10000");
    if (!(options.from >= 1.0))
        throw usageError("--from must be 1 Hz or more");
    double const highest = ResponseHost::c_highestPartOfRate * rate;
    if (!(options.to >= 0.0 && options.to <= highest)) {
        char limit[96];
        std::snprintf(limit, sizeof limit, "--to must be at most 0.45 times the rate (%g Hz at %d Hz)",
                      highest, rate);
        throw usageError(limit);
    }
    if (!(options.from < (options.to > 0.0 ? options.to : std::min(ResponseHost::c_defaultTo, highest))))
        throw usageError("--from must lie below --to");
    if (volume < 0 || volume > 100)
        throw usageError("--volume must be between 0 and 100");

    options.config = configOrDefault(config);
    options.rate = unsigned(rate);
    options.points = unsigned(points);
    options.volume = unsigned(volume);
    options.csv = csv ? csv : "";
    options.plot = plot ? plot : "";
    if (plot)
        options.plotFormat = plotFormat(plot);
    ResponseHost::run(options);
    return 0;
}

// A live run lists its chain's modules; a player does not, and gets its requests unchecked.
void knowServedModules(ChainClient& client, GBusType bus)
{
    if (auto const modules = HostClient(bus).findModules())
        client.knowModules(*modules);
}

int setCommand(int argc, char** argv)
{
    gchar* bus = nullptr;
    gchar* file = nullptr;
    GOptionEntry const entries[] = {
        {"bus", 0, 0, G_OPTION_ARG_STRING, &bus, c_busHelp, "system|session"},
        {"file", 'f', 0, G_OPTION_ARG_FILENAME, &file,
         "set many parameters in one call: one \"MODULE KEY VALUE\" per line, '#' starts a comment line",
         "PARAMS.txt"},
        {}};
    OptionParser parser(
        "MODULE KEY VALUE",
        "Sets parameters of a chain served by `orvandeldsp run --realtime` or `live`. Options go first, so "
        "that a VALUE such as -12 is taken as it is.");
    parser.add(entries);
    parser.stopAtFirstArgument();
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const busOwner(bus, g_free), fileOwner(file, g_free);
    if (file ? argc != 1 : argc != 4)
        throw usageError("set needs MODULE KEY VALUE or --file PARAMS.txt, options first");

    GBusType const busType = parseBus(bus);
    auto const settings = file ? ChainClient::readSettings(file)
                               : std::vector<ChainClient::Setting>{{argv[1], argv[2], argv[3]}};
    ChainClient client(busType);
    knowServedModules(client, busType);
    if (file)
        client.setParameters(settings);
    else
        client.setParameter(settings.front());
    return 0;
}

int soundCommand(int argc, char** argv)
{
    gchar* bus = nullptr;
    GOptionEntry const entries[] = {{"bus", 0, 0, G_OPTION_ARG_STRING, &bus, c_busHelp, "system|session"},
                                    {}};
    OptionParser parser("play N | loop N INTERVAL_MS | stop ID",
                        "Plays system sound N (0 to 9) once, repeats it every INTERVAL_MS milliseconds (and "
                        "prints the id to stop it with), or stops a repeating sound, on a served chain.");
    parser.add(entries);
    parser.stopAtFirstArgument();
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const busOwner(bus, g_free);

    std::string const action = argc > 1 ? argv[1] : "";
    int const expected = action == "play" || action == "stop" ? 3 : action == "loop" ? 4 : 0;
    if (argc != expected)
        throw usageError("sound needs play N, loop N INTERVAL_MS or stop ID, options first");
    // The service decides which sound numbers exist; here they only have to be numbers, read before
    // the bus is reached so that a usage mistake is one whatever the bus.
    GBusType const busType = parseBus(bus);
    if (action == "stop") {
        unsigned int const id = unsigned(parseNumber(argv[2], "the id", G_MAXUINT32));
        ChainClient(busType).stopSound(id);
        return 0;
    }
    int const sound = int(parseNumber(argv[2], "the sound", G_MAXINT32));
    unsigned int const interval =
        action == "loop" ? unsigned(parseNumber(argv[3], "the interval", G_MAXUINT32)) : 0;
    ChainClient client(busType);
    knowServedModules(client, busType);
    if (action == "play")
        client.playSound(sound);
    else
        std::printf("%u\n", client.loopSound(sound, interval));
    return 0;
}

int statusCommand(int argc, char** argv)
{
    gchar* bus = nullptr;
    gboolean json = FALSE;
    GOptionEntry const entries[] = {
        {"bus", 0, 0, G_OPTION_ARG_STRING, &bus, c_liveBusHelp, "system|session"},
        {"json", 'j', 0, G_OPTION_ARG_NONE, &json, "print one JSON object, for scripts", nullptr},
        {}};
    OptionParser parser("",
                        "Shows what a live run is doing: devices, frames, xruns, load, latency and drift, "
                        "meters, clipping and the chain's modules, at most a second old.");
    parser.add(entries);
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const busOwner(bus, g_free);
    if (argc != 1)
        throw usageError("status takes no arguments");

    GVariant* const status = HostClient(parseBus(bus)).getStatus();
    if (json)
        StatusReport::printJson(status, stdout);
    else
        StatusReport::print(status, stdout);
    g_variant_unref(status);
    return 0;
}

int reloadCommand(int argc, char** argv)
{
    gchar* bus = nullptr;
    gchar* config = nullptr;
    GOptionEntry const entries[] = {{"bus", 0, 0, G_OPTION_ARG_STRING, &bus, c_liveBusHelp, "system|session"},
                                    {"config", 'c', 0, G_OPTION_ARG_FILENAME, &config,
                                     "load this config instead of reading the one playing again", "FILE"},
                                    {}};
    OptionParser parser("",
                        "Loads a live run's config again, or another one, and fades over to it once it has "
                        "passed the checks check makes; returns when the new chain plays.");
    parser.add(entries);
    parser.parse(argc, argv);
    std::unique_ptr<gchar, decltype(&g_free)> const busOwner(bus, g_free), configOwner(config, g_free);
    if (argc != 1)
        throw usageError("reload takes no file arguments; name the config with --config");

    // The run reads the file from its own working directory, not the caller's.
    std::string path;
    if (config) {
        gchar* const absolute = g_canonicalize_filename(config, nullptr);
        path = absolute;
        g_free(absolute);
    }
    HostClient(parseBus(bus)).reload(path);
    return 0;
}

int dispatch(int argc, char** argv)
{
    if (argc < 2)
        throw usageError("no command given");
    std::string const command = argv[1];
    if (command == "--help" || command == "-h") {
        std::printf(
            "%s\n"
            "  run       runs INPUT through the chain into OUTPUT\n"
            "  live      runs the chain live from a capture device or a file to a playback device\n"
            "  check     reports every problem of the config, or lists its modules in signal-flow order\n"
            "  types     lists the module types, or the ports and parameters of one\n"
            "  graph     draws the chain's signal flow with Graphviz dot\n"
            "  response  measures the chain's frequency response, as CSV or a gnuplot picture\n"
            "  set       sets parameters of a chain served by run --realtime or live\n"
            "  sound     plays, loops or stops system sounds on a served chain\n"
            "  status    shows what a live run is doing\n"
            "  reload    makes a live run load its config again, or another one\n\n"
            "The default config is %s\n"
            "run --realtime and live serve the chain as %s on the system bus as root, else on the\n"
            "session bus, for as long as they play; set and sound reach it on the same bus. live also\n"
            "serves %s there, for status and reload (or send it SIGHUP).\n",
            c_usage, ToolData::defaultConfig().c_str(), ChainService::c_busName, HostService::c_busName);
        return 0;
    }
    if (command == "--version") {
        std::printf("orvandeldsp %s\n", ORVANDELDSP_VERSION);
        return 0;
    }
    // The command takes the program name's place, so that GOption shows "orvandeldsp run" in its help.
    std::string const name = "orvandeldsp " + command;
    char** commandArgv = argv + 1;
    int commandArgc = argc - 1;
    commandArgv[0] = const_cast<char*>(name.c_str());
    if (command == "run")
        return runCommand(commandArgc, commandArgv);
    if (command == "live")
        return liveCommand(commandArgc, commandArgv);
    if (command == "check")
        return checkCommand(commandArgc, commandArgv);
    if (command == "graph")
        return graphCommand(commandArgc, commandArgv);
    if (command == "types")
        return typesCommand(commandArgc, commandArgv);
    if (command == "response")
        return responseCommand(commandArgc, commandArgv);
    if (command == "set")
        return setCommand(commandArgc, commandArgv);
    if (command == "sound")
        return soundCommand(commandArgc, commandArgv);
    if (command == "status")
        return statusCommand(commandArgc, commandArgv);
    if (command == "reload")
        return reloadCommand(commandArgc, commandArgv);
    throw usageError("unknown command " + command);
}

} // namespace

int CommandLine::run(int argc, char** argv)
{
    setlocale(LC_ALL, "");
    // Numbers in the summary and the meters read the same whatever the user's locale.
    setlocale(LC_NUMERIC, "C");
    g_set_prgname(c_programName);
    ToolLog::install();
    RomplerData::setSoundsDirectory(ToolData::soundsDirectory());
    try {
        return dispatch(argc, argv);
    } catch (ToolError const& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "orvandeldsp: %s\n", e.what());
        return e.getExitStatus();
    } catch (std::exception const& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "orvandeldsp: %s\n", e.what());
        return ToolError::c_ioFailure;
    }
}

} // namespace Host
} // namespace Zelmar
