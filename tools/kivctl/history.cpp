#include "history.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "records.h"
#include "time_text.h"

namespace kivctl {

namespace {

struct Series {
    std::string name;
    const char* kind;
    const char* unit;
    double fractions;  ///< Of a unit that its points tell.
};

Series series(std::size_t number) {
    if (number < kSensorCount) return {sensor_name(number), "temperature", "°C", 1};
    if (number + 1 == History::kSeries) return {"PTP offset to the host", "ptp_offset", "ns", 1};
    const std::size_t load = number - kSensorCount;
    return {"Port " + std::to_string(load / 2) + " load " + (load % 2 == 0 ? "A" : "B"), "load", "%", 100};
}

}  // namespace

void History::record(std::chrono::system_clock::time_point now, const Values& values) {
    const int64_t interval =
        std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()) / kInterval;
    int64_t ahead = interval - newest_;
    newest_ = interval;
    if (ahead < 0 || ahead > static_cast<int64_t>(kPoints)) count_ = 0;
    if (ahead == 0 && count_ > 0) {
        next_ = (next_ + kPoints - 1) % kPoints;
        --count_;
    }
    Values none;
    none.fill(std::numeric_limits<float>::quiet_NaN());
    for (; count_ > 0 && ahead > 1; --ahead)
        append(none);
    append(values);
}

void History::append(const Values& values) {
    for (std::size_t i = 0; i < kSeries; ++i)
        points_[i][next_] = values[i];
    next_ = (next_ + 1) % kPoints;
    if (count_ < kPoints) ++count_;
}

Json History::json() const {
    Json json{{"interval_s", kInterval.count()}, {"newest", nullptr}, {"series", Json::array()}};
    if (count_ > 0) json["newest"] = utc_text(std::chrono::system_clock::time_point(newest_ * kInterval));
    for (std::size_t i = 0; i < kSeries; ++i) {
        const Series about = series(i);
        Json points = Json::array();
        for (std::size_t point = 0; point < count_; ++point) {
            const double value = points_[i][(next_ + kPoints - count_ + point) % kPoints];
            points.push_back(
                std::isfinite(value) ? Json(std::round(value * about.fractions) / about.fractions) : Json());
        }
        json["series"].push_back({{"name", about.name},
                                  {"kind", about.kind},
                                  {"unit", about.unit},
                                  {"points", std::move(points)}});
    }
    return json;
}

}  // namespace kivctl
