#include <fullwaveform/driver/ShotGroups.h>

namespace FullWaveform {
namespace {

std::uint32_t signatureOf(std::span<unsigned short const> samples) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < samples.size(); i += 3) {
    sum += samples[i];
  }
  return sum;
}

}  // namespace

Shot& shotAt(double time, ShotMap& shots) {
  // Tries the last shot first: rows mostly arrive in the order of their shots.
  if (!shots.empty() && shots.rbegin()->first == time) {
    return shots.rbegin()->second;
  }
  return shots.try_emplace(shots.end(), time)->second;
}

bool enterSignature(Shot& shot, std::span<unsigned short const> samples) {
  return shot.signatures.insert(signatureOf(samples)).second;
}

}  // namespace FullWaveform
