#include "statistics.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace statistics {

namespace {

std::vector<double> Paired(const std::vector<double>& left, const std::vector<double>& right,
                           const std::function<double(double, double)>& function)
{
    std::vector<double> results(std::min(left.size(), right.size()));
    std::transform(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(results.size()),
                   right.begin(), results.begin(), function);
    return results;
}

}  // namespace

double Quantile(std::vector<double> values, double share)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto last = static_cast<double>(values.size() - 1);
    const double rank = share * last;
    const auto below = static_cast<std::size_t>(rank);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    const double part = rank - static_cast<double>(below);
    return values[below] * (1 - part) + values[above] * part;
}

double Median(const std::vector<double>& values)
{
    return Quantile(values, 0.5);
}

double Estimate::RelativeError() const
{
    return median != 0 ? (high - low) / 2 / std::abs(median) : 0;
}

Estimate Estimated(std::vector<double> values)
{
    if (values.empty())
        return {};
    std::sort(values.begin(), values.end());
    const auto count = static_cast<double>(values.size());
    const double reach = 0.98 * std::sqrt(count);
    const auto at = [&](double rank) {
        return values[static_cast<std::size_t>(std::clamp(rank, 0.0, count - 1))];
    };
    return {Median(values), at(std::floor(count / 2 - reach)), at(std::ceil(count / 2 + reach))};
}

std::vector<double> Ratios(const std::vector<double>& values, const std::vector<double>& base)
{
    return Paired(values, base, std::divides<>());
}

std::vector<double> Differences(const std::vector<double>& values, const std::vector<double>& base)
{
    return Paired(values, base, std::minus<>());
}

}  // namespace statistics
