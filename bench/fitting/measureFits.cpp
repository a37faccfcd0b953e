// Fits sums of Gaussians to signals from a file. Prints the time of a fit in microseconds, from the fastest
// of several runs over all signals, then the parameters of each signal, one line each.
//
// measureFits FILE ROWS SAMPLES ECHOES RUNS
// FILE contains ROWS times SAMPLES counts, then ROWS times 3 ECHOES start parameters, as doubles in the byte
// order of the machine.

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <fullwaveform/fitting/GaussianRefinement.h>
#include <ctime>

namespace FullWaveform::Bench {
namespace {

double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

std::vector<double> readDoubles(std::ifstream& file, std::size_t count) {
  std::vector<double> values(count);
  file.read(reinterpret_cast<char*>(values.data()), static_cast<std::streamsize>(8 * count));
  if (!file) {
    throw std::runtime_error("file too short for the given numbers of rows, samples and echoes");
  }
  return values;
}

void run(char** arguments) {
  auto const number = [arguments](int index) { return std::strtoul(arguments[index], nullptr, 10); };
  std::size_t const rows = number(2);
  std::size_t const samples = number(3);
  std::size_t const parameters = 3 * number(4);
  std::ifstream file(arguments[1], std::ios::binary);
  std::vector<double> const signals = readDoubles(file, rows * samples);
  std::vector<double> const starts = readDoubles(file, rows * parameters);
  std::vector<double> fitted;
  GaussianRefinement refinement;
  double fastest = std::numeric_limits<double>::infinity();
  for (std::size_t turn = 0; turn < number(5); ++turn) {
    fitted = starts;
    double const start = threadSeconds();
    for (std::size_t row = 0; row < rows; ++row) {
      refinement.refine(std::span(signals).subspan(row * samples, samples), 0,
                        std::span(fitted).subspan(row * parameters, parameters));
    }
    fastest = std::min(fastest, threadSeconds() - start);
  }
  std::cout << 1e6 * fastest / static_cast<double>(rows) << '\n' << std::setprecision(17);
  for (std::size_t i = 0; i < fitted.size(); ++i) {
    std::cout << fitted[i] << ((i + 1) % parameters == 0 ? '\n' : ' ');
  }
}

}  // namespace
}  // namespace FullWaveform::Bench

int main(int count, char** arguments) {
  if (count != 6) {
    std::cerr << "usage: measureFits FILE ROWS SAMPLES ECHOES RUNS\n";
    return 2;
  }
  FullWaveform::Bench::run(arguments);
}
