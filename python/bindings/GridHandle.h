#pragma once

#include <fullwaveform/host/Grid.h>
#include <fullwaveform/host/StrongPtr.h>

/// A grid owned by Python through a strong pointer of the host framework.
struct GridHandle {
  Holdex::StrongPtr<Kestra::Grid> grid = Holdex::makeStrong<Kestra::Grid>();
};
