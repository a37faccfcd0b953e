#pragma once

#include <string>
#include <string_view>

namespace OrvikPDF {

/// Text that can be drawn on one line: control characters become blanks, and bytes that are not UTF-8
/// question marks.
std::string drawableText(std::string_view text);

}  // namespace OrvikPDF
