#include "dsp/FlacEncoder.h"
#include "dsp/IllegalArgumentException.h"

#include "base/Tracer.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"

#include <FLAC/stream_decoder.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <glib.h>
#include <gtest/gtest.h>
#include <mutex>
#include <random>
#include <thread>

using namespace Zelmar;
using Testing::ModuleHarness;

namespace {

using tBytes = std::vector<uint8_t>;

// Decodes a whole FLAC stream held in memory into interleaved samples.
std::vector<int32_t> decode(tBytes const& stream)
{
    struct Context
    {
        tBytes const* stream;
        size_t offset = 0;
        std::vector<int32_t> samples;
    } context{&stream, 0, {}};
    auto read = [](FLAC__StreamDecoder const*, FLAC__byte buffer[], size_t* bytes, void* data) {
        auto* c = static_cast<Context*>(data);
        size_t const n = std::min(*bytes, c->stream->size() - c->offset);
        std::copy_n(c->stream->data() + c->offset, n, buffer);
        c->offset += n;
        *bytes = n;
        return n == 0 ? FLAC__STREAM_DECODER_READ_STATUS_END_OF_STREAM
                      : FLAC__STREAM_DECODER_READ_STATUS_CONTINUE;
    };
    auto write = [](FLAC__StreamDecoder const*, FLAC__Frame const* frame, FLAC__int32 const* const channels[],
                    void* data) {
        auto* c = static_cast<Context*>(data);
        for (unsigned int i = 0; i < frame->header.blocksize; ++i) {
            c->samples.push_back(channels[0][i]);
            c->samples.push_back(channels[1][i]);
        }
        return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
    };
    auto error = [](FLAC__StreamDecoder const*, FLAC__StreamDecoderErrorStatus, void*) { ADD_FAILURE(); };
    FLAC__StreamDecoder* decoder = FLAC__stream_decoder_new();
    EXPECT_EQ(FLAC__stream_decoder_init_stream(decoder, read, nullptr, nullptr, nullptr, nullptr, write,
                                               nullptr, error, &context),
              FLAC__STREAM_DECODER_INIT_STATUS_OK);
    EXPECT_TRUE(FLAC__stream_decoder_process_until_end_of_stream(decoder));
    FLAC__stream_decoder_delete(decoder);
    return context.samples;
}

void drainMainLoop()
{
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

bool startsStream(tBytes const& piece)
{
    return piece.size() >= 4 && std::equal(piece.begin(), piece.begin() + 4, "fLaC");
}

std::vector<tSample> noise(unsigned int frames, unsigned int seed)
{
    std::mt19937 random(seed);
    // Up to just below full scale, both signs, with the low 4 bits set so the shift has work to do.
    std::uniform_int_distribution<int32_t> value(-0x08000000, 0x07ffffff);
    std::vector<tSample> samples(frames);
    for (auto& s : samples)
        s = tSample(value(random));
    return samples;
}

} // namespace

TEST(FlacEncoderTest, ShiftsToTwentyFourBitsWithoutClipping)
{
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(0x08000000))), 8388608);
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(-1.0)), -8388608);
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(0x7fffffff))), 0x7ffffff)
        << "beyond full scale, kept";
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(0x1f))), 1);
    EXPECT_EQ(FlacEncoder::toFlacSample(tSample(int32_t(-1))), -1) << "arithmetic shift rounds down";

    // libFLAC refuses 8388608 as a 24-bit sample (client error, state 5): full scale stops the encoder.
    Testing::LogCapture log;
    ModuleHarness harness(std::make_shared<FlacEncoder>("enc"));
    auto& encoder = static_cast<FlacEncoder&>(harness.module());
    encoder.setParameters(Parameters{}, 48000);
    encoder.onSigGotFrameStateChanged(Tools::FramesWanted);
    harness.process(
        {Testing::constant(1280, tSample(int32_t(0x08000000))), Testing::constant(1280, tSample(0.0))});
    encoder.onSigGotFrameStateChanged(Tools::FramesNotWanted);
    EXPECT_TRUE(log.contains("FlacEncoder error: 5"));
}

TEST(FlacEncoderTest, StreamDecodesToTheDeliveredSamplesAndReachesSubscribersInOrder)
{
    unsigned int const frames = 3 * 48000 + 321;
    std::vector<tSample> const left = noise(frames, 1);
    std::vector<tSample> right = noise(frames, 2);
    right[100] = tSample(-1.0);
    // Room for the whole input, so the test does not depend on how fast the encoder thread runs.
    ModuleHarness harness(std::make_shared<FlacEncoder>("enc", 1u << 18));
    auto& encoder = static_cast<FlacEncoder&>(harness.module());
    encoder.setParameters(Parameters{}, 48000);

    std::vector<tBytes> pieces;
    std::vector<FlacEncoder::tFrame> seenBySecond;
    bool offMainThread = false;
    std::thread::id const mainThread = std::this_thread::get_id();
    Tools::Connection first = encoder.onFrameEncoded([&](FlacEncoder::tFrame frame) {
        offMainThread |= std::this_thread::get_id() != mainThread;
        pieces.push_back(*frame);
    });
    Tools::Connection second = encoder.onFrameEncoded([&](FlacEncoder::tFrame frame) {
        EXPECT_EQ(pieces.size(), seenBySecond.size() + 1) << "the first subscriber runs first";
        seenBySecond.push_back(frame);
    });

    encoder.onSigGotFrameStateChanged(Tools::FramesWanted);
    EXPECT_TRUE(encoder.isEncoding());
    harness.processInPeriods({left, right}, 1280);
    encoder.onSigGotFrameStateChanged(Tools::FramesNotWanted);
    EXPECT_FALSE(encoder.isEncoding());
    EXPECT_EQ(encoder.getDroppedPairs(), 0u);
    EXPECT_TRUE(pieces.empty()) << "nothing is published before the main loop runs";
    drainMainLoop();

    std::vector<int32_t> expected;
    for (unsigned int i = 0; i < frames; ++i) {
        expected.push_back(FlacEncoder::toFlacSample(left[i]));
        expected.push_back(FlacEncoder::toFlacSample(right[i]));
    }
    auto joined = [&] {
        tBytes stream;
        for (auto const& piece : pieces)
            stream.insert(stream.end(), piece.begin(), piece.end());
        return stream;
    };
    ASSERT_FALSE(pieces.empty());
    EXPECT_TRUE(startsStream(pieces.front()));
    std::vector<int32_t> const beforeFinish = decode(joined());
    // All but the block libFLAC keeps back until the stream is finished.
    EXPECT_LE(beforeFinish.size(), expected.size());
    EXPECT_LE(expected.size() - beforeFinish.size(), 2u * 1152u);
    EXPECT_TRUE(std::equal(beforeFinish.begin(), beforeFinish.end(), expected.begin()));

    // Finishing publishes the last block, then the header of the next stream.
    size_t const piecesBefore = pieces.size();
    encoder.setParameters(Parameters{}, 48000);
    drainMainLoop();
    auto const next = std::find_if(pieces.begin() + piecesBefore, pieces.end(), startsStream);
    ASSERT_NE(next, pieces.end());
    EXPECT_EQ(seenBySecond.size(), pieces.size());
    pieces.erase(next, pieces.end());
    tBytes const stream = joined();
    EXPECT_EQ(decode(stream), expected);
    EXPECT_FALSE(offMainThread);

    std::string const path =
        std::string(g_get_tmp_dir()) + "/flac-encoder-test-" + std::to_string(getpid()) + ".flac";
    std::FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    std::fwrite(stream.data(), 1, stream.size(), file);
    std::fclose(file);
    EXPECT_EQ(std::system(("flac -t -s " + path).c_str()), 0);
    std::remove(path.c_str());
}

TEST(FlacEncoderTest, StoppedEncoderOnlyClearsItsQueue)
{
    ModuleHarness harness(std::make_shared<FlacEncoder>("enc"));
    auto& encoder = static_cast<FlacEncoder&>(harness.module());
    encoder.setParameters(Parameters{}, 48000);
    std::vector<tBytes> pieces;
    Tools::Connection connection =
        encoder.onFrameEncoded([&](FlacEncoder::tFrame frame) { pieces.push_back(*frame); });
    drainMainLoop();
    size_t const headerPieces = pieces.size();
    EXPECT_GT(headerPieces, 0u) << "the stream header is written when the encoder is set up";
    for (int i = 0; i < 10; ++i)
        harness.process({noise(1280, 3), noise(1280, 4)});
    drainMainLoop();
    EXPECT_EQ(pieces.size(), headerPieces);
    EXPECT_EQ(encoder.getDroppedPairs(), 0u);

    // Only what arrives while encoding is in the stream.
    encoder.startEncoding();
    harness.process({Testing::constant(1000, tSample(0.25)), Testing::constant(1000, tSample(-0.25))});
    encoder.stopEncoding();
    harness.process({noise(1280, 5), noise(1280, 6)});
    encoder.setParameters(Parameters{}, 48000);
    drainMainLoop();
    auto const next = std::find_if(pieces.begin() + 1, pieces.end(), startsStream);
    tBytes stream;
    for (auto it = pieces.begin(); it != next; ++it)
        stream.insert(stream.end(), it->begin(), it->end());
    std::vector<int32_t> expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back(0x200000);
        expected.push_back(-0x200000);
    }
    EXPECT_EQ(decode(stream), expected);
}

TEST(FlacEncoderTest, FinishedStreamHoldsEverythingAndTheNextStartBeginsAnother)
{
    ModuleHarness harness(std::make_shared<FlacEncoder>("enc"));
    auto& encoder = static_cast<FlacEncoder&>(harness.module());
    encoder.setParameters(Parameters{}, 48000);
    std::vector<tBytes> pieces;
    Tools::Connection connection =
        encoder.onFrameEncoded([&](FlacEncoder::tFrame frame) { pieces.push_back(*frame); });
    EXPECT_TRUE(encoder.hasUnpublishedFrames()) << "the header waits for the main loop";

    // Less than one block: libFLAC would keep all of it back until the stream ends.
    encoder.startEncoding();
    harness.process({Testing::constant(1000, tSample(0.25)), Testing::constant(1000, tSample(-0.25))});
    EXPECT_EQ(encoder.getNumQueuedPairs(), 1000u) << "below the wake-up threshold";
    encoder.finishStream();
    EXPECT_FALSE(encoder.isEncoding());
    EXPECT_TRUE(encoder.hasUnpublishedFrames());
    drainMainLoop();
    EXPECT_FALSE(encoder.hasUnpublishedFrames());
    tBytes stream;
    for (auto const& piece : pieces)
        stream.insert(stream.end(), piece.begin(), piece.end());
    std::vector<int32_t> expected;
    for (int i = 0; i < 1000; ++i) {
        expected.push_back(0x200000);
        expected.push_back(-0x200000);
    }
    EXPECT_EQ(decode(stream), expected);

    size_t const before = pieces.size();
    encoder.startEncoding();
    EXPECT_TRUE(encoder.isEncoding());
    drainMainLoop();
    ASSERT_GT(pieces.size(), before);
    EXPECT_TRUE(startsStream(pieces[before]));
    encoder.stopEncoding();
}

// Audio thread, encoder thread and main loop all at once; meant to be run under ThreadSanitizer too.
TEST(FlacEncoderTest, AudioEncoderAndMainLoopThreadsRunTogether)
{
    unsigned int const frames = 2 * 48000;
    std::vector<tSample> const left = noise(frames, 7), right = noise(frames, 8);
    ModuleHarness harness(std::make_shared<FlacEncoder>("enc", 1u << 18));
    auto& encoder = static_cast<FlacEncoder&>(harness.module());
    encoder.setParameters(Parameters{}, 48000);
    tBytes stream;
    bool nextStream = false;
    Tools::Connection connection = encoder.onFrameEncoded([&](FlacEncoder::tFrame frame) {
        nextStream |= !stream.empty() && startsStream(*frame);
        if (!nextStream)
            stream.insert(stream.end(), frame->begin(), frame->end());
    });
    encoder.startEncoding();
    std::atomic<bool> audioDone{false};
    std::thread audio([&] {
        for (unsigned int start = 0; start < frames; start += 1280) {
            unsigned int const end = std::min(frames, start + 1280);
            harness.process({std::vector<tSample>(left.begin() + start, left.begin() + end),
                             std::vector<tSample>(right.begin() + start, right.begin() + end)});
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        audioDone = true;
    });
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return audioDone.load(); }, std::chrono::seconds(20)));
    audio.join();
    encoder.stopEncoding();
    encoder.setParameters(Parameters{}, 48000);
    drainMainLoop();
    std::vector<int32_t> expected;
    for (unsigned int i = 0; i < frames; ++i) {
        expected.push_back(FlacEncoder::toFlacSample(left[i]));
        expected.push_back(FlacEncoder::toFlacSample(right[i]));
    }
    EXPECT_EQ(encoder.getDroppedPairs(), 0u);
    EXPECT_EQ(decode(stream), expected);
}

namespace {

// An encoder thread that does not take anything until the test lets it.
class StalledEncoder : public FlacEncoder
{
public:
    StalledEncoder() : FlacEncoder("stalled", 2048), m_released(m_release.get_future().share()) {}
    ~StalledEncoder() override
    {
        release();
        stopEncoding();
    }
    void release()
    {
        if (!m_done.exchange(true))
            m_release.set_value();
    }

protected:
    unsigned int readOrWait(tPair* buffer, unsigned int maxPairs) override
    {
        m_released.wait();
        return FlacEncoder::readOrWait(buffer, maxPairs);
    }

private:
    std::promise<void> m_release;
    std::shared_future<void> m_released;
    std::atomic<bool> m_done{false};
};

} // namespace

TEST(FlacEncoderTest, OverrunIsCountedAndReportedOnTheMainLoop)
{
    Testing::LogCapture log;
    auto stalled = std::make_shared<StalledEncoder>();
    ModuleHarness harness(stalled);
    stalled->setParameters(Parameters{}, 48000);
    stalled->startEncoding();
    for (int i = 0; i < 3; ++i)
        harness.process({Testing::constant(1000, tSample(0.1)), Testing::constant(1000, tSample(0.1))});
    EXPECT_EQ(stalled->getDroppedPairs(), 952u);
    std::string const report =
        "FlacEncoder stalled dropped 952 stereo frames because its worker thread fell behind";
    EXPECT_FALSE(log.contains(report)) << "reported from the main loop, not the audio thread";
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return log.contains(report); }));
    stalled->release();
}

TEST(FlacEncoderTest, RejectsASampleRateLibFlacCannotEncode)
{
    FlacEncoder encoder("enc");
    try {
        encoder.setParameters(Parameters{}, 2000000);
        FAIL();
    } catch (IllegalArgumentException const& e) {
        EXPECT_EQ(e.getMessage(), "FlacEncoder enc: cannot encode at 2000000 Hz (libFLAC init status 6)");
    }
    encoder.startEncoding();
    EXPECT_FALSE(encoder.isEncoding());
}
