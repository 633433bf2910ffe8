// The time that the columns of all points of a file take, in seconds, the median of five readings: what bench/python
// compares the Python module with.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

#include "kesp/recordfile/Columns.h"

int main(int count, char** arguments) {
  std::array<double, 5> seconds{};
  for (double& took : seconds) {
    const auto start = std::chrono::steady_clock::now();
    CKespDataFile file;
    kesp::ColumnChoice choice;
    choice.features = choice.attributes = 0;
    kesp::Columns columns;
    if (count != 2 || !file.OpenReadOnly(CString(arguments[1])) || !kesp::ReadColumns(file, choice, columns)) return 1;
    took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  std::ranges::sort(seconds);
  (void)std::printf("%.6f\n", seconds[seconds.size() / 2]);
}
