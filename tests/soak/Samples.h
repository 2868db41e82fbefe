/// Figures over time, and how they grow.
#ifndef KIV_TEST_SAMPLES_H
#define KIV_TEST_SAMPLES_H

#include <cstddef>
#include <utility>
#include <vector>

class Samples {
  public:
    Samples() { points_.reserve(10'000); }  // None of the memory that is measured.
    void add(double time, double value) { points_.emplace_back(time, value); }
    double first() const { return points_.front().second; }
    double last() const { return points_.back().second; }

    /// Growth in a unit of time: least squares over the second half, when what grows once has grown.
    double slope() const {
        const std::size_t from = points_.size() / 2;
        const auto count = static_cast<double>(points_.size() - from);
        double time = 0, value = 0, products = 0, squares = 0;
        for (std::size_t i = from; i < points_.size(); ++i) {
            time += points_[i].first / count;
            value += points_[i].second / count;
        }
        for (std::size_t i = from; i < points_.size(); ++i) {
            products += (points_[i].first - time) * (points_[i].second - value);
            squares += (points_[i].first - time) * (points_[i].first - time);
        }
        return squares > 0 ? products / squares : 0;
    }

  private:
    std::vector<std::pair<double, double>> points_;
};

#endif
