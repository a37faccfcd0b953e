#pragma once

#include <cstdint>
#include <span>

/// Copies runs of bytes of equal length.
///
/// @param source  where the runs are, in any order, also overlapping
/// @param starts  first byte of each in `source`
/// @param rows  where each goes: number of a row of `target`
/// @param target  rows of `width` bytes, one after the other
/// @throws std::out_of_range if a run or a row is not completely inside, before anything is written there;
///         std::invalid_argument for different numbers of starts and rows
void copyRows(std::span<std::uint8_t const> source, std::span<std::int64_t const> starts,
              std::span<std::int64_t const> rows, std::size_t width, std::span<std::uint8_t> target);
