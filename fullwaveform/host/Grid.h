#pragma once

#include <string>
#include <utility>
#include <vector>

#include <fullwaveform/Export.h>
#include <fullwaveform/host/Attributes.h>
#include <fullwaveform/host/ReferenceBase.h>

namespace Kestra {

/// A named quantity on a grid. The library reads its attributes only.
class FULLWAVEFORM_EXPORT Field {
 public:
  [[nodiscard]] Holdex::Attributes& attributes() noexcept { return ownAttributes; }
  [[nodiscard]] Holdex::Attributes const& attributes() const noexcept { return ownAttributes; }

 private:
  Holdex::Attributes ownAttributes;
};

/// The fields of a grid in one chart. Pointers to fields stay valid until the next field is added.
class FULLWAVEFORM_EXPORT Representation {
 public:
  /// Index of the field in this representation; -1 if there is no such field.
  [[nodiscard]] int findFieldID(std::string const& name) const;
  /// The field; nullptr if there is no such field.
  [[nodiscard]] Field const* findField(std::string const& name) const;
  /// The field of that name, created if missing.
  Field& addField(std::string const& name);

 private:
  std::vector<std::pair<std::string, Field>> fields;
};

/// A data set of the framework: attributes, and representations with fields.
class FULLWAVEFORM_EXPORT Grid : public Holdex::ReferenceBase<Grid> {
 public:
  [[nodiscard]] Holdex::Attributes& attributes() noexcept { return ownAttributes; }
  [[nodiscard]] Holdex::Attributes const& attributes() const noexcept { return ownAttributes; }

  /// The Cartesian representation of that name; nullptr if there is none.
  [[nodiscard]] Representation const* getCartesianRepresentation(std::string const& name) const;
  /// The representation of that name, created if missing.
  Representation& addCartesianRepresentation(std::string const& name);

 private:
  Holdex::Attributes ownAttributes;
  std::vector<std::pair<std::string, Representation>> representations;
};

}  // namespace Kestra
