#pragma once
// The one form in which benches print what they measured, so that a command can read it and put it into a table.

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <vector>

namespace Bench {

/// The middle of what several runs took. `values` is not empty.
inline double Median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

/// Prints one measure as one line:
///   what: 1.25 ms, libzip 5.00 ms, ratio 0.250 (claim: at most 0.30)
/// and " EXCEEDED" behind it when the ratio is above the claim. Both figures are in `unit`. A claim of 0 is none:
/// the line ends behind the ratio. `what` and `yardstick` have no colon and no comma that a blank follows.
/// True when the claim holds; a bench ends with status 1 when one of its claims does not.
inline bool Row(const char* what, double ours, const char* yardstick, double theirs, const char* unit, double claim)
{
    const double ratio = ours / theirs;
    std::printf("%s: %.4g %s, %s %.4g %s, ratio %.3f", what, ours, unit, yardstick, theirs, unit, ratio);
    if (claim <= 0) {
        std::puts("");
        return true;
    }
    std::printf(" (claim: at most %.2f)%s\n", claim, ratio <= claim ? "" : " EXCEEDED");
    return ratio <= claim;
}

/// What both took in one turn.
struct Turn
{
    double ours;
    double theirs;
};

/// The turn whose ratio is in the middle of all: what slows a machine for a while slows both in the same turn, and does
/// not count for one of them alone. As many of ours as of theirs, turn by turn, and at least one.
inline Turn MiddleTurn(const std::vector<double>& ours, const std::vector<double>& theirs)
{
    std::vector<Turn> turns;
    for (std::size_t i = 0; i < ours.size(); ++i)
        turns.push_back({ours[i], theirs.at(i)});
    const auto middle = turns.begin() + static_cast<std::ptrdiff_t>(turns.size() / 2);
    std::nth_element(turns.begin(), middle, turns.end(),
                     [](const Turn& a, const Turn& b) { return a.ours * b.theirs < b.ours * a.theirs; });
    return *middle;
}

/// `Row` of the turn in the middle.
inline bool Row(const char* what, const std::vector<double>& ours, const char* yardstick,
                const std::vector<double>& theirs, const char* unit, double claim)
{
    const Turn middle = MiddleTurn(ours, theirs);
    return Row(what, middle.ours, yardstick, middle.theirs, unit, claim);
}

} // namespace Bench
