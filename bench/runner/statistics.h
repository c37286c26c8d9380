/// @file
/// What is said about a set of measurements on a machine that does other things as well: medians,
/// and how far they can be trusted.
#ifndef PELMAR_BENCH_STATISTICS_H
#define PELMAR_BENCH_STATISTICS_H

#include <cstddef>
#include <vector>

namespace statistics {

/// The value that `share` of all are not above, 0 <= share <= 1. Of nothing it is 0.
double Quantile(std::vector<double> values, double share);

double Median(const std::vector<double>& values);

/// A median, and the interval that holds the true one with a probability of 95 %, whatever the
/// distribution: it comes from the ranks alone.
struct Estimate {
    double median = 0;
    double low = 0;
    double high = 0;

    /// Half the interval's width, as a share of the median.
    double RelativeError() const;
};
Estimate Estimated(std::vector<double> values);

/// values[i] / base[i] and values[i] - base[i]: of what was measured in the same round, so that
/// what slows a whole round cancels out.
std::vector<double> Ratios(const std::vector<double>& values, const std::vector<double>& base);
std::vector<double> Differences(const std::vector<double>& values, const std::vector<double>& base);

}  // namespace statistics

#endif
