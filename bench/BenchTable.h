#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

// The one table `make bench` prints: for each figure, this service's value, the
// reference it is held against (curl's for a transfer, the target itself for the
// rest), their ratio, the bound on that ratio and whether it is met. The same rows
// go to a CSV file, so that a later run can be compared with an earlier one.
class BenchTable {
 public:
  enum class Bound { kNone, kAtLeast, kAtMost };

  // A figure with no reference and no bound, shown for information.
  void add(const std::string& figure, double service, int decimals);
  // A figure whose ratio to `reference` must be at least or at most `bound`.
  void add(const std::string& figure, double service, double reference, Bound kind, double bound,
           int decimals);

  // Whether every figure with a bound meets it.
  bool allMet() const;
  void print(std::ostream& out) const;
  // Writes the rows as CSV to `path`; whether it could.
  bool writeCsv(const std::string& path) const;

 private:
  struct Row {
    std::string figure;
    double service = 0;
    std::optional<double> reference;
    Bound kind = Bound::kNone;
    double bound = 0;
    int decimals = 0;
  };
  static std::string number(double value, int decimals);
  static std::optional<double> ratio(const Row& row);
  static std::string target(const Row& row);
  static std::string result(const Row& row);
  static bool met(const Row& row);
  // The cells of a row, in column order.
  static std::vector<std::string> cells(const Row& row);

  std::vector<Row> rows_;
};
