#pragma once

#include <fullwaveform/host/Grid.h>
#include <fullwaveform/host/StrongPtr.h>

/// A grid as Python holds it: a strong pointer of the host framework.
struct GridHandle {
  Holdex::StrongPtr<Kestra::Grid> grid = Holdex::makeStrong<Kestra::Grid>();
};
