// The output formats of `norvak_host preview`.
#pragma once

#include <iosfwd>

#include "common/terminal.h"
#include "host_facts.h"
#include "preview.h"

namespace host {

/// A table for people, followed by the findings.
void print_preview_table(std::ostream& out, const tools::Painter& paint, const Preview& preview);

/// One object in one line.
void print_preview_json(std::ostream& out, const HostFacts& facts, const Preview& preview);

}  // namespace host
