#include <fullwaveform/model/AsciiExport.h>

#include <fullwaveform/text/Number.h>

namespace FullWaveform {

std::string asciiLine(Peak const& peak, std::string_view label, double value) {
  std::string line(label);
  line += ' ' + shortestText(peak.amplitude) + ' ' + shortestText(peak.idx) + ' ' + shortestText(peak.std) +
          ' ' + shortestText(value) + '\n';
  return line;
}

}  // namespace FullWaveform
