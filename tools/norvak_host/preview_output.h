// The output formats of `norvak_host preview`.
#pragma once

#include <iosfwd>

#include "common/terminal.h"
#include "host_facts.h"
#include "preview.h"

namespace host {

/// Prints a table for people, then the findings.
void print_preview_table(std::ostream& out, const tools::Painter& paint, const Preview& preview);

/// Prints the same as a JSON object in one line.
void print_preview_json(std::ostream& out, const HostFacts& facts, const Preview& preview);

}  // namespace host
