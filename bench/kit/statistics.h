// What is taken of repeated measurements.
#pragma once

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace bench {

inline double median(std::vector<double> values) {
    if (values.empty()) throw std::runtime_error("nothing was measured");
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

}  // namespace bench
