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

// How many times the cost of the others it has, of values that were measured in turn: those of one
// turn had the same moment of a busy machine.
inline double median_ratio(const std::vector<double> &own, const std::vector<double> &others) {
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(own.size(), others.size()); ++i) {
        ratios.push_back(own[i] / others[i]);
    }
    return median(ratios);
}

}  // namespace bench
