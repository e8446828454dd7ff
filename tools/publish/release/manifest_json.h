#pragma once
// Writing the release manifest so that the launcher's small key-search parser reads it exactly
// as intended, and checking that it does.

#include <string>
#include <string_view>

#include "update/manifest.h"

namespace th::publish {

// True when the text holds a control byte that JSON can only carry as a \u escape, which the
// launcher's parser does not decode (it understands \n, \r and \t only).
bool needsUnicodeEscape(std::string_view text);

// The manifest text: header keys in the order the parser looks them up, then "files", one
// object per line with "path" first. Texts must not need \u escapes (see above).
std::string manifestJson(const update::Manifest& manifest);

// The first field in which `parsed` differs from `intended` ("version", "files[2].sha256"...),
// or an empty text when the parser read back exactly what was meant.
std::string firstDifference(const update::Manifest& intended, const update::Manifest& parsed);

}  // namespace th::publish
