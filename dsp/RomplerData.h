#pragma once

#include "base/String.h"
#include "dsp/Export.h"

#include <FLAC/stream_decoder.h>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace Zelmar {

// One system sound decoded into memory. Decoding runs on a thread of its own, started by the
// constructor; the samples may be read only after isLoaded() has returned true.
// Sound files are 16-bit stereo and always taken as 44100 Hz, whatever their header says.
//
// Relative file names are read from the "sounds" folder of the data directory the library was
// installed with (/usr/share/orvandel-1.0 for the prefix /usr). Hosts and tests point elsewhere with
// setSoundsDirectory(), naming the folder that holds the files themselves; the environment plays no
// part, so a stray variable in a player's environment cannot redirect its sounds.
class ORVANDELDSP_EXPORT RomplerData
{
public:
    // Playback steps have 10 fraction bits; 44100 Hz content advances 44100 x 1024 per second.
    static constexpr unsigned int c_stepFractionBits = 10;
    static constexpr uint32_t c_stepsPerSecond = 44100u << c_stepFractionBits;

    RomplerData(unsigned int sampleRate, Tools::String const& file);
    ~RomplerData();

    RomplerData(RomplerData const&) = delete;
    RomplerData& operator=(RomplerData const&) = delete;

    bool isLoaded() const;
    // Interleaved left, right; complete only once isLoaded() is true.
    std::vector<int16_t> const& getSamples() const { return m_samples; }
    uint32_t getStep() const { return m_step; }

    static Tools::String getAbsolutePath(Tools::String const& file);
    // An empty directory returns to the built-in default.
    static void setSoundsDirectory(Tools::String const& directory);

    static FLAC__StreamDecoderWriteStatus writeCallback(FLAC__StreamDecoder const* decoder,
                                                        FLAC__Frame const* frame,
                                                        FLAC__int32 const* const* buffer, RomplerData* self);
    static void metadataCallback(FLAC__StreamDecoder const* decoder, FLAC__StreamMetadata const* metadata,
                                 RomplerData* self);
    static void errorCallback(FLAC__StreamDecoder const* decoder, FLAC__StreamDecoderErrorStatus status,
                              RomplerData* self);

private:
    void load();

    std::vector<int16_t> m_samples;
    uint32_t m_sampleRate;
    uint32_t m_step;
    Tools::String m_file;
    std::thread m_loader;
    std::atomic<bool> m_loaded{false};
};

} // namespace Zelmar
