#include <native/pulsewaves/SampleLanes.h>

#include <algorithm>
#include <limits>
#include <vector>

#include <native/pulsewaves/LaneModels.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace PulseWaves {

namespace {

constexpr std::size_t lanes = SampleLanes::lanes;
constexpr std::size_t classes = PlaceModels::classes;

/// Neither symbol of a sample, the class and the place in it, takes more than 2 bytes: the shortest interval
/// is 2^9 long.
constexpr std::size_t bytesPerSample = 4;

/// Eight lanes take about the time of three streams by themselves.
constexpr std::size_t worthwhileStreams = 3;

using ClassModel = SymbolModel<classes>;
using ClassSchedule = UpdateSchedule<ClassModel, classes>;

template <std::size_t... k>
constexpr PlaceModels freshPlaces(std::index_sequence<k...>) {
  PlaceModels fresh{};
  fresh.counts.fill(1);
  fresh.limits[1] = std::uint16_t{1} << (BitModel::probabilityBits - 1);
  fresh.left = {BitModel::firstCycle, SymbolModel<std::size_t{2} << k>::firstCycle...};
  auto const fill = [&]<std::size_t size>(std::integral_constant<std::size_t, size>) {
    for (std::size_t place = 0; place < size; ++place) {
      fresh.limits[size + place] = SymbolModel<size>::startLimit(place);
    }
  };
  (fill(std::integral_constant<std::size_t, std::size_t{2} << k>()), ...);
  return fresh;
}

template <std::size_t... k>
constexpr std::array<ModelUpdate const*, classes> placeSchedules(std::index_sequence<k...>) {
  return {
      UpdateSchedule<BitModel, 2>::updates.data(),
      UpdateSchedule<SymbolModel<std::size_t{2} << k>, std::size_t{2} << k>::updates.data()...,
  };
}

constexpr PlaceModels fresh = freshPlaces(std::make_index_sequence<classes - 1>());
constexpr std::array<ModelUpdate const*, classes> schedules =
    placeSchedules(std::make_index_sequence<classes - 1>());

void reset(PlaceModels& models) {
  constexpr std::size_t usual = 5;  // classes from here on are rare
  constexpr std::size_t usualEntries = PlaceModels::firstEntry(usual);
  std::copy_n(fresh.limits.begin(), usualEntries, models.limits.begin());
  std::copy_n(fresh.counts.begin(), usualEntries, models.counts.begin());
  for (std::size_t k = usual; k < classes; ++k) {
    if (models.updates[k] != 0 || models.left[k] != fresh.left[k]) {
      auto const first = static_cast<std::ptrdiff_t>(PlaceModels::firstEntry(k));
      std::copy_n(fresh.limits.begin() + first, PlaceModels::entriesOf(k), models.limits.begin() + first);
      std::copy_n(fresh.counts.begin() + first, PlaceModels::entriesOf(k), models.counts.begin() + first);
    }
  }
  models.left = fresh.left;
  models.updates = fresh.updates;
}

}  // namespace

static_assert(SampleLanes::maxSamples == maxLaneSymbols);

/// The state of all lanes. Arrays of `lanes` numbers are vectors.
struct LaneStates {
  alignas(64) std::array<PlaceModels, lanes> places;
  alignas(32) std::uint32_t classLimits[classes][lanes] = {};
  alignas(32) std::uint32_t classCounts[classes][lanes] = {};  // of the classes before
  alignas(32) std::uint32_t value[lanes] = {};
  alignas(32) std::uint32_t length[lanes] = {};
  alignas(32) std::uint32_t position[lanes] = {};  // next byte of the stream
  alignas(32) std::uint32_t last[lanes] = {};      // sample
  std::uint32_t classLeft = 0;                     // samples until the next update, the same for all lanes
  std::size_t classUpdates = 0;
  std::vector<std::array<std::uint16_t, lanes>> samples;

  LaneStates() { places.fill(fresh); }

  void start() {
    std::for_each(places.begin(), places.end(), reset);
    for (std::size_t k = 0; k < classes; ++k) {
      std::fill_n(classLimits[k], lanes, ClassModel::startLimit(k));
      std::fill_n(classCounts[k], lanes, static_cast<std::uint32_t>(k));
    }
    classLeft = ClassModel::firstCycle;
    classUpdates = 0;
    std::fill_n(last, lanes, 0);
  }

  void set(std::size_t lane, RangeDecoder const& stream, std::span<std::uint8_t const> bytes) {
    value[lane] = stream.value;
    length[lane] = stream.length;
    position[lane] = static_cast<std::uint32_t>(stream.position() - bytes.data());
  }

  void finish(std::size_t lane, LaneSegment const& segment, std::span<std::uint8_t const> bytes) const {
    for (std::size_t i = 0; i < segment.samples.size(); ++i) {
      segment.samples[i] = samples[i][lane];
    }
    auto const before = static_cast<std::size_t>(segment.stream->position() - bytes.data());
    segment.stream->resume(value[lane], length[lane], position[lane] - before);
  }
};

#if defined(__x86_64__)
#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

namespace {

#define FULLWAVEFORM_INLINE [[gnu::always_inline]] inline

using Vector [[gnu::vector_size(32)]] = std::uint32_t;

FULLWAVEFORM_INLINE Vector load(std::uint32_t const* values) {
  return reinterpret_cast<Vector>(_mm256_load_si256(reinterpret_cast<__m256i const*>(values)));
}

FULLWAVEFORM_INLINE void store(std::uint32_t* values, Vector vector) {
  _mm256_store_si256(reinterpret_cast<__m256i*>(values), reinterpret_cast<__m256i>(vector));
}

FULLWAVEFORM_INLINE Vector all(std::uint32_t x) {
  return Vector{x, x, x, x, x, x, x, x};
}

FULLWAVEFORM_INLINE Vector minimum(Vector a, Vector b) {
  return reinterpret_cast<Vector>(
      _mm256_min_epu32(reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b)));
}

FULLWAVEFORM_INLINE Vector maximum(Vector a, Vector b) {
  return reinterpret_cast<Vector>(
      _mm256_max_epu32(reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b)));
}

/// All bits of the lanes in which a <= b.
FULLWAVEFORM_INLINE Vector notAbove(Vector a, Vector b) {
  return reinterpret_cast<Vector>(maximum(a, b) == b);
}

// Shifts by 32 give 0.
FULLWAVEFORM_INLINE Vector shiftedLeft(Vector x, Vector bits) {
  return reinterpret_cast<Vector>(
      _mm256_sllv_epi32(reinterpret_cast<__m256i>(x), reinterpret_cast<__m256i>(bits)));
}

FULLWAVEFORM_INLINE Vector shiftedRight(Vector x, Vector bits) {
  return reinterpret_cast<Vector>(
      _mm256_srlv_epi32(reinterpret_cast<__m256i>(x), reinterpret_cast<__m256i>(bits)));
}

/// Entries of a table of 16-bit numbers.
FULLWAVEFORM_INLINE Vector entries(std::uint16_t const* table, Vector index) {
  __m256i const pairs =
      _mm256_i32gather_epi32(reinterpret_cast<int const*>(table), reinterpret_cast<__m256i>(index), 2);
  return reinterpret_cast<Vector>(pairs) & 0xFFFFU;
}

/// The four bytes from each position on, the first one as the highest.
FULLWAVEFORM_INLINE Vector nextBytes(std::uint8_t const* bytes, Vector position) {
  __m256i const order = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12,  //
                                         3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
  __m256i const found =
      _mm256_i32gather_epi32(reinterpret_cast<int const*>(bytes), reinterpret_cast<__m256i>(position), 1);
  return reinterpret_cast<Vector>(_mm256_shuffle_epi8(found, order));
}

/// The range coders of all lanes.
struct Coders {
  Vector value;
  Vector length;
  Vector position;
  Vector window;  // bytes from `position` on, enough for the symbols of a sample

  /// Continues with the part of the interval that starts at `low` and ends before `high`.
  FULLWAVEFORM_INLINE void narrow(Vector low, Vector high) {
    value -= low;
    length = high - low;
    Vector const bits = (notAbove(length, all(0xFFFFFF)) & 8U) + (notAbove(length, all(0xFFFF)) & 8U);
    length = shiftedLeft(length, bits);
    value = shiftedLeft(value, bits) | shiftedRight(window, 32U - bits);
    window = shiftedLeft(window, bits);
    position += bits >> 3U;
  }
};

/// Cumulated probabilities of a model after an update.
///
/// Eight places at a time: of a class with fewer, the entries of the next classes are kept.
FULLWAVEFORM_INLINE void update(PlaceModels& models, std::size_t k) {
  alignas(16) static constexpr std::uint16_t ofClass[4][8] = {
      {0xFFFF, 0xFFFF},
      {0xFFFF, 0xFFFF},
      {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF},
      {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}};
  ModelUpdate const made = schedules[k][models.updates[k]++];
  models.left[k] = static_cast<std::uint16_t>(made.cycle);
  std::size_t const first = PlaceModels::firstEntry(k);
  std::size_t const end = first + PlaceModels::entriesOf(k);
  __m128i const shift = _mm_cvtsi32_si128(31 - static_cast<int>(k == 0 ? BitModel::probabilityBits : 15));
  __m256i const scale = _mm256_set1_epi32(static_cast<int>(made.scale));
  __m128i const mask = _mm_load_si128(reinterpret_cast<__m128i const*>(ofClass[std::min<std::size_t>(k, 3)]));
  std::uint32_t before = 0;
  for (std::size_t entry = first; entry < end; entry += 8) {
    __m128i* const limits = reinterpret_cast<__m128i*>(&models.limits[entry]);
    __m128i const counts = _mm_loadu_si128(reinterpret_cast<__m128i const*>(&models.counts[entry]));
    __m128i sums = _mm_add_epi16(counts, _mm_slli_si128(counts, 2));
    sums = _mm_add_epi16(sums, _mm_slli_si128(sums, 4));
    sums = _mm_add_epi16(sums, _mm_slli_si128(sums, 8));
    sums = _mm_add_epi16(sums, _mm_set1_epi16(static_cast<short>(before)));
    before = static_cast<std::uint16_t>(_mm_extract_epi16(sums, 7));
    sums = _mm_sub_epi16(sums, counts);
    __m256i const wide = _mm256_srl_epi32(_mm256_mullo_epi32(_mm256_cvtepu16_epi32(sums), scale), shift);
    __m128i const found = _mm_packus_epi32(_mm256_castsi256_si128(wide), _mm256_extracti128_si256(wide, 1));
    _mm_storeu_si128(limits, _mm_blendv_epi8(_mm_loadu_si128(limits), found, mask));
  }
}

/// The classes of the next difference in all lanes.
FULLWAVEFORM_INLINE Vector decodeClasses(LaneStates& states, Coders& coders) {
  Vector const unit = coders.length >> ClassModel::probabilityBits;
  Vector found = all(0);
  Vector low = all(0);
  Vector high = coders.length;
  for (std::size_t k = 1; k < classes; ++k) {
    Vector const limit = load(states.classLimits[k]) * unit;
    Vector const passed = notAbove(limit, coders.value);
    found -= passed;
    low = maximum(low, limit & passed);
    high = minimum(high, limit | passed);
    store(states.classCounts[k], load(states.classCounts[k]) + passed + 1U);
  }
  coders.narrow(low, high);
  if (--states.classLeft == 0) {
    ModelUpdate const made = ClassSchedule::updates[states.classUpdates++];
    states.classLeft = made.cycle;
    for (std::size_t k = 1; k < classes; ++k) {
      store(states.classLimits[k], load(states.classCounts[k]) * made.scale >> 16U);
    }
  }
  return found;
}

/// Differences of the classes `k` in all lanes.
FULLWAVEFORM_INLINE Vector decodePlaces(LaneStates& states, Coders& coders, Vector k) {
  Vector const isBit = reinterpret_cast<Vector>(k == 0U);
  Vector const size = shiftedLeft(all(1), k);
  Vector const half = maximum(size >> 1U, all(1));
  // The places of class 0 are also found by one step.
  Vector const first = size & ~isBit;
  Vector const unit =
      shiftedRight(coders.length, ClassModel::probabilityBits -
                                      (isBit & (ClassModel::probabilityBits - BitModel::probabilityBits)));
  constexpr std::uint32_t lane = sizeof(PlaceModels) / sizeof(std::uint16_t);
  Vector const start = first + Vector{0, lane, 2 * lane, 3 * lane, 4 * lane, 5 * lane, 6 * lane, 7 * lane};
  std::uint16_t const* const table = states.places[0].limits.data();
  Vector entry = start;
  Vector low = all(0);
  Vector high = coders.length;
  // Bisection; in lanes whose class has fewer steps, the entry is compared again.
  Vector step = half;
  do {
    Vector const limit = entries(table, entry + step) * unit;
    Vector const passed = notAbove(limit, coders.value);
    low = maximum(low, limit & passed);
    high = minimum(high, limit | passed);
    entry += step & passed;
    step >>= 1U;
  } while (_mm256_testz_si256(reinterpret_cast<__m256i>(step), reinterpret_cast<__m256i>(step)) == 0);
  coders.narrow(low, high);

  Vector const place = entry - start;
  alignas(32) std::uint32_t used[lanes];
  alignas(32) std::uint32_t ofClass[lanes];
  store(used, first + place);
  store(ofClass, k);
  for (std::size_t i = 0; i < lanes; ++i) {
    PlaceModels& models = states.places[i];
    ++models.counts[used[i]];
    if (--models.left[ofClass[i]] == 0) [[unlikely]] {
      update(models, ofClass[i]);
    }
  }
  Vector const upper = notAbove(half, place);
  return place + ((1U - ((half << 1U) & ~upper)) & ~isBit);
}

/// Decodes the samples `from` to `until` of all lanes.
void decodeSamples(LaneStates& states, std::uint8_t const* bytes, std::size_t from, std::size_t until) {
  Coders coders{load(states.value), load(states.length), load(states.position), all(0)};
  Vector last = load(states.last);
  for (std::size_t i = from; i < until; ++i) {
    coders.window = nextBytes(bytes, coders.position);
    Vector const k = decodeClasses(states, coders);
    last = (last + decodePlaces(states, coders, k)) & 0xFFU;
    __m256i const packed =
        _mm256_packus_epi32(reinterpret_cast<__m256i>(last), reinterpret_cast<__m256i>(last));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(states.samples[i].data()),
                     _mm256_castsi256_si128(_mm256_permute4x64_epi64(packed, 0x08)));
  }
  store(states.value, coders.value);
  store(states.length, coders.length);
  store(states.position, coders.position);
  store(states.last, last);
}

#undef FULLWAVEFORM_INLINE

}  // namespace

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

bool SampleLanes::areAvailable() {
  return __builtin_cpu_supports("avx2") != 0;
}

#else

namespace {

void decodeSamples(LaneStates&, std::uint8_t const*, std::size_t, std::size_t) {}

}  // namespace

bool SampleLanes::areAvailable() {
  return false;
}

#endif

SampleLanes::SampleLanes() : states(std::make_unique<LaneStates>()) {}
SampleLanes::~SampleLanes() = default;

bool SampleLanes::suit(std::span<LaneSegment const> segments, std::span<std::uint8_t const> bytes) {
  std::size_t longest = 0;
  std::size_t total = 0;
  for (LaneSegment const& segment : segments) {
    longest = std::max(longest, segment.samples.size());
    total += segment.samples.size();
  }
  bool const worthwhile = total > worthwhileStreams * longest;
  return worthwhile && segments.size() <= lanes && longest <= maxSamples &&
         bytes.size() <= std::numeric_limits<std::int32_t>::max() &&
         std::all_of(segments.begin(), segments.end(), [&](LaneSegment const& segment) {
           auto const left =
               static_cast<std::size_t>(bytes.data() + bytes.size() - segment.stream->position());
           return bytesPerSample * longest <= left;
         });
}

void SampleLanes::decode(std::span<LaneSegment const> segments, std::span<std::uint8_t const> bytes) {
  states->start();
  for (std::size_t lane = 0; lane < lanes; ++lane) {
    // Lanes without a segment repeat the first one.
    states->set(lane, *segments[lane < segments.size() ? lane : 0].stream, bytes);
  }
  std::size_t longest = 0;
  for (LaneSegment const& segment : segments) {
    longest = std::max(longest, segment.samples.size());
  }
  states->samples.resize(std::max(longest, states->samples.size()));
  for (std::size_t done = 0; done < longest;) {
    std::size_t next = longest;  // where a lane ends
    for (LaneSegment const& segment : segments) {
      next = segment.samples.size() > done ? std::min(next, segment.samples.size()) : next;
    }
    decodeSamples(*states, bytes.data(), done, next);
    for (std::size_t lane = 0; lane < segments.size(); ++lane) {
      if (segments[lane].samples.size() == next) {
        states->finish(lane, segments[lane], bytes);
      }
    }
    done = next;
  }
}

}  // namespace PulseWaves
