#pragma once

#include <FLAC/stream_encoder.h>
#include <cstdint>
#include <string>

namespace Zelmar {
namespace Host {

// A FLAC stream written as it is encoded to a descriptor that cannot seek, such as a pipe: its header
// leaves the length open and carries no MD5 sum, as a live stream's does. (libsndfile completes the
// header at the end, which in a pipe appends the header's last fields to the stream.)
class FlacStreamWriter
{
public:
    // Throws ToolError when libFLAC will not take the format.
    FlacStreamWriter(int fd, unsigned int numChannels, unsigned int bitsPerSample, unsigned int sampleRate);
    ~FlacStreamWriter();

    FlacStreamWriter(FlacStreamWriter const&) = delete;
    FlacStreamWriter& operator=(FlacStreamWriter const&) = delete;

    // Interleaved samples, each the value of a bitsPerSample-bit sample. Throws ToolError.
    void write(int32_t const* interleaved, unsigned int frames);
    // Encodes what libFLAC still holds. Throws ToolError.
    void finish();

private:
    static FLAC__StreamEncoderWriteStatus writeCallback(FLAC__StreamEncoder const*, FLAC__byte const bytes[],
                                                        size_t count, uint32_t, uint32_t, void* self);
    [[noreturn]] void fail() const;

    int m_fd;
    FLAC__StreamEncoder* m_encoder;
    int m_writeErrno = 0;
};

} // namespace Host
} // namespace Zelmar
