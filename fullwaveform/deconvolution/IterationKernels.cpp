#include <fullwaveform/deconvolution/IterationKernels.h>

#include <algorithm>
#include <cstddef>

namespace FullWaveform::IterationKernels {
namespace {

#define FULLWAVEFORM_KERNEL [[gnu::always_inline]] static inline

#if defined(__x86_64__)
template <class Kernel, class... Arguments>
[[gnu::target("avx2")]] auto runOnAvx2(Arguments... arguments) {
  return Kernel::run(arguments...);
}

template <class Kernel, class... Arguments>
[[gnu::target("avx512f,avx512dq,avx512vl")]] auto runOnAvx512(Arguments... arguments) {
  return Kernel::run(arguments...);
}
#endif

/// Runs a kernel in the form that the compiler made of it for an instruction set, or for the widest one that
/// there is a form for.
template <class Kernel, InstructionSet Widest = InstructionSet::Avx512, class... Arguments>
auto runOn([[maybe_unused]] InstructionSet set, Arguments... arguments) {
#if defined(__x86_64__)
  if constexpr (Widest == InstructionSet::Avx512) {
    if (set == InstructionSet::Avx512) {
      return runOnAvx512<Kernel>(arguments...);
    }
  }
  if (set != InstructionSet::Baseline) {
    return runOnAvx2<Kernel>(arguments...);
  }
#endif
  return Kernel::run(arguments...);
}

/// As many results side by side as the widest vector has places: in the same order on every machine.
constexpr std::size_t laneCount = 8;

struct Largest {
  FULLWAVEFORM_KERNEL double run(double const* values, std::size_t count) {
    double lanes[laneCount] = {};
    std::size_t const whole = count / laneCount * laneCount;
    for (std::size_t i = 0; i < whole; i += laneCount) {
      for (std::size_t lane = 0; lane < laneCount; ++lane) {
        lanes[lane] = values[i + lane] > lanes[lane] ? values[i + lane] : lanes[lane];
      }
    }
    for (std::size_t i = whole; i < count; ++i) {
      lanes[0] = values[i] > lanes[0] ? values[i] : lanes[0];
    }
    return *std::max_element(lanes, lanes + laneCount);
  }
};

struct SubtractNoise {
  FULLWAVEFORM_KERNEL void run(double* values, double noise, double unit, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      double const above = values[i] - noise;
      values[i] = (above > 0.0 ? above : 0.0) / unit;
    }
  }
};

struct Multiply {
  FULLWAVEFORM_KERNEL void run(double (*__restrict spectrum)[2], double const (*__restrict kernel)[2],
                               std::size_t count) {
    for (std::size_t k = 0; k < count; ++k) {
      double const real = spectrum[k][0];
      double const imaginary = spectrum[k][1];
      spectrum[k][0] = real * kernel[k][0] - imaginary * kernel[k][1];
      spectrum[k][1] = real * kernel[k][1] + imaginary * kernel[k][0];
    }
  }
};

struct Divide {
  FULLWAVEFORM_KERNEL void run(double const* __restrict observed, double const* __restrict blurred,
                               double scale, double* __restrict ratios, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      double const divisor = blurred[i] * scale;
      ratios[i] = divisor == 0.0 ? 0.0 : observed[i] / divisor;
    }
  }
};

struct Correct {
  FULLWAVEFORM_KERNEL double run(double* __restrict estimate, double const* __restrict factors, double scale,
                                 double* __restrict copy, std::size_t count) {
    double sums[laneCount] = {};
    std::size_t const whole = count / laneCount * laneCount;
    for (std::size_t i = 0; i < whole; i += laneCount) {
      for (std::size_t lane = 0; lane < laneCount; ++lane) {
        double const factor = factors[i + lane] * scale;
        sums[lane] += factor;
        estimate[i + lane] *= factor;
        copy[i + lane] = estimate[i + lane];
      }
    }
    for (std::size_t i = whole; i < count; ++i) {
      double const factor = factors[i] * scale;
      sums[i - whole] += factor;
      estimate[i] *= factor;
      copy[i] = estimate[i];
    }
    return ((sums[0] + sums[4]) + (sums[2] + sums[6])) + ((sums[1] + sums[5]) + (sums[3] + sums[7]));
  }
};

struct ToCounts {
  FULLWAVEFORM_KERNEL void run(double const* __restrict values, double range, double largest, double noise,
                               std::uint16_t* __restrict counts, std::size_t count) {
    constexpr double beyond = 2147483648.0;
    for (std::size_t i = 0; i < count; ++i) {
      double const value = values[i] * range / largest + noise;
      bool const fits = value > -beyond - 1.0 && value < beyond;
      counts[i] = static_cast<std::uint16_t>(static_cast<std::int32_t>(fits ? value : 0.0));
    }
  }
};

}  // namespace

double largest(InstructionSet set, std::span<double const> values) {
  return runOn<Largest>(set, values.data(), values.size());
}

void subtractNoise(InstructionSet set, std::span<double> values, double noise, double unit) {
  runOn<SubtractNoise>(set, values.data(), noise, unit, values.size());
}

void multiply(InstructionSet set, std::span<double[2]> spectrum, double const (*kernel)[2]) {
  // GCC 12 fuses these products and sums where it has an instruction that alternates signs, against the flag
  // that forbids it: no form for AVX-512, then.
  runOn<Multiply, InstructionSet::Avx2>(set, spectrum.data(), kernel, spectrum.size());
}

void divide(InstructionSet set, std::span<double const> observed, double const* blurred, double scale,
            double* ratios) {
  runOn<Divide>(set, observed.data(), blurred, scale, ratios, observed.size());
}

double correct(InstructionSet set, std::span<double> estimate, double const* factors, double scale,
               double* copy) {
  return runOn<Correct>(set, estimate.data(), factors, scale, copy, estimate.size());
}

void toCounts(InstructionSet set, std::span<double const> values, double range, double largest, double noise,
              std::uint16_t* counts) {
  runOn<ToCounts>(set, values.data(), range, largest, noise, counts, values.size());
}

}  // namespace FullWaveform::IterationKernels
