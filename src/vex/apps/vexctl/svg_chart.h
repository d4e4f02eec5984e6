#pragma once
// Charts over time as HTML with SVG in it. The drawings stretch with the page, so texts stand beside them and not
// inside.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Vexctl {

struct ChartPoint
{
    std::int64_t timeMs = 0;
    double value = 0;
};

struct TimeRange
{
    std::int64_t beginMs = 0;
    std::int64_t endMs = 0;
};

enum class Peak { Highest, Lowest };

struct LineChart
{
    std::string title;
    std::string summary; ///< stands beside the title
    TimeRange range;
    std::vector<ChartPoint> points; ///< in the order of their times; those outside of the range are not shown
    std::int64_t gapMs = 0; ///< two points further apart are not joined
    double top = 0; ///< what the chart is at least as high as
    Peak peak = Peak::Highest; ///< which of many points that fall together is shown
    std::function<std::string(double)> valueText;
};

/// A figure with the curve; with a word in its place where there are no points.
std::string Draw(const LineChart& chart);

struct StripMark
{
    enum class Kind { Good, Warning, Bad };
    TimeRange range; ///< without length: a moment
    Kind kind = Kind::Good;
    std::string text; ///< shown by a reader's pointer
};

struct StripChart
{
    std::string title;
    std::string summary;
    TimeRange range;
    std::vector<StripMark> marks;
};

/// A figure with a strip of times.
std::string Draw(const StripChart& chart);

/// A bar from the left, `filled` from 0 to 1.
std::string DrawBar(double filled, StripMark::Kind kind);

} // namespace Vexctl
