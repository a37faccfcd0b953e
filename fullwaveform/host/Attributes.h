#pragma once

#include <map>
#include <string>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/Chunk.h>
#include <fullwaveform/host/StrongPtr.h>

namespace Holdex {

/// Named values of a grid or field; every value is a chunk.
class FULLWAVEFORM_EXPORT Attributes {
 public:
  /// The attribute's chunk; empty if there is no such attribute.
  [[nodiscard]] StrongPtr<ChunkBase> getAttribute(std::string const& name) const;
  /// Sets or replaces an attribute.
  void setAttribute(std::string const& name, StrongPtr<ChunkBase> value);

 private:
  std::map<std::string, StrongPtr<ChunkBase>> values;
};

}  // namespace Holdex
