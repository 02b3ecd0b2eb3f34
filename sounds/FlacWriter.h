#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Zelmar {
namespace SoundGeneration {

// Encodes interleaved 16-bit stereo samples into a verified FLAC file (libFLAC records the MD5 sum
// in STREAMINFO), with `comment`, when given, as a Vorbis DESCRIPTION. On failure returns false
// with the reason in `error`.
bool writeFlacFile(std::string const& path, std::vector<int16_t> const& interleavedStereo,
                   unsigned int sampleRate, std::string const& comment, std::string& error);

} // namespace SoundGeneration
} // namespace Zelmar
