#pragma once
// regions.h: tables of descriptions inside pages that are written by hand.

#include <functional>
#include <optional>
#include <string>

#include "services/common/configuration_file.h"
#include "services/describe/description.h"

namespace klgen {

// Gives the description in a file, or nothing.
using LoadDescription = std::function<std::optional<describe::Description>(const std::string& file)>;

// The page with each region as its description says now.  In Markdown a region is
//
//     <!-- klgen fields ../tools/fields/undo.toml UNDO_REQUEST=request UNDO_TIME=time -->
//     ...
//     <!-- klgen end -->
//
// and in a man page
//
//     .\" klgen settings ../../tools/fields/undo.toml
//     ...
//     .\" klgen end
//
// Behind "klgen" stand what is shown (fields, settings, commands, topics; in Markdown also values), a description, whose
// path begins at the page, and names: those of fields, settings or topics, of the field whose values or the objects whose
// commands are shown.  Without names all are.  A comment of Markdown may go over several lines.
//
// Errors:    a region that cannot be made is a mistake in `file`, and stays as it is.
std::string updatedPage(const std::string& page, const std::string& file, const LoadDescription& load,
                        common::Mistakes& mistakes);

}  // namespace klgen
