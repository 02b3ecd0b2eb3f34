#include "tools/FlacStreamWriter.h"

#include "tools/ToolError.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace Zelmar {
namespace Host {

FlacStreamWriter::FlacStreamWriter(int fd, unsigned int numChannels, unsigned int bitsPerSample,
                                   unsigned int sampleRate)
    : m_fd(fd), m_encoder(FLAC__stream_encoder_new())
{
    bool const configured = m_encoder && FLAC__stream_encoder_set_channels(m_encoder, numChannels) &&
                            FLAC__stream_encoder_set_bits_per_sample(m_encoder, bitsPerSample) &&
                            FLAC__stream_encoder_set_sample_rate(m_encoder, sampleRate);
    // Without a seek callback libFLAC never goes back to complete the header.
    if (!configured ||
        FLAC__stream_encoder_init_stream(m_encoder, &FlacStreamWriter::writeCallback, nullptr, nullptr,
                                         nullptr, this) != FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
        if (m_encoder)
            FLAC__stream_encoder_delete(m_encoder);
        close(m_fd);
        throw ToolError(ToolError::c_badInput, "FLAC cannot stream " + std::to_string(numChannels) +
                                                   " channels at " + std::to_string(sampleRate) + " Hz");
    }
}

FlacStreamWriter::~FlacStreamWriter()
{
    FLAC__stream_encoder_delete(m_encoder);
    close(m_fd);
}

void FlacStreamWriter::write(int32_t const* interleaved, unsigned int frames)
{
    if (!FLAC__stream_encoder_process_interleaved(m_encoder, interleaved, frames))
        fail();
}

void FlacStreamWriter::finish()
{
    if (!FLAC__stream_encoder_finish(m_encoder))
        fail();
}

FLAC__StreamEncoderWriteStatus FlacStreamWriter::writeCallback(FLAC__StreamEncoder const*,
                                                               FLAC__byte const bytes[], size_t count,
                                                               uint32_t, uint32_t, void* self)
{
    auto* const writer = static_cast<FlacStreamWriter*>(self);
    while (count > 0) {
        ssize_t const written = ::write(writer->m_fd, bytes, count);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            writer->m_writeErrno = written < 0 ? errno : EIO;
            return FLAC__STREAM_ENCODER_WRITE_STATUS_FATAL_ERROR;
        }
        bytes += written;
        count -= size_t(written);
    }
    return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
}

void FlacStreamWriter::fail() const
{
    std::string const why = m_writeErrno
                                ? std::strerror(m_writeErrno)
                                : FLAC__StreamEncoderStateString[FLAC__stream_encoder_get_state(m_encoder)];
    throw ToolError(ToolError::c_ioFailure, "cannot write the output to standard output: " + why);
}

} // namespace Host
} // namespace Zelmar
