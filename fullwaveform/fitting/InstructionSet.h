#pragma once

#include <cstdint>

namespace FullWaveform {

/// Vector instructions that kernels are compiled for. All give the same digits.
enum class InstructionSet : std::uint8_t {
  Baseline = 0,  ///< what every processor of the architecture has (x86-64: SSE2)
  Avx2 = 1
};

/// Whether this machine has an instruction set.
bool isAvailable(InstructionSet set) noexcept;

/// The widest one that this machine has.
InstructionSet widestInstructionSet() noexcept;

}  // namespace FullWaveform
