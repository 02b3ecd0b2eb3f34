#include "tools/EncodedOutput.h"

#include "base/Tracer.h"
#include "dsp/FlacEncoder.h"
#include "tools/ChainStages.h"
#include "tools/MainContext.h"

#include <cerrno>
#include <cstring>
#include <glib.h>
#include <unistd.h>

namespace Zelmar {
namespace Host {

namespace {

// Far longer than encoding any period takes; reached only when the encoder thread is stuck.
constexpr double c_encoderTimeoutSeconds = 10.0;

FlacEncoder& findEncoder(Chain const& chain, std::string const& config)
{
    auto const encoders = findStages<FlacEncoder>(chain);
    if (encoders.size() != 1)
        throw configError(config,
                          "--encode needs exactly one module of type \"flac-encoder\", the config has " +
                              std::to_string(encoders.size()));
    return *encoders.front();
}

bool isEncoderError(Tools::LogBufferEntry const& entry)
{
    return entry.level >= Tools::Tracer::Error && g_str_has_prefix(entry.message.c_str(), "FlacEncoder");
}

} // namespace

EncodedOutput::EncodedOutput(Chain const& chain, std::string const& config, std::string const& path)
    : m_encoder(&findEncoder(chain, config)), m_path(path), m_pending(path)
{
    int const fd = m_pending.takeDescriptor();
    m_file = fdopen(fd, "wb");
    if (!m_file) {
        close(fd);
        m_pending.fail(std::strerror(errno));
    }
    m_logSink = Tools::Tracer::get().addSink([this](Tools::LogBufferEntry const& entry) {
        if (!isEncoderError(entry)) {
            Tools::Tracer::writeToLog(entry);
            return;
        }
        std::lock_guard<std::mutex> lock(m_errorMutex);
        if (m_encoderError.empty())
            m_encoderError = entry.message.str();
    });
    // The stream header was queued when the chain set the encoder up and is still waiting for the main
    // loop, so this subscriber sees the stream from its first byte.
    m_pieces = m_encoder->onFrameEncoded([this](FlacEncoder::tFrame piece) { write(piece); });
    m_encoder->onSigGotFrameStateChanged(Tools::FramesWanted);
}

EncodedOutput::~EncodedOutput()
{
    // After a failed run the encoder thread may still log: stop it before the sink goes.
    m_encoder->stopEncoding();
    m_pieces.disconnect();
    m_logSink.disconnect();
    if (m_file)
        std::fclose(m_file);
}

void EncodedOutput::write(FlacEncoder::tFrame const& piece)
{
    if (m_writeErrno != 0)
        return;
    if (std::fwrite(piece->data(), 1, piece->size(), m_file) != piece->size())
        m_writeErrno = errno ? errno : EIO;
    m_bytes += piece->size();
}

ToolError EncodedOutput::encodeError(std::string const& why) const
{
    return ToolError(ToolError::c_ioFailure, "cannot encode " + m_path + ": " + why);
}

std::string EncodedOutput::takeEncoderError()
{
    std::lock_guard<std::mutex> lock(m_errorMutex);
    return m_encoderError;
}

void EncodedOutput::checkFailure()
{
    if (!m_encoder->isEncoding()) {
        // The encoder thread gave up; once it is joined its report has been made.
        m_encoder->stopEncoding();
        std::string const error = takeEncoderError();
        throw encodeError(error.empty() ? "the encoder stopped" : error);
    }
    std::string const error = takeEncoderError();
    if (!error.empty())
        throw encodeError(error);
    if (m_writeErrno != 0)
        m_pending.fail(std::strerror(m_writeErrno));
}

// The chain runs faster than real time here, so the host waits for the encoder thread rather than
// letting the queue overflow and drop pairs, as a live stream would.
void EncodedOutput::waitForRoom()
{
    if (m_encoder->getNumQueuedPairs() < FlacEncoder::c_defaultCapacity / 2)
        return;
    bool const caughtUp = dispatchMainContextUntil(
        [this] {
            return !m_encoder->isEncoding() ||
                   m_encoder->getNumQueuedPairs() < FlacEncoder::c_defaultCapacity / 2;
        },
        c_encoderTimeoutSeconds);
    checkFailure();
    if (!caughtUp)
        throw encodeError("the encoder took no samples for " + std::to_string(int(c_encoderTimeoutSeconds)) +
                          " s");
}

void EncodedOutput::afterPeriod(sf_count_t, sf_count_t)
{
    dispatchMainContext();
    checkFailure();
    waitForRoom();
}

void EncodedOutput::finish()
{
    checkFailure();
    // Joins the encoder thread and encodes the held-back block: every piece is queued for the main loop.
    m_encoder->finishStream();
    bool const delivered = dispatchMainContextUntil([this] { return !m_encoder->hasUnpublishedFrames(); },
                                                    c_encoderTimeoutSeconds);
    std::string const error = takeEncoderError();
    if (!error.empty())
        throw encodeError(error);
    if (!delivered)
        throw encodeError("the encoded stream was not delivered");
    if (m_writeErrno != 0)
        m_pending.fail(std::strerror(m_writeErrno));
    int const closed = std::fclose(m_file);
    m_file = nullptr;
    if (closed != 0)
        m_pending.fail(std::strerror(errno));
    m_pending.commit();
}

std::string EncodedOutput::describeResult() const
{
    return ", " + std::to_string(m_bytes) + " bytes of FLAC in " + m_path;
}

} // namespace Host
} // namespace Zelmar
