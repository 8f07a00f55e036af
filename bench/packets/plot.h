/**
 * A plot of rates against numbers of rules, as SVG.
 */
#ifndef BENCH_PACKETS_PLOT_H
#define BENCH_PACKETS_PLOT_H

#include <string>
#include <vector>

struct Series {
    std::string name;
    std::string colour;
    std::vector<unsigned> rules;
    std::vector<double> rates; /**< millions of packets per second, one for each of rules */
};

/** A rate that does not depend on rules: a dashed line. */
struct Level {
    std::string name;
    double rate;
};

/**
 * Both axes are logarithmic, so that equal factors are equal distances; no rules at all stand at
 * the left. It is readable on white and on black: the ground is transparent.
 */
std::string plot(const std::vector<Series> &series, const std::vector<Level> &levels);

#endif
