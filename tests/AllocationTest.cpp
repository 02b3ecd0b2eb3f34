#include "dsp/Chain.h"
#include "dsp/DumpSamples.h"
#include "dsp/FlacEncoder.h"
#include "dsp/InputStage.h"
#include "dsp/OutputStage.h"
#include "support/MemoryAlsaBuffers.h"
#include "support/ModuleHarness.h"

#include <atomic>
#include <glib/gstdio.h>
#include <gtest/gtest.h>

// Every heap allocation, C and C++ alike, passes through these; only the thread that asked is counted,
// since GLib's own worker threads may allocate at any time.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}

namespace {
thread_local bool g_counting = false;
std::atomic<int> g_heapCalls{0};

void countIfWatching()
{
    if (g_counting)
        g_heapCalls.fetch_add(1, std::memory_order_relaxed);
}
} // namespace

extern "C" {
void* malloc(size_t size)
{
    countIfWatching();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    countIfWatching();
    return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size)
{
    countIfWatching();
    return __libc_realloc(pointer, size);
}
void free(void* pointer)
{
    if (pointer)
        countIfWatching();
    __libc_free(pointer);
}
}

using namespace Zelmar;

TEST(ChainTest, ProcessingACompiledChainNeverTouchesTheHeap)
{
    Chain chain(48000, PROJECT_SOURCE_DIR "/configs/default.xml");
    chain.enableMeters(true);
    Testing::MemoryAlsaBuffers capture(2), playback(2);
    for (auto const& module : chain.getModules()) {
        if (auto input = std::dynamic_pointer_cast<InputStage>(module))
            input->setInput(&capture);
        if (auto output = std::dynamic_pointer_cast<OutputStage>(module))
            output->setOutput(&playback);
    }
    auto output = std::dynamic_pointer_cast<OutputStage>(chain.findModule("out"));

    g_counting = true;
    auto probe = std::make_shared<AudioBuffer>(64);
    probe.reset();
    g_counting = false;
    ASSERT_GE(g_heapCalls.exchange(0), 2) << "the counter must see an allocation and its free";

    g_counting = true;
    for (unsigned int period = 0; period < 200; ++period) {
        unsigned int const frames = 64 + (period * 97) % 1217;
        capture.getChannel(0).m_numFrames = frames;
        capture.getChannel(1).m_numFrames = frames;
        if (period == 50)
            output->setMute(false);
        if (period == 120)
            output->setMute(true);
        chain.process();
    }
    g_counting = false;
    EXPECT_EQ(g_heapCalls.load(), 0);
}

TEST(FlacEncoderTest, QueueingForTheWorkerThreadsNeverTouchesTheHeap)
{
    char* directory = g_dir_make_tmp("allocation-XXXXXX", nullptr);
    {
        auto encoder = std::make_shared<FlacEncoder>("enc");
        auto dump = std::make_shared<DumpSamples>("dump");
        Testing::ModuleHarness encoding(encoder), dumping(dump, true);
        encoder->setParameters(Parameters{}, 48000);
        dump->setParameters(Parameters{{"directory", directory}}, 48000);
        encoder->startEncoding();
        std::vector<tSample> const quiet(1280, tSample(0.01));
        encoding.setInput(0, quiet);
        encoding.setInput(1, quiet);
        dumping.setInput(0, quiet);

        g_heapCalls.store(0);
        g_counting = true;
        for (unsigned int period = 0; period < 200; ++period) {
            encoder->process();
            dump->process();
        }
        g_counting = false;
        EXPECT_EQ(g_heapCalls.load(), 0);
        encoder->stopEncoding();
    }
    g_remove((std::string(directory) + "/dump.raw").c_str());
    g_rmdir(directory);
    g_free(directory);
}
