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

// What a quarter of the values are not below.
inline double upper_quartile(std::vector<double> values) {
    if (values.empty()) throw std::runtime_error("nothing was measured");
    std::sort(values.begin(), values.end());
    return values[values.size() * 3 / 4];
}

// How many times the cost of the others it has, of values that were measured in turn: those of one
// turn had the same moment of a busy machine.
inline std::vector<double> ratios(const std::vector<double> &own,
                                  const std::vector<double> &others) {
    std::vector<double> all;
    for (size_t i = 0; i < std::min(own.size(), others.size()); ++i) {
        all.push_back(own[i] / others[i]);
    }
    return all;
}
inline double median_ratio(const std::vector<double> &own, const std::vector<double> &others) {
    return median(ratios(own, others));
}

}  // namespace bench
