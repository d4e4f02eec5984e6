#include "vex/apps/vexctl/svg_chart.h"

#include "vex/apps/vexctl/html_text.h"
#include "vex/apps/vexctl/times.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Vexctl {

namespace {
// What a drawing is wide and high in its own units; a page stretches it.
constexpr double width = 1000;
constexpr double height = 100;
// More points than a screen has columns would only make the page heavy.
constexpr std::size_t maxColumns = 500;

std::string Number(double value)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

double XOf(const TimeRange& range, std::int64_t timeMs)
{
    const auto length = static_cast<double>(std::max<std::int64_t>(1, range.endMs - range.beginMs));
    return std::clamp(static_cast<double>(timeMs - range.beginMs) / length, 0.0, 1.0) * width;
}

bool Holds(const TimeRange& range, std::int64_t timeMs)
{
    return timeMs >= range.beginMs && timeMs <= range.endMs;
}

const char* ClassOf(StripMark::Kind kind)
{
    return kind == StripMark::Kind::Good ? "good" : kind == StripMark::Kind::Warning ? "warn" : "bad";
}

std::string Head(const std::string& title, const std::string& summary)
{
    return "<figure><figcaption><b>" + Html(title) + "</b> <span>" + Html(summary) + "</span></figcaption>\n";
}

std::string SvgBegin(const char* classes, double svgHeight, const std::string& label)
{
    return std::string("<svg class=\"") + classes + "\" viewBox=\"0 0 " + Number(width) + " " + Number(svgHeight)
           + "\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\"" + Html(label) + "\">";
}

// Begin, middle and end of the time that is shown.
std::string TimeAxis(const TimeRange& range)
{
    std::string axis = "<div class=\"axis\">";
    for (const std::int64_t at : {range.beginMs, range.beginMs + (range.endMs - range.beginMs) / 2, range.endMs})
        axis += "<span>" + LocalTime(at).substr(5, 11) + "</span>";
    return axis + "</div></figure>\n";
}

// Of the points that fall into one column the one that matters.
std::vector<ChartPoint> Thinned(const LineChart& chart)
{
    const std::int64_t columnMs =
        std::max<std::int64_t>(1, (chart.range.endMs - chart.range.beginMs) / static_cast<std::int64_t>(maxColumns));
    std::vector<ChartPoint> thinned;
    std::int64_t last = -1;
    for (const ChartPoint& point : chart.points) {
        if (!Holds(chart.range, point.timeMs) || !std::isfinite(point.value))
            continue;
        const std::int64_t column = (point.timeMs - chart.range.beginMs) / columnMs;
        if (column != last) {
            thinned.push_back(point);
            last = column;
        } else if ((chart.peak == Peak::Highest) == (point.value > thinned.back().value)) {
            thinned.back().value = point.value;
        }
    }
    return thinned;
}

// One of 1, 2, 2.5, 5 times a power of ten that is not below the value.
double RoundUp(double value)
{
    const double power = std::pow(10, std::floor(std::log10(value)));
    for (const double step : {1.0, 2.0, 2.5, 5.0})
        if (value <= step * power)
            return step * power;
    return 10 * power;
}

double TopOf(const LineChart& chart, const std::vector<ChartPoint>& points)
{
    double top = chart.top;
    for (const ChartPoint& point : points)
        top = std::max(top, point.value);
    return top > chart.top || top <= 0 ? RoundUp(top > 0 ? top : 1) : top;
}

// The area below the points and the line through them, anew behind each gap.
std::string Curves(const LineChart& chart, const std::vector<ChartPoint>& points, double top)
{
    // Points that were thinned out are no gap.
    const std::int64_t gapMs =
        std::max(chart.gapMs, 2 * (chart.range.endMs - chart.range.beginMs) / static_cast<std::int64_t>(maxColumns));
    std::string areas, lines;
    for (std::size_t begin = 0, end = 0; begin < points.size(); begin = end) {
        std::string path;
        for (end = begin; end < points.size() && (end == begin || points[end].timeMs - points[end - 1].timeMs <= gapMs);
             ++end)
            path += (end == begin ? "" : " L") + Number(XOf(chart.range, points[end].timeMs)) + " "
                    + Number(height - std::clamp(points[end].value / top, 0.0, 1.0) * height);
        // A point alone is a dot: a line of no length with round ends.
        lines += "<path class=\"line\" d=\"M" + path + (end == begin + 1 ? " h0" : "") + "\"/>";
        areas += "<path class=\"area\" d=\"M" + Number(XOf(chart.range, points[begin].timeMs)) + " " + Number(height)
                 + " L" + path + " L" + Number(XOf(chart.range, points[end - 1].timeMs)) + " " + Number(height)
                 + " Z\"/>";
    }
    return areas + lines;
}

} // namespace

std::string Draw(const LineChart& chart)
{
    std::string html = Head(chart.title, chart.summary);
    const std::vector<ChartPoint> points = Thinned(chart);
    if (points.empty())
        return html + "<p class=\"none\">nothing is known of this time</p></figure>\n";
    const double top = TopOf(chart, points);
    html += "<div class=\"plot\"><div class=\"scale\"><span>" + Html(chart.valueText(top)) + "</span><span>"
            + Html(chart.valueText(top / 2)) + "</span><span>" + Html(chart.valueText(0)) + "</span></div>"
            + SvgBegin("curve", height, chart.title) + "<path class=\"grid\" d=\"M0 0H" + Number(width) + "M0 "
            + Number(height / 2) + "H" + Number(width) + "M0 " + Number(height) + "H" + Number(width) + "\"/>"
            + Curves(chart, points, top) + "</svg></div>";
    return html + TimeAxis(chart.range);
}

std::string Draw(const StripChart& chart)
{
    constexpr double stripHeight = 10;
    std::string html = Head(chart.title, chart.summary) + SvgBegin("strip", stripHeight, chart.title);
    for (const StripMark& mark : chart.marks) {
        if (mark.range.endMs < chart.range.beginMs || mark.range.beginMs > chart.range.endMs)
            continue;
        const double x = XOf(chart.range, mark.range.beginMs);
        const double wide = XOf(chart.range, mark.range.endMs) - x;
        const std::string title = mark.text.empty() ? "" : "<title>" + Html(mark.text) + "</title>";
        const std::string colour = ClassOf(mark.kind);
        if (mark.range.beginMs == mark.range.endMs)
            html += "<path class=\"moment " + colour + "\" d=\"M" + Number(x) + " 0V" + Number(stripHeight) + "\">"
                    + title + "</path>";
        else
            html += "<rect class=\"" + colour + "\" x=\"" + Number(x) + "\" y=\"0\" width=\"" + Number(wide)
                    + "\" height=\"" + Number(stripHeight) + "\">" + title + "</rect>";
    }
    return html + "</svg>" + TimeAxis(chart.range);
}

std::string DrawBar(double filled, StripMark::Kind kind)
{
    const double share = std::isfinite(filled) ? std::clamp(filled, 0.0, 1.0) : 0;
    return "<svg class=\"bar\" viewBox=\"0 0 100 10\" preserveAspectRatio=\"none\" role=\"img\" aria-label=\""
           + Number(share * 100) + " %\"><rect class=\"rest\" width=\"100\" height=\"10\"/><rect class=\""
           + ClassOf(kind) + "\" width=\"" + Number(share * 100) + "\" height=\"10\"/></svg>";
}

} // namespace Vexctl
