#include "plot.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace
{

constexpr double WIDTH = 860, HEIGHT = 520;
constexpr double LEFT = 70, RIGHT = 130, TOP = 70, BOTTOM = 60; // margins
constexpr double LOWEST = 0.01, HIGHEST = 12;                   // rates
constexpr unsigned TICKS[] = {0, 1, 4, 16, 64, 256, 1024};
constexpr double NO_RULES = -2; // where 0 stands on a scale of powers of two
constexpr char GREY[] = "#808890";

double xOf(unsigned rules)
{
    const double at = rules ? std::log2(rules) : NO_RULES;
    return LEFT + 20 + (at - NO_RULES) / (10 - NO_RULES) * (WIDTH - LEFT - RIGHT - 40);
}

double yOf(double rate)
{
    const double at =
        std::log(std::clamp(rate, LOWEST, HIGHEST) / LOWEST) / std::log(HIGHEST / LOWEST);
    return HEIGHT - BOTTOM - at * (HEIGHT - TOP - BOTTOM);
}

std::string text(double x, double y, const char *anchor, const std::string &colour,
                 const std::string &what)
{
    return fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"{}\" fill=\"{}\">{}</text>\n",
                       x, y, anchor, colour, what);
}

std::string line(double x1, double y1, double x2, double y2, const char *style)
{
    return fmt::format("<path d=\"M{:.1f} {:.1f}L{:.1f} {:.1f}\" stroke=\"{}\" {}/>\n", x1, y1, x2,
                       y2, GREY, style);
}

std::string value(double rate)
{
    return fmt::format("{:.{}f}", rate, rate < 0.1 ? 3 : 2);
}

std::string axes()
{
    constexpr double right = WIDTH - RIGHT, bottom = HEIGHT - BOTTOM;
    std::string svg = line(LEFT, bottom, right, bottom, "") + line(LEFT, TOP, LEFT, bottom, "");
    for (unsigned rules : TICKS) {
        svg += line(xOf(rules), bottom, xOf(rules), bottom + 5, "");
        svg += text(xOf(rules), bottom + 20, "middle", GREY,
                    rules ? fmt::format("{}", rules) : "none");
    }
    for (double rate : {0.01, 0.1, 1.0, 10.0}) {
        svg += line(LEFT, yOf(rate), right, yOf(rate), "stroke-opacity=\".3\"");
        svg += text(LEFT - 8, yOf(rate) + 4, "end", GREY, fmt::format("{:g}", rate));
    }
    svg += text((LEFT + right) / 2, HEIGHT - 16, "middle", GREY, "access rules");
    return svg + fmt::format("<text transform=\"translate(20 {:.1f}) rotate(-90)\" "
                             "text-anchor=\"middle\" fill=\"{}\">million packets a second</text>\n",
                             (TOP + bottom) / 2, GREY);
}

/** Whether another point stands so closely above one that a label has no place between them. */
bool coveredAbove(const std::vector<Series> &all, unsigned rules, double rate)
{
    for (const Series &other : all)
        for (size_t i = 0; i < other.rules.size(); i++) {
            const double above = yOf(rate) - yOf(other.rates[i]);
            if (other.rules[i] == rules && above > 0 && above < 40)
                return true;
        }
    return false;
}

std::string curve(const std::vector<Series> &all, const Series &series)
{
    std::string path, points;
    for (size_t i = 0; i < series.rules.size(); i++) {
        const double x = xOf(series.rules[i]), y = yOf(series.rates[i]);
        const bool below = coveredAbove(all, series.rules[i], series.rates[i]);
        path += fmt::format("{}{:.1f} {:.1f}", i ? 'L' : 'M', x, y);
        points += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"4\" fill=\"{}\"/>\n", x, y,
                              series.colour);
        points += text(x, below ? y + 19 : y - 10, "middle", series.colour, value(series.rates[i]));
    }
    return fmt::format("<path d=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2\"/>\n", path,
                       series.colour) +
           points;
}

std::string legend(const std::vector<Series> &series)
{
    std::string svg;
    double x = LEFT;
    for (const Series &each : series) {
        svg += fmt::format("<rect x=\"{:.1f}\" y=\"40\" width=\"18\" height=\"4\" fill=\"{}\"/>\n",
                           x, each.colour);
        svg += text(x + 24, 46, "start", each.colour, each.name);
        x += 60 + 7.2 * static_cast<double>(each.name.size());
    }
    return svg;
}

std::string dashed(const Level &level)
{
    constexpr double right = WIDTH - RIGHT;
    const double y = yOf(level.rate);
    return line(LEFT, y, right, y, "stroke-dasharray=\"6 4\"") +
           text(right + 6, y + 4, "start", GREY, level.name + " " + value(level.rate));
}

} // namespace

std::string plot(const std::vector<Series> &series, const std::vector<Level> &levels)
{
    std::string svg =
        fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0:g} {1:g}\" "
                    "width=\"{0:g}\" height=\"{1:g}\" font-family=\"sans-serif\" "
                    "font-size=\"13\">\n<title>Packets worked off a second, against the "
                    "number of access rules</title>\n",
                    WIDTH, HEIGHT);
    svg += text(LEFT, 22, "start", GREY,
                "Packets worked off a second (wall clock, the sender's set-up included), against "
                "the number of access rules");
    svg += axes() + legend(series);
    for (const Level &level : levels)
        svg += dashed(level);
    for (const Series &each : series)
        svg += curve(series, each);
    return svg + "</svg>\n";
}
