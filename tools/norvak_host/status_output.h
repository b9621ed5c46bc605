// The output formats of `norvak_host status`.
#pragma once

#include <iosfwd>
#include <string>

#include "common/terminal.h"
#include "host_facts.h"
#include "status.h"

namespace host {

/// Prints a table for people, then the log lines of unsuccessful runs, and the findings.
void print_status_table(std::ostream& out, const tools::Painter& paint, const Status& status);

/// Prints the same as a JSON object in one line.
void print_status_json(std::ostream& out, const HostFacts& facts, const Status& status);

/// Prints one line in the format of the Monitoring Plugins, with the age of each run as performance
/// data.
void print_status_plugin(std::ostream& out, const Status& status, const StatusOptions& options);

/// Metrics in the text format of node_exporter's textfile collector.
[[nodiscard]] std::string prometheus_metrics(const Status& status);

/// Replaces @a path atomically; the new file has the mode 0644.
/// @return false, with errno set, if it could not be written: the old file is unchanged
[[nodiscard]] bool replace_file(const std::string& path, const std::string& text);

}  // namespace host
