#include "sounds/FlacWriter.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_encoder.h>

namespace Zelmar {
namespace SoundGeneration {

bool writeFlacFile(std::string const& path, std::vector<int16_t> const& interleavedStereo,
                   unsigned int sampleRate, std::string const& comment, std::string& error)
{
    FLAC__StreamEncoder* encoder = FLAC__stream_encoder_new();
    if (!encoder) {
        error = "cannot create a FLAC encoder";
        return false;
    }
    FLAC__StreamMetadata* tags = nullptr;
    unsigned int const frames = static_cast<unsigned int>(interleavedStereo.size() / 2);
    bool ok = FLAC__stream_encoder_set_channels(encoder, 2) &&
              FLAC__stream_encoder_set_bits_per_sample(encoder, 16) &&
              FLAC__stream_encoder_set_sample_rate(encoder, sampleRate) &&
              FLAC__stream_encoder_set_compression_level(encoder, 5) &&
              FLAC__stream_encoder_set_verify(encoder, true) &&
              FLAC__stream_encoder_set_total_samples_estimate(encoder, frames);
    if (ok && !comment.empty()) {
        tags = FLAC__metadata_object_new(FLAC__METADATA_TYPE_VORBIS_COMMENT);
        FLAC__StreamMetadata_VorbisComment_Entry entry;
        ok = tags &&
             FLAC__metadata_object_vorbiscomment_entry_from_name_value_pair(&entry, "DESCRIPTION",
                                                                            comment.c_str()) &&
             FLAC__metadata_object_vorbiscomment_append_comment(tags, entry, false) &&
             FLAC__stream_encoder_set_metadata(encoder, &tags, 1);
    }
    if (!ok) {
        error = "cannot configure the FLAC encoder";
    } else if (FLAC__stream_encoder_init_file(encoder, path.c_str(), nullptr, nullptr) !=
               FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
        error = "cannot open " + path + " for writing";
        ok = false;
    } else {
        std::vector<FLAC__int32> wide(interleavedStereo.begin(), interleavedStereo.end());
        ok = FLAC__stream_encoder_process_interleaved(encoder, wide.data(), frames);
        ok = FLAC__stream_encoder_finish(encoder) && ok;
        if (!ok)
            error = std::string("encoding failed: ") +
                    FLAC__StreamEncoderStateString[FLAC__stream_encoder_get_state(encoder)];
    }
    FLAC__stream_encoder_delete(encoder);
    if (tags)
        FLAC__metadata_object_delete(tags);
    return ok;
}

} // namespace SoundGeneration
} // namespace Zelmar
