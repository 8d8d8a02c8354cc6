#include "BenchTable.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>

namespace {

const std::array<const char*, 6> kHeadings = {"figure", "service", "reference",
                                              "ratio",  "target",  "result"};

std::string csvCell(const std::string& text) {
  if (text.find_first_of(",\"\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

void BenchTable::add(const std::string& figure, double service, int decimals) {
  rows_.push_back({figure, service, std::nullopt, Bound::kNone, 0, decimals});
}

void BenchTable::add(const std::string& figure, double service, double reference, Bound kind,
                     double bound, int decimals) {
  rows_.push_back({figure, service, reference, kind, bound, decimals});
}

std::string BenchTable::number(double value, int decimals) {
  std::array<char, 64> text{};
  if (std::snprintf(text.data(), text.size(), "%.*f", decimals, value) < 0) return "?";
  return text.data();
}

std::optional<double> BenchTable::ratio(const Row& row) {
  if (!row.reference || *row.reference == 0) return std::nullopt;
  return row.service / *row.reference;
}

std::string BenchTable::target(const Row& row) {
  switch (row.kind) {
    case Bound::kAtLeast:
      return ">= " + number(row.bound, 2);
    case Bound::kAtMost:
      return "<= " + number(row.bound, 2);
    case Bound::kNone:
      break;
  }
  return "-";
}

bool BenchTable::met(const Row& row) {
  if (row.kind == Bound::kNone) return true;
  const std::optional<double> r = ratio(row);
  if (!r) return false;
  // Compared as shown, so that a ratio printed as the bound meets it.
  const double shown = std::stod(number(*r, 2));
  return row.kind == Bound::kAtLeast ? shown >= row.bound : shown <= row.bound;
}

std::string BenchTable::result(const Row& row) {
  if (row.kind == Bound::kNone) return "info";
  return met(row) ? "pass" : "FAIL";
}

std::vector<std::string> BenchTable::cells(const Row& row) {
  const std::optional<double> r = ratio(row);
  return {row.figure,
          number(row.service, row.decimals),
          row.reference ? number(*row.reference, row.decimals) : "-",
          r ? number(*r, 2) : "-",
          target(row),
          result(row)};
}

bool BenchTable::allMet() const {
  return std::all_of(rows_.begin(), rows_.end(), [](const Row& row) { return met(row); });
}

void BenchTable::print(std::ostream& out) const {
  std::vector<std::vector<std::string>> lines;
  lines.emplace_back(kHeadings.begin(), kHeadings.end());
  for (const Row& row : rows_) lines.push_back(cells(row));
  std::array<std::size_t, kHeadings.size()> widths{};
  for (const auto& line : lines) {
    for (std::size_t c = 0; c < widths.size(); ++c) widths[c] = std::max(widths[c], line[c].size());
  }
  for (std::size_t l = 0; l < lines.size(); ++l) {
    for (std::size_t c = 0; c < widths.size(); ++c) {
      const std::string& cell = lines[l][c];
      const std::string padding(widths[c] - cell.size(), ' ');
      // The figure is aligned left, the numbers right.
      out << (c == 0 ? cell + padding : padding + cell) << (c + 1 < widths.size() ? "  " : "\n");
    }
    if (l == 0) {
      std::size_t total = 2 * (widths.size() - 1);
      for (std::size_t width : widths) total += width;
      out << std::string(total, '-') << "\n";
    }
  }
}

bool BenchTable::writeCsv(const std::string& path) const {
  std::ofstream out(path);
  if (!out) return false;
  for (std::size_t c = 0; c < kHeadings.size(); ++c) {
    out << kHeadings[c] << (c + 1 < kHeadings.size() ? "," : "\n");
  }
  for (const Row& row : rows_) {
    const std::vector<std::string> line = cells(row);
    for (std::size_t c = 0; c < line.size(); ++c) {
      out << csvCell(line[c]) << (c + 1 < line.size() ? "," : "\n");
    }
  }
  return static_cast<bool>(out.flush());
}
