#pragma once

// What the benchmarks report besides Google Benchmark's own figures.

#include <algorithm>
#include <vector>

namespace vt::bench {

// The middle value (the mean of the two middle ones for an even count); 0 without values.
inline double median(std::vector<double> values) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace vt::bench
