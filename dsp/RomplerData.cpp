#include "dsp/RomplerData.h"

#include "base/Assert.h"
#include "base/Tracer.h"

#include <glib.h>
#include <mutex>

namespace Zelmar {

namespace {

// Where the library was installed to: /usr/share/orvandel-1.0 for the prefix /usr.
constexpr char const* c_defaultDataDirectory = ORVANDELDSP_DATADIR;

// Loader threads read the override while a test or tool may set it.
std::mutex s_soundsDirectoryMutex;
Tools::String s_soundsDirectory;

Tools::String buildPath(char const* first, char const* second, char const* third)
{
    gchar* path = g_build_filename(first, second, third, nullptr);
    Tools::String result(path);
    g_free(path);
    return result;
}

} // namespace

RomplerData::RomplerData(unsigned int sampleRate, Tools::String const& file)
    : m_sampleRate(sampleRate), m_step(0), m_file(file)
{
    ZELMAR_ASSERT(sampleRate != 0);
    m_step = c_stepsPerSecond / m_sampleRate;
    m_loader = std::thread([this] { load(); });
}

RomplerData::~RomplerData()
{
    if (m_loader.joinable())
        m_loader.join();
}

bool RomplerData::isLoaded() const
{
    std::atomic_thread_fence(std::memory_order_seq_cst);
    bool const loaded = m_loaded.load();
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return loaded;
}

Tools::String RomplerData::getAbsolutePath(Tools::String const& file)
{
    if (g_path_is_absolute(file.c_str()))
        return file;
    {
        std::lock_guard<std::mutex> lock(s_soundsDirectoryMutex);
        if (!s_soundsDirectory.empty())
            return buildPath(s_soundsDirectory.c_str(), file.c_str(), nullptr);
    }
    return buildPath(c_defaultDataDirectory, "sounds", file.c_str());
}

void RomplerData::setSoundsDirectory(Tools::String const& directory)
{
    std::lock_guard<std::mutex> lock(s_soundsDirectoryMutex);
    s_soundsDirectory = directory;
}

void RomplerData::load()
{
    FLAC__StreamDecoder* decoder = FLAC__stream_decoder_new();
    if (!decoder) {
        Tools::trace(Tools::Tracer::Error,
                     "RomplerData::load(): failed to create FLAC__StreamDecoder for file", m_file);
        return;
    }
    FLAC__stream_decoder_set_md5_checking(decoder, true);

    auto const write = [](FLAC__StreamDecoder const* d, FLAC__Frame const* frame,
                          FLAC__int32 const* const buffer[], void* self) {
        return writeCallback(d, frame, buffer, static_cast<RomplerData*>(self));
    };
    auto const metadata = [](FLAC__StreamDecoder const* d, FLAC__StreamMetadata const* data, void* self) {
        metadataCallback(d, data, static_cast<RomplerData*>(self));
    };
    auto const error = [](FLAC__StreamDecoder const* d, FLAC__StreamDecoderErrorStatus status, void* self) {
        errorCallback(d, status, static_cast<RomplerData*>(self));
    };
    Tools::String const path = getAbsolutePath(m_file);
    FLAC__StreamDecoderInitStatus const status =
        FLAC__stream_decoder_init_file(decoder, path.c_str(), write, metadata, error, this);
    if (status != FLAC__STREAM_DECODER_INIT_STATUS_OK) {
        Tools::trace(Tools::Tracer::Error, "RomplerData::load(): could not init file", path,
                     ", failed with status", static_cast<int>(status));
        FLAC__stream_decoder_delete(decoder);
        return;
    }
    // A stream that breaks off half way still counts as loaded, with the frames decoded so far;
    // a wrong MD5 sum is noticed by finish() and likewise accepted.
    FLAC__stream_decoder_process_until_end_of_stream(decoder);
    FLAC__stream_decoder_finish(decoder);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    m_loaded.store(true);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    FLAC__stream_decoder_delete(decoder);
}

FLAC__StreamDecoderWriteStatus RomplerData::writeCallback(FLAC__StreamDecoder const*,
                                                          FLAC__Frame const* frame,
                                                          FLAC__int32 const* const* buffer, RomplerData* self)
{
    unsigned int const frames = frame->header.blocksize;
    // Files must be 16-bit stereo: only the low 16 bits are kept. A mono file, which libFLAC hands
    // over without a second channel, plays its one channel on both sides rather than reading nothing.
    FLAC__int32 const* right = frame->header.channels > 1 ? buffer[1] : buffer[0];
    std::vector<int16_t> block(2 * frames);
    for (unsigned int i = 0; i < frames; ++i) {
        block[2 * i] = static_cast<int16_t>(static_cast<uint16_t>(buffer[0][i]));
        block[2 * i + 1] = static_cast<int16_t>(static_cast<uint16_t>(right[i]));
    }
    self->m_samples.insert(self->m_samples.end(), block.begin(), block.end());
    return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
}

void RomplerData::metadataCallback(FLAC__StreamDecoder const*, FLAC__StreamMetadata const*, RomplerData*) {}

void RomplerData::errorCallback(FLAC__StreamDecoder const*, FLAC__StreamDecoderErrorStatus status,
                                RomplerData*)
{
    Tools::trace(Tools::Tracer::Error,
                 "RomplerData::errorCallback(): got error callback during flac decoding:",
                 FLAC__StreamDecoderErrorStatusString[status]);
}

} // namespace Zelmar
