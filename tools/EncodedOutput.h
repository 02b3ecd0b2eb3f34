#pragma once

#include "base/Signal.h"
#include "tools/PendingFile.h"
#include "tools/RunFeature.h"
#include "tools/ToolError.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Zelmar {

class Chain;
class FlacEncoder;

namespace Host {

// Writes the stream of the chain's "flac-encoder" to a file: encoding is wanted from the first period
// on, every piece the encoder publishes is appended in order, and at the end the stream is finished so
// that the last, incomplete block is in the file too. The file appears only when the run succeeded.
class EncodedOutput : public RunFeature
{
public:
    EncodedOutput(Chain const& chain, std::string const& config, std::string const& path);
    ~EncodedOutput() override;

    void afterPeriod(sf_count_t framesIn, sf_count_t framesOut) override;
    void finish() override;
    std::string describeResult() const override;

private:
    void write(std::shared_ptr<std::vector<uint8_t>> const& piece);
    void waitForRoom();
    // Throws the first error the encoder reported, or a write error of the file.
    void checkFailure();
    std::string takeEncoderError();
    ToolError encodeError(std::string const& why) const;

    FlacEncoder* m_encoder = nullptr;
    std::string m_path;
    PendingFile m_pending;
    std::FILE* m_file = nullptr;
    int m_writeErrno = 0;
    uint64_t m_bytes = 0;
    std::mutex m_errorMutex;
    std::string m_encoderError;
    // The encoder reports failures through the tracer, from its own thread; they end the run instead.
    Tools::Connection m_logSink;
    Tools::Connection m_pieces;
};

} // namespace Host
} // namespace Zelmar
