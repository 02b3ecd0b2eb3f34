#include "dsp/SignalDetector.h"

#include "base/Assert.h"
#include "base/Tracer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>

namespace Zelmar {

namespace {

constexpr char const* c_defaultThresholdDirectory = "/tmp/";
constexpr uint32_t c_resultMask = 0x3;
constexpr uint32_t c_reasonShift = 2;
constexpr uint32_t c_reasonMask = 0x3 << c_reasonShift;
constexpr uint32_t c_valueMask = ~0xFu;

constexpr float c_learningWindowSeconds = 120.0f;
constexpr float c_requiredStaticSeconds = 30.0f;
constexpr float c_loudestLearntFloorDb = -55.0f;
constexpr float c_quietestFloorDb = -80.0f;
constexpr float c_minHeadroomDb = 3.0f;
constexpr float c_maxHeadroomDb = 12.0f;
constexpr float c_relearnDifferenceDb = 0.5f;

float toDb(float linear)
{
    return 20.0f * std::log10(linear);
}

float fromDb(double db)
{
    return static_cast<float>(std::pow(10.0, db / 20.0));
}

uint32_t withResult(uint32_t word, uint32_t result)
{
    return (word & ~c_resultMask) | result;
}

// One decimal, and never "-0.0".
float roundToTenth(float value)
{
    return std::round(value * 10.0f) / 10.0f + 0.0f;
}

} // namespace

std::string SignalDetector::s_defaultThresholdDirectory = c_defaultThresholdDirectory;

SignalDetector::SignalDetector(Tools::String const& id) : SignalDetector(id, s_defaultThresholdDirectory) {}

void SignalDetector::setDefaultThresholdDirectory(std::string directory)
{
    s_defaultThresholdDirectory = std::move(directory);
}

SignalDetector::SignalDetector(Tools::String const& id, std::string thresholdDirectory)
    : Module(id), m_thresholdDirectory(std::move(thresholdDirectory)), m_pollTimer([this] { pollSignal(); }),
      m_noiseFloorToLearn(std::numeric_limits<float>::quiet_NaN())
{
    m_pollTimer.refresh(0, c_pollMilliseconds, 0);
    loadThreshold();
}

SignalDetector::~SignalDetector() = default;

void SignalDetector::setParameters(Parameters const& parameters, unsigned int sampleRate)
{
    Module::setParameters(parameters, sampleRate);
    m_sampleRate.store(sampleRate, std::memory_order_relaxed);
    // A threshold learnt earlier, or set before, wins over the configured default.
    if (m_threshold.load(std::memory_order_relaxed) == 0.0f)
        m_threshold.store(fromDb(parameters.getDouble("signal-threshold")), std::memory_order_relaxed);
}

void SignalDetector::process()
{
    AudioBuffer const& in = inBuffer(0);
    runDetector(in.getRawData(), in.getNumSampleFrames());
}

void SignalDetector::runDetector(tSample const* samples, unsigned int n)
{
    uint32_t const sampleRate = m_sampleRate.load(std::memory_order_relaxed);

    // The input settles after start-up, and its first blocks would disturb the statistics.
    if (m_startupSkipFrames > 0) {
        m_startupSkipFrames -= static_cast<int32_t>(n);
        return;
    }

    float sum = 0.0f;
    for (unsigned int i = 0; i < n; i += StaticNoiseDetector::c_decimation) {
        float const f = m_filter.step(samples[i]).toFloat();
        float const square = f * f;
        sum += square;
        m_staticNoise.addSquareValue(square);
    }

    bool holding = false;
    if (m_holdFrames != 0) {
        int32_t const left = m_holdFrames - static_cast<int32_t>(n);
        holding = left >= 0;
        m_holdFrames = std::max(left, int32_t(0));
    }

    float const threshold = m_threshold.load(std::memory_order_relaxed);
    float rms = 0.0f;
    bool loud = false;
    if (sum != 0.0f) {
        // Periods shorter than eight frames still analyse one sample.
        unsigned int const analysed = std::max(n >> 3, 1u);
        rms = std::sqrt(sum / static_cast<float>(analysed));
        m_staticNoise.setFastRms(rms);
        bool const quiet = m_staticNoise.getState() != StaticNoiseDetector::Active && rms <= threshold &&
                           m_staticNoise.getLastMean() <= threshold;
        loud = !quiet;
    }
    if (loud)
        m_holdFrames = static_cast<int32_t>(c_holdSeconds * sampleRate);

    updateResult(loud, holding, findTrigger(rms, threshold));
    analyseWhenDue();
    m_wallclockSeconds.store(m_staticNoise.getCurrentWallclockTime(), std::memory_order_relaxed);
}

SignalDetector::Trigger SignalDetector::findTrigger(float rms, float threshold) const
{
    if (m_staticNoise.getState() == StaticNoiseDetector::Active)
        return {StateIsActive, rms};
    if (rms > threshold)
        return {RmsOverThreshold, rms};
    if (m_staticNoise.getLastMean() > threshold)
        return {MeanOverThreshold, m_staticNoise.getLastMean()};
    return {0, 0.0f};
}

void SignalDetector::updateResult(bool loud, bool holding, Trigger const& trigger)
{
    // The main loop may reset the result between our load and store; retry rather than lose that.
    uint32_t word = m_result.load(std::memory_order_acquire);
    uint32_t next = nextResultWord(word, loud, holding, trigger);
    while (next != word && !m_result.compare_exchange_weak(word, next, std::memory_order_acq_rel))
        next = nextResultWord(word, loud, holding, trigger);
}

uint32_t SignalDetector::nextResultWord(uint32_t word, bool loud, bool holding, Trigger const& trigger)
{
    uint32_t const result = word & c_resultMask;
    // A loud block, or a hold still running, turns a silent result active with a reason; an active
    // result stays active until the poll consumes it.
    if (result == Silent && (loud || holding))
        return withResult(packInfo(word, trigger), Active);
    if (result == NoProcessingSinceLastReport)
        return withResult(word, (loud || holding) ? Active : Silent);
    return word;
}

uint32_t SignalDetector::packInfo(uint32_t word, Trigger const& trigger)
{
    if (trigger.reason == 0)
        return word;
    uint32_t valueBits;
    std::memcpy(&valueBits, &trigger.value, sizeof valueBits);
    return (valueBits & c_valueMask) | (uint32_t(trigger.reason) << c_reasonShift & c_reasonMask) |
           (word & c_resultMask);
}

SignalDetector::DetectionInfo SignalDetector::unpackInfo(uint32_t word)
{
    DetectionInfo info;
    info.reason = static_cast<uint8_t>((word & c_reasonMask) >> c_reasonShift);
    uint32_t const valueBits = word & c_valueMask;
    std::memcpy(&info.value, &valueBits, sizeof info.value);
    return info;
}

void SignalDetector::analyseWhenDue()
{
    if (!m_staticNoise.needsAnalysis())
        return;
    SignalState state;
    m_staticNoise.analyseStaticActive(state);
    if (canLearnFrom(state))
        m_noiseFloorToLearn.store(state.meanDb, std::memory_order_release);
}

SignalDetector::DetectionResult SignalDetector::consumeDetectionResult(DetectionInfo& info)
{
    uint32_t const word = m_result.fetch_and(~c_resultMask, std::memory_order_seq_cst);
    auto const result = static_cast<DetectionResult>(word & c_resultMask);
    if (result == Active)
        info = unpackInfo(word);
    return result;
}

void SignalDetector::presetDetectionResult(DetectionResult result)
{
    uint32_t word = m_result.load(std::memory_order_seq_cst);
    while (!m_result.compare_exchange_weak(word, withResult(word, result), std::memory_order_seq_cst))
        ;
}

Tools::Connection SignalDetector::onThresholdTriggered(std::function<void(bool)> callback)
{
    return m_triggerSignal.connect(std::move(callback));
}

void SignalDetector::pollSignal()
{
    m_pollTimer.refresh(0, c_pollMilliseconds, 0);

    DetectionInfo info;
    DetectionResult const result = consumeDetectionResult(info);
    if (result == Silent && m_reportedResult == Active) {
        m_reportedResult = Silent;
        m_triggerSignal(false);
        Tools::trace(Tools::Tracer::Notice, "No signal in line-in:", getCurrentWallclockTime());
    } else if (result == Active && m_reportedResult == Silent) {
        m_reportedResult = Active;
        m_triggerSignal(true);
        Tools::trace(Tools::Tracer::Notice, "Signal trigger:", info.value,
                     "Reason:", reasonAsString(info.reason));
    }

    float const noiseFloor = m_noiseFloorToLearn.exchange(std::numeric_limits<float>::quiet_NaN());
    if (!std::isnan(noiseFloor))
        learnThreshold(noiseFloor);
}

SignalDetector::LearntThreshold SignalDetector::thresholdForNoiseFloor(float meanDb)
{
    float const floorDb = std::max(meanDb, c_quietestFloorDb);
    float const headroom = c_minHeadroomDb + (c_maxHeadroomDb - c_minHeadroomDb) *
                                                 (floorDb - c_loudestLearntFloorDb) /
                                                 (c_quietestFloorDb - c_loudestLearntFloorDb);
    return {floorDb + headroom, headroom};
}

bool SignalDetector::canLearnFrom(SignalState const& state)
{
    return state.staticTime >= c_requiredStaticSeconds &&
           state.secondsSinceStart <= c_learningWindowSeconds && state.meanDb < c_loudestLearntFloorDb;
}

void SignalDetector::learnThreshold(float noiseFloorDb)
{
    LearntThreshold const learnt = thresholdForNoiseFloor(noiseFloorDb);
    if (m_hasMeasuredThreshold &&
        std::fabs(learnt.thresholdDb - toDb(getThreshold())) <= c_relearnDifferenceDb)
        return;
    m_threshold.store(fromDb(learnt.thresholdDb), std::memory_order_relaxed);
    Tools::trace(Tools::Tracer::Notice, getID(), ": new signal threshold:", learnt.thresholdDb);
    saveThreshold(getThreshold(), learnt.headroomDb);
    m_hasMeasuredThreshold = true;
}

std::string SignalDetector::detectionResultAsString(DetectionResult result)
{
    switch (result) {
    case NoProcessingSinceLastReport:
        return "No ProcessingSinceLastReport";
    case Silent:
        return "Silent";
    case Active:
        return "Active";
    }
    ZELMAR_UNREACHABLE();
}

char const* SignalDetector::reasonAsString(uint8_t reason)
{
    switch (reason) {
    case StateIsActive:
        return "State is Active";
    case RmsOverThreshold:
        return "Rms value is over threshold";
    case MeanOverThreshold:
        return "Meanvalue is over threshold";
    default:
        return "Unknown";
    }
}

std::string SignalDetector::thresholdFilename() const
{
    return m_thresholdDirectory + getID().str();
}

void SignalDetector::saveThreshold(float threshold, float headroom)
{
    if (getID().str().find(G_DIR_SEPARATOR) != std::string::npos) {
        Tools::trace(Tools::Tracer::Error, getID(),
                     ": signal threshold not saved, the id contains a path separator");
        return;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.1f\n#headroom: %.1f\n", roundToTenth(toDb(threshold)),
                  roundToTenth(headroom));
    // Written to a temporary file beside it and renamed, so a crash never leaves half a file.
    GError* error = nullptr;
    if (!g_file_set_contents(thresholdFilename().c_str(), text, -1, &error)) {
        Tools::trace(Tools::Tracer::Error, getID(), ": could not save signal threshold:", error->message);
        g_error_free(error);
    }
}

void SignalDetector::loadThreshold()
{
    std::ifstream file;
    if (getID().str().find(G_DIR_SEPARATOR) == std::string::npos)
        file.open(thresholdFilename());
    double thresholdDb = 0.0;
    if (file >> thresholdDb) {
        m_threshold.store(fromDb(thresholdDb), std::memory_order_relaxed);
        m_hasMeasuredThreshold = true;
        return;
    }
    m_hasMeasuredThreshold = false;
    Tools::trace(Tools::Tracer::Info, getID(),
                 ": no measured signal threshold yet, using default value:", toDb(getThreshold()));
}

} // namespace Zelmar
