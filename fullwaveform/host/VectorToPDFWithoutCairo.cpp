#include <fullwaveform/host/Console.h>
#include <fullwaveform/host/VectorToPDF.h>

namespace OrvikPDF {

// Callers may ignore the returned text, and a missing plot must not pass unnoticed.
std::string VectorToPDF::write2Pdf(bool) const {
  std::string const message = "VectorToPDF::write2Pdf: cannot write " + file +
                              ": the library was built without plots (FULLWAVEFORM_PDF=OFF)";
  Holdex::Console() << message;
  return message;
}

}  // namespace OrvikPDF
