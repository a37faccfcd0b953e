#include <fullwaveform/host/Grid.h>

#include <algorithm>

namespace Kestra {
namespace {

template <class Named>
auto findByName(Named& entries, std::string const& name) {
  return std::find_if(entries.begin(), entries.end(), [&](auto const& entry) { return entry.first == name; });
}

template <class Value>
Value& findOrAdd(std::vector<std::pair<std::string, Value>>& entries, std::string const& name) {
  auto const found = findByName(entries, name);
  return found != entries.end() ? found->second : entries.emplace_back(name, Value()).second;
}

}  // namespace

int Representation::findFieldID(std::string const& name) const {
  auto const found = findByName(fields, name);
  return found == fields.end() ? -1 : static_cast<int>(found - fields.begin());
}

Field const* Representation::findField(std::string const& name) const {
  auto const found = findByName(fields, name);
  return found == fields.end() ? nullptr : &found->second;
}

Field& Representation::addField(std::string const& name) {
  return findOrAdd(fields, name);
}

Representation const* Grid::getCartesianRepresentation(std::string const& name) const {
  auto const found = findByName(representations, name);
  return found == representations.end() ? nullptr : &found->second;
}

Representation& Grid::addCartesianRepresentation(std::string const& name) {
  return findOrAdd(representations, name);
}

}  // namespace Kestra
