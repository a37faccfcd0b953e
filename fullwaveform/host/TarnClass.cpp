#include <fullwaveform/host/TarnClass.h>

namespace Quorvane {

unsigned char TarnClass::afterpulse = 7;

}  // namespace Quorvane
