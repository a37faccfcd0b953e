#include <fullwaveform/host/Attributes.h>

namespace Holdex {

StrongPtr<ChunkBase> Attributes::getAttribute(std::string const& name) const {
  auto const found = values.find(name);
  return found == values.end() ? StrongPtr<ChunkBase>() : found->second;
}

void Attributes::setAttribute(std::string const& name, StrongPtr<ChunkBase> value) {
  values[name] = std::move(value);
}

}  // namespace Holdex
