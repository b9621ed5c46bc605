#include "coverage_page.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "files.h"

namespace publish {

namespace {

constexpr char kHead[] = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Kernel module coverage</title>
<link rel="icon" href="data:,">
<style>
:root { color-scheme: light dark; --ink: #1b1f24; --paper: #fff; --line: #c8ced6; --soft: #eef1f5;
  --bad: #b3261e; --good: #1a6b3c; --link: #0b57a4; }
@media (prefers-color-scheme: dark) { :root { --ink: #e8eaed; --paper: #16191d; --line: #464d57;
  --soft: #23282f; --bad: #ff8a80; --good: #7bd6a0; --link: #8ab8f5; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 75rem; padding: 1rem; color: var(--ink);
  background: var(--paper); font: 1rem/1.45 system-ui, sans-serif; }
h1 { font-size: 1.5rem; margin: 0.5rem 0; }
h2 { font-size: 1.2rem; margin: 1.5rem 0 0.5rem; }
a { color: var(--link); }
:focus-visible { outline: 3px solid var(--link); outline-offset: 2px; }
nav ul { display: flex; flex-wrap: wrap; gap: 0.25rem 1.5rem; list-style: none; padding: 0; }
dl { display: grid; grid-template-columns: repeat(auto-fit, minmax(9rem, 1fr)); gap: 0.75rem;
  margin: 1rem 0; }
dl div { background: var(--soft); border-radius: 0.5rem; padding: 0.5rem 1rem; }
dt { font-size: 0.85rem; }
dd { margin: 0; font-size: 1.4rem; font-weight: 600; font-variant-numeric: tabular-nums; }
table { width: 100%; border-collapse: collapse; }
caption { text-align: left; padding-bottom: 0.5rem; }
th, td { text-align: left; vertical-align: top; padding: 0.4rem 0.6rem;
  border-bottom: 1px solid var(--line); }
thead th { background: var(--soft); font-size: 0.85rem; }
tbody th { font-weight: 600; }
tbody th, .kernels { overflow-wrap: anywhere; }
.number { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
.good { color: var(--good); }
.bad { color: var(--bad); font-weight: 600; }
.kernels ul { list-style: none; margin: 0; padding: 0; }
.kernels { font-size: 0.9rem; }
@media screen and (max-width: 45rem) {
  thead { position: absolute; clip-path: inset(50%); width: 1px; height: 1px; overflow: hidden; }
  table, caption, tbody, tr, th, td { display: block; width: 100%; }
  tr { border: 1px solid var(--line); border-radius: 0.5rem; margin: 0 0 0.75rem;
    padding: 0.4rem 0; }
  th, td { border: 0; padding: 0.2rem 0.75rem; }
  td.number { text-align: left; }
  td::before { content: attr(data-label) ": "; font-size: 0.85rem; }
}
@media print {
  :root { --ink: #000; --paper: #fff; --line: #999; --soft: #eee; --bad: #000; --good: #000;
    --link: #000; }
  html { font-size: 9pt; }
  body { max-width: none; padding: 0; }
  nav { display: none; }
  tr { break-inside: avoid; }
}
</style>
</head>
<body>
)";

std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '"':
        result += "&quot;";
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string figure(const std::string& what, std::uint64_t number) {
  return "<div><dt>" + what + "</dt><dd>" + std::to_string(number) + "</dd></div>\n";
}

std::uint64_t number_of(const Coverage& coverage, bool (KernelCoverage::*property)() const) {
  return static_cast<std::uint64_t>(
      std::count_if(coverage.kernels.begin(), coverage.kernels.end(),
                    [property](const KernelCoverage& kernel) { return (kernel.*property)(); }));
}

std::string summary(const Coverage& coverage) {
  return "<dl>\n" + figure("Hosts", coverage.hosts) +
         figure("Hosts without all modules", coverage.uncovered_hosts) +
         figure("Directories", coverage.kernels.size()) +
         figure("Directories without all modules",
                coverage.kernels.size() - number_of(coverage, &KernelCoverage::is_complete)) +
         "</dl>\n";
}

std::string kernel_list(const KernelCoverage& kernel) {
  std::string list = "<ul>";
  for (const FleetKernel& of_fleet : kernel.kernels) {
    list += "<li>" + escaped(of_fleet.release) + " (" + escaped(of_fleet.machine) +
            "): " + std::to_string(of_fleet.hosts) + "</li>";
  }
  return list + "</ul>";
}

std::string cell(const std::string& label, const std::string& classes,
                 const std::string& contents) {
  return "<td role=\"cell\" data-label=\"" + label + "\" class=\"" + classes + "\">" + contents +
         "</td>";
}

std::string row(const KernelCoverage& kernel) {
  std::string cells = "<th role=\"rowheader\" scope=\"row\">" + escaped(kernel.directory) +
                      "</th>" + cell("Hosts", "number", std::to_string(kernel.hosts));
  for (std::size_t i = 0; i < kernel.has_module.size(); ++i) {
    const bool has_it = kernel.has_module[i];
    cells += cell(agent_files::kModules[i], has_it ? "good" : "bad",
                  has_it ? "✓ published" : "✗ missing");
  }
  return "<tr role=\"row\">" + cells + cell("Kernels", "kernels", kernel_list(kernel)) + "</tr>\n";
}

std::string table(const Coverage& coverage) {
  std::string head;
  const auto add_column = [&head](const std::string& name, const char* classes) {
    head += "<th role=\"columnheader\" scope=\"col\" class=\"" + std::string(classes) + "\">" +
            name + "</th>";
  };
  add_column("Directory", "");
  add_column("Hosts", "number");
  for (const char* name : agent_files::kModules) add_column(name, "");
  add_column("Kernels and their hosts", "");
  std::string rows;
  for (const KernelCoverage& kernel : coverage.kernels) rows += row(kernel);
  return "<table role=\"table\">\n<caption>The directories that hosts request, worst first: first "
         "those where a module is missing, then by the number of hosts.</caption>\n"
         "<thead role=\"rowgroup\"><tr role=\"row\">" +
         head + "</tr></thead>\n<tbody role=\"rowgroup\">\n" + rows + "</tbody>\n</table>\n";
}

std::string shared(const Coverage& coverage) {
  std::string items;
  for (const KernelCoverage& kernel : coverage.kernels) {
    if (!kernel.is_shared()) continue;
    items +=
        "<li><strong>" + escaped(kernel.directory) + "</strong>" + kernel_list(kernel) + "</li>\n";
  }
  if (items.empty()) return "<p>There are none.</p>\n";
  return "<p>Hosts with any of these kernels install the same modules.</p>\n<ul>\n" + items +
         "</ul>\n";
}

std::string current_time() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  std::array<char, sizeof "2000-01-01 00:00 UTC"> text = {};
  (void)::gmtime_r(&now, &parts);
  (void)std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts);
  return text.data();
}

}  // namespace

std::string coverage_page(const Coverage& coverage, const std::string& time) {
  return std::string(kHead) + "<header>\n<h1>Kernel module coverage</h1>\n<p>As of " + time +
         ".</p>\n<nav aria-label=\"On this page\"><ul><li><a href=\"#directories\">Directories</a>"
         "</li><li><a href=\"#shared\">Kernels that share modules</a></li></ul></nav>\n</header>\n"
         "<main>\n" +
         summary(coverage) + "<section aria-labelledby=\"directories\">\n" +
         "<h2 id=\"directories\" tabindex=\"-1\">Directories</h2>\n" + table(coverage) +
         "</section>\n<section aria-labelledby=\"shared\">\n" +
         "<h2 id=\"shared\" tabindex=\"-1\">Kernels that share modules</h2>\n" + shared(coverage) +
         "</section>\n</main>\n</body>\n</html>\n";
}

void write_coverage_page(const Coverage& coverage, const std::filesystem::path& path) {
  install_text(coverage_page(coverage, current_time()), path, std::time(nullptr));
}

}  // namespace publish
