"""The Gauss1 to Gauss3 sets of the NIST reference data as a C++ header.

Writes `NistGauss.h` from the files beside it: start values, certified parameters with their
standard deviations, certified residual sum of squares and the data, digit by digit.

Run: python3 nist_gauss.py
"""

import re
from pathlib import Path

HERE = Path(__file__).parent

HEAD = """#pragma once

// Made by nist_gauss.py; not edited by hand.

#include <array>

namespace FullWaveform::Testing {

/// y = b1 exp(-b2 x) + b3 exp(-(x - b4)^2 / b5^2) + b6 exp(-(x - b7)^2 / b8^2) at x = 1, 2, ...
struct NistGauss {
  char const* name;
  std::array<double, 8> start1;
  std::array<double, 8> start2;
  std::array<double, 8> certified;
  std::array<double, 8> standardDeviation;
  double residualSumOfSquares;
  std::array<double, 250> y;
};

inline constexpr auto nistGauss = std::to_array<NistGauss>({
"""
TAIL = """});

}  // namespace FullWaveform::Testing
"""


def entry(name: str) -> str:
    text = (HERE / f"{name}.dat").read_text()
    rows = [line.split()[2:] for line in re.findall(r"^ +b\d = .*$", text, re.MULTILINE)]
    assert len(rows) == 8
    squares = re.search(r"Residual Sum of Squares: +(\S+)", text)
    assert squares is not None
    lines = text[text.index("Data:   y") :].splitlines()[1:]
    data = [line.split() for line in lines if line.strip()]
    assert [float(x) for _, x in data] == list(range(1, 251))
    columns = ["{" + ", ".join(column) + "}" for column in zip(*rows, strict=True)]
    values = ", ".join(y for y, _ in data)
    return f'{{"{name}", {", ".join(columns)}, {squares.group(1)}, {{{values}}}}},\n'


def main() -> None:
    sets = "".join(entry(name) for name in ("Gauss1", "Gauss2", "Gauss3"))
    (HERE / "NistGauss.h").write_text(HEAD + sets + TAIL)


if __name__ == "__main__":
    main()
