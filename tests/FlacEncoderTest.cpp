#include "dsp/FlacEncoder.h"
#include "dsp/DumpSamples.h"
#include "dsp/IllegalArgumentException.h"
#include "dsp/OneWriterOneReaderRingBuffer.h"
#include "support/LogCapture.h"
#include "support/MainLoop.h"
#include "support/ModuleHarness.h"
#include "support/TemporaryDirectory.h"
#include "support/Thrown.h"
#include <FLAC/stream_encoder.h>
#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Zelmar;
using Testing::ModuleHarness;
using Testing::noise;

namespace {

using tBytes = std::vector<uint8_t>;

// What libFLAC itself writes for these channels, each sample shifted right by 4 into 24 bits, at the
// encoder's fixed settings: compression level 2 (1152-frame blocks), two channels of 24 bits, a streamable
// subset and an unknown length. Without a seek callback the header is never rewritten, as on a live stream.
tBytes libFlacStream(std::vector<tSample> const& left, std::vector<tSample> const& right)
{
    std::vector<int32_t> pairs;
    for (size_t i = 0; i < left.size(); ++i)
        pairs.insert(pairs.end(), {left[i].getRaw() >> 4, right[i].getRaw() >> 4});
    tBytes bytes;
    FLAC__StreamEncoder* encoder = FLAC__stream_encoder_new();
    FLAC__stream_encoder_set_compression_level(encoder, 2);
    FLAC__stream_encoder_set_channels(encoder, 2);
    FLAC__stream_encoder_set_bits_per_sample(encoder, 24);
    FLAC__stream_encoder_set_sample_rate(encoder, 48000);
    FLAC__stream_encoder_set_streamable_subset(encoder, true);
    auto const write = [](FLAC__StreamEncoder const*, FLAC__byte const buffer[], size_t size, uint32_t,
                          uint32_t, void* out) {
        static_cast<tBytes*>(out)->insert(static_cast<tBytes*>(out)->end(), buffer, buffer + size);
        return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
    };
    EXPECT_EQ(FLAC__stream_encoder_init_stream(encoder, write, nullptr, nullptr, nullptr, &bytes),
              FLAC__STREAM_ENCODER_INIT_STATUS_OK);
    EXPECT_TRUE(FLAC__stream_encoder_process_interleaved(encoder, pairs.data(), unsigned(pairs.size() / 2)));
    FLAC__stream_encoder_finish(encoder);
    FLAC__stream_encoder_delete(encoder);
    return bytes;
}

bool startsStream(tBytes const& piece)
{
    return piece.size() >= 4 && std::equal(piece.begin(), piece.begin() + 4, "fLaC");
}

// An encoder fed by a harness, with every piece it publishes collected, on the thread that made it.
struct Encoding
{
    explicit Encoding(std::shared_ptr<FlacEncoder> module = std::make_shared<FlacEncoder>("enc"))
        : harness(module), encoder(*module),
          connection(encoder.onFrameEncoded([this](FlacEncoder::tFrame frame) {
              EXPECT_EQ(std::this_thread::get_id(), owner) << "published on the main loop";
              pieces.push_back(*frame);
          }))
    {
        encoder.setParameters(Parameters{}, 48000);
    }
    // The pieces up to the header of the next stream, joined.
    tBytes stream() const
    {
        tBytes joined;
        for (size_t i = 0; i < pieces.size() && (i == 0 || !startsStream(pieces[i])); ++i)
            joined.insert(joined.end(), pieces[i].begin(), pieces[i].end());
        return joined;
    }

    ModuleHarness harness;
    FlacEncoder& encoder;
    std::vector<tBytes> pieces;
    std::thread::id const owner = std::this_thread::get_id();
    Tools::Connection connection;
};

} // namespace

TEST(FlacEncoderTest, StreamIsLibFlacsOwnAndReachesSubscribersOnTheMainLoop)
{
    unsigned int const frames = 48000 + 321;
    // Closely related channels, on which the encoder's mid-side search shows its compression level.
    std::vector<tSample> const left = noise(frames, 1, 1 << 26);
    std::vector<tSample> right = noise(frames, 2, 1 << 12);
    std::transform(right.begin(), right.end(), left.begin(), right.begin(), std::plus<tSample>());
    right[100] = tSample(-1.0);
    // Room for the whole input, so the test does not depend on how fast the encoder thread runs.
    Encoding e(std::make_shared<FlacEncoder>("enc", 1u << 17));
    e.encoder.onSigGotFrameStateChanged(Tools::FramesWanted);
    e.harness.processInPeriods({left, right}, 1280);
    e.encoder.onSigGotFrameStateChanged(Tools::FramesNotWanted);
    EXPECT_FALSE(e.encoder.isEncoding());
    EXPECT_TRUE(e.pieces.empty()) << "nothing is published before the main loop runs";
    Testing::runPendingMainLoopJobs();

    // All but the last block (1152 pairs of 24 bits: under 7 KB) before the stream is finished.
    tBytes const expected = libFlacStream(left, right);
    tBytes const beforeFinish = e.stream();
    ASSERT_LT(beforeFinish.size(), expected.size());
    EXPECT_LT(expected.size() - beforeFinish.size(), 7000u);
    EXPECT_TRUE(std::equal(beforeFinish.begin(), beforeFinish.end(), expected.begin()));

    // Finishing, here for a new rate, publishes the last block, then the header of the next stream.
    size_t const piecesBefore = e.pieces.size();
    e.encoder.setParameters(Parameters{}, 44100);
    Testing::runPendingMainLoopJobs();
    EXPECT_TRUE(std::any_of(e.pieces.begin() + long(piecesBefore), e.pieces.end(), startsStream));
    EXPECT_EQ(e.stream(), expected);
}

TEST(FlacEncoderTest, OnlyWhatArrivesWhileEncodingIsInTheStreamAndAFinishedOneHoldsAllOfIt)
{
    Encoding e;
    e.harness.processInPeriods({noise(12800, 3), noise(12800, 4)}, 1280);
    Testing::runPendingMainLoopJobs();
    size_t const headerPieces = e.pieces.size();

    // Less than one block, and below the wake-up threshold: all of it waits until the stream ends.
    e.encoder.startEncoding();
    std::vector<tSample> const quarter = Testing::constant(1000, tSample(0.25)),
                               minusQuarter = Testing::constant(1000, tSample(-0.25));
    e.harness.process({quarter, minusQuarter});
    EXPECT_EQ(e.encoder.getNumQueuedPairs(), 1000u);
    e.encoder.stopEncoding();
    e.harness.process({noise(1280, 5), noise(1280, 6)});
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(e.pieces.size(), headerPieces);
    e.encoder.finishStream();
    EXPECT_FALSE(e.encoder.isEncoding());
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(e.stream(), libFlacStream(quarter, minusQuarter));

    size_t const before = e.pieces.size();
    e.encoder.startEncoding();
    Testing::runPendingMainLoopJobs();
    ASSERT_GT(e.pieces.size(), before);
    EXPECT_TRUE(startsStream(e.pieces[before])) << "the next start begins another stream";
}

// Audio thread, encoder thread and main loop all at once; meant to be run under ThreadSanitizer too.
TEST(FlacEncoderTest, AudioEncoderAndMainLoopThreadsRunTogether)
{
    unsigned int const frames = 24000;
    std::vector<tSample> const left = noise(frames, 7), right = noise(frames, 8);
    Encoding e(std::make_shared<FlacEncoder>("enc", 1u << 15));
    e.encoder.startEncoding();
    std::atomic<bool> audioDone{false};
    std::thread audio([&] {
        for (unsigned int start = 0; start < frames; start += 240) {
            e.harness.process({std::vector<tSample>(left.begin() + start, left.begin() + start + 240),
                               std::vector<tSample>(right.begin() + start, right.begin() + start + 240)});
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        audioDone = true;
        g_main_context_wakeup(nullptr);
    });
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return audioDone.load(); }));
    audio.join();
    e.encoder.stopEncoding();
    e.encoder.finishStream();
    Testing::runPendingMainLoopJobs();
    EXPECT_EQ(e.stream(), libFlacStream(left, right));
}

TEST(FlacEncoderTest, OverrunIsCountedAndReportedOnTheMainLoopAndUnencodableRatesRefused)
{
    Testing::LogCapture log;
    // One period larger than the queue: whatever the encoder thread takes, the surplus cannot fit.
    Encoding e(std::make_shared<FlacEncoder>("small", 1000));
    e.encoder.startEncoding();
    e.harness.process({noise(1280, 1), noise(1280, 2)});
    uint32_t const dropped = e.encoder.getDroppedPairs();
    EXPECT_GE(dropped, 280u);
    std::string const report = "4 FlacEncoder small dropped " + std::to_string(dropped) +
                               " stereo frames because its worker thread fell behind";
    EXPECT_EQ(log.count(report), 0) << "reported from the main loop, not the audio thread";
    EXPECT_TRUE(Testing::runMainLoopUntil([&] { return log.count(report) == 1; }));

    FlacEncoder encoder("enc");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>(
                  [&] { encoder.setParameters(Parameters{}, 2000000); }),
              "FlacEncoder enc: cannot encode at 2000000 Hz (libFLAC init status 6)");
    encoder.startEncoding();
    EXPECT_FALSE(encoder.isEncoding());
}

TEST(DumpSamplesTest, WritesWhatPassedSinceTheLastParametersAndRefusesOrCountsWhatItCannotWrite)
{
    Testing::TemporaryDirectory scratch;
    Parameters const parameters{{"directory", scratch.path()}};
    auto const bytes = [](std::vector<tSample> const& samples) {
        return std::string(reinterpret_cast<char const*>(samples.data()), samples.size() * 4);
    };
    int64_t const fullRange = int64_t(1) << 31;
    for (bool inPlace : {true, false}) {
        std::vector<tSample> const input = noise(3 * 4096 + 77, inPlace ? 1 : 2, fullRange);
        std::vector<tSample> output;
        {
            ModuleHarness harness(std::make_shared<DumpSamples>("d"), inPlace);
            harness.module().setParameters(parameters, 48000);
            harness.processInPeriods({noise(2000, 9, fullRange)}, 1280);
            harness.module().setParameters(parameters, 48000);
            output = harness.processInPeriods({input}, 1280)[0];
        }
        EXPECT_EQ(output, input) << inPlace;
        EXPECT_TRUE(scratch.read("d.raw") == bytes(input)) << inPlace;
    }

    DumpSamples dump("d");
    EXPECT_EQ(
        Testing::thrownMessage<IllegalArgumentException>([&] { dump.setParameters(Parameters{}, 48000); }),
        "DumpSamples d: parameter \"directory\" is missing");
    std::string const none = scratch.path("none");
    EXPECT_EQ(Testing::thrownMessage<IllegalArgumentException>([&] {
                  dump.setParameters(Parameters{{"directory", none}}, 48000);
              }),
              "DumpSamples d: cannot open " + none + "/d.raw for writing");
    EXPECT_THROW(DumpSamples("a/b").setParameters(parameters, 48000), IllegalArgumentException);
    Testing::LogCapture log;
    uint32_t dropped = 0;
    {
        // One period larger than the ring: whatever the worker manages, the surplus cannot fit.
        ModuleHarness harness(std::make_shared<DumpSamples>("e", 1000));
        harness.module().setParameters(parameters, 48000);
        harness.process({noise(1280, 0, fullRange)});
        dropped = static_cast<DumpSamples&>(harness.module()).getDroppedSamples();
        EXPECT_GE(dropped, 280u);
        std::string const report = "4 DumpSamples e dropped " + std::to_string(dropped) +
                                   " samples because its worker thread fell behind";
        EXPECT_TRUE(Testing::runMainLoopUntil([&] { return log.count(report) == 1; }));
    }
    EXPECT_EQ(scratch.read("e.raw").size() + 4 * dropped, 4 * 1280u);
}

TEST(RingBufferTest, WrapsAroundReadsByAbsolutePositionAndRefusesMoreThanItsCapacity)
{
    RingBuffer<int> ring(8);
    std::vector<int> const values{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(ring.write(values.data(), 5), values.data() + 5);
    EXPECT_EQ(ring.write(values.data() + 5, 5), values.data() + 10);
    EXPECT_EQ(ring.getNumWritten(), 10u);
    // Positions 8 and 9 went to slots 0 and 1, over positions 0 and 1.
    EXPECT_EQ((std::vector<int>{ring.at(0), ring.at(1), ring.at(7)}), (std::vector<int>{8, 9, 7}));
    std::vector<int> out(8, -1);
    EXPECT_EQ(ring.read(out.data(), 8, 2), 8u);
    EXPECT_EQ(out, std::vector<int>(values.begin() + 2, values.end()));
    EXPECT_EQ(ring.read(out.data(), 8, 7), 3u);
    EXPECT_EQ(out[2], 9);
    for (auto const& [n, from] : {std::pair{8u, 10ull}, {8u, 11ull}, {0u, 2ull}})
        EXPECT_EQ(ring.read(out.data(), n, from), 0u) << n << " from " << from;
    EXPECT_EQ(DETAIL::StandardModulo::slot((1ull << 32) + 3, 10), 3u) << "only the low word takes part";

    EXPECT_EQ(Testing::thrownMessage<std::invalid_argument>([&] { ring.write(values.data(), 9); }),
              "too many elements delivered or buffer too small");
    EXPECT_EQ(ring.getNumWritten(), 10u) << "a refused write changes nothing";
    EXPECT_THROW(RingBuffer<int>().write(values.data(), 1), std::invalid_argument);
    EXPECT_EQ(ring.write(values.data() + 2, 8), values.data() + 10) << "a write may fill every slot";
    ring.reset();
    EXPECT_EQ(ring.read(out.data(), 4, 0), 0u) << "reset forgets what was written";
    EXPECT_EQ(ring.at(2), 2) << "but leaves the slots as they are";
}

// Also meant to run under ThreadSanitizer: the counters are the only synchronisation. The capacity is
// not a power of two, so the slot arithmetic wraps at odd places.
TEST(RingBufferTest, OneWriterOneReaderHandsOverMillionsInOrderNeverOverwritingUnreadElements)
{
    constexpr uint32_t total = 4000000;
    OneWriterOneReaderRingBuffer<uint32_t> ring(1000);
    std::thread writer([&] {
        std::vector<uint32_t> chunk(97);
        for (uint32_t next = 0, size = 1; next < total; size = size % 97 + 1) {
            unsigned int const n = std::min(total - next, size);
            std::iota(chunk.begin(), chunk.begin() + n, next);
            unsigned int const pushed = ring.push(chunk.data(), n);
            next += pushed;
            if (pushed == 0)
                std::this_thread::yield();
        }
    });

    std::vector<uint32_t> out(89);
    uint32_t expected = 0, mismatches = 0;
    for (unsigned int size = 1; expected < total; size = size % 89 + 1) {
        unsigned int const got = ring.pop(out.data(), size);
        for (unsigned int i = 0; i < got; ++i)
            mismatches += out[i] != expected++;
        if (got == 0)
            std::this_thread::yield();
    }
    writer.join();
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(ring.getNumWritten(), total);
    EXPECT_EQ(ring.getNumReadable(), 0u);
}
