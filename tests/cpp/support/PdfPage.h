#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

/// Read by the leak sanitizer. Fontconfig keeps its font patterns until the process ends and refers to them
/// by offsets instead of addresses, which the sanitizer reports as leaks.
extern "C" __attribute__((used, visibility("default"))) inline char const*
__lsan_default_suppressions() {  // NOLINT
  return "leak:libfontconfig\n";
}

namespace FullWaveform::Testing {

/// Standard output of a command; throws when the command fails.
inline std::string outputOf(std::string const& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    throw std::runtime_error("cannot start: " + command);
  }
  std::string output;
  std::vector<char> buffer(65536);
  while (std::size_t const count = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
    output.append(buffer.data(), count);
  }
  if (pclose(pipe) != 0) {
    throw std::runtime_error("failed (are the Poppler tools there?): " + command);
  }
  return output;
}

/// Contents of a PDF, read by Poppler.
class PdfPage {
 public:
  explicit PdfPage(std::filesystem::path const& file) : quoted("'" + file.string() + "'") {}

  [[nodiscard]] std::string information() const { return outputOf("pdfinfo " + quoted); }
  [[nodiscard]] std::string text() const { return outputOf("pdftotext -layout " + quoted + " -"); }
  [[nodiscard]] bool shows(std::string const& words) const { return text().find(words) != std::string::npos; }

 private:
  std::string quoted;
};

struct Colour {
  unsigned char red, green, blue;
};

/// Colour of the curve of a plot.
inline constexpr Colour firstCurve{0, 114, 178};

/// A page drawn at 144 dots per inch, without smoothed edges.
class DrawnPage {
 public:
  explicit DrawnPage(std::filesystem::path const& file) {
    std::istringstream image(outputOf("pdftoppm -r 144 -aa no -aaVector no '" + file.string() + "'"));
    std::string magic;
    int largest = 0;
    image >> magic >> width >> height >> largest;
    image.get();
    pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    for (Colour& pixel : pixels) {
      pixel = {static_cast<unsigned char>(image.get()), static_cast<unsigned char>(image.get()),
               static_cast<unsigned char>(image.get())};
    }
    if (magic != "P6" || largest != 255 || !image) {
      throw std::runtime_error("not a drawn page");
    }
  }

  struct Box {
    int count = 0, left = 0, top = 0, right = 0, bottom = 0;
  };

  /// Number of pixels of a colour (each component within 2), and their bounding box.
  [[nodiscard]] Box boxOf(Colour colour) const {
    Box box{0, width, height, -1, -1};
    for (int y = 0; y < height; ++y) {
      for (int x = 0; x < width; ++x) {
        if (isNear(at(x, y), colour)) {
          box = {box.count + 1, std::min(box.left, x), std::min(box.top, y), std::max(box.right, x),
                 std::max(box.bottom, y)};
        }
      }
    }
    return box;
  }

  /// Number of columns without a pixel of a colour, between the first and the last column with one.
  [[nodiscard]] int gapsOf(Colour colour) const {
    Box const box = boxOf(colour);
    int gaps = 0;
    for (int x = box.left; x <= box.right; ++x) {
      bool found = false;
      for (int y = box.top; y <= box.bottom && !found; ++y) {
        found = isNear(at(x, y), colour);
      }
      gaps += found ? 0 : 1;
    }
    return gaps;
  }

 private:
  [[nodiscard]] Colour at(int x, int y) const {
    return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                  static_cast<std::size_t>(x)];
  }
  static bool isNear(Colour a, Colour b) {
    return std::abs(a.red - b.red) <= 2 && std::abs(a.green - b.green) <= 2 && std::abs(a.blue - b.blue) <= 2;
  }

  int width = 0;
  int height = 0;
  std::vector<Colour> pixels;
};

}  // namespace FullWaveform::Testing
