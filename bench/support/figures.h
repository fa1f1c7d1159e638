#pragma once

#include <cstdio>
#include <string>

// What is good: the largest ratio to the peer, or the largest value of ours; 0 for no such aim.
struct figure_aim {
    double ratio = 0;
    double most = 0;
};

inline std::string short_number(double value) {
    char text[32];
    const int digits = value >= 100 ? 0 : value >= 10 ? 1 : value >= 0.1 ? 2 : 3;
    (void)std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

// Prints a row of the table of figures, as ./bench/run gathers them: what, ours, the peer's in the
// same run, the ratio of the two, what it should be, and whether it is. All are costs: less is
// better. A peer of "" is none.
inline void figure(const std::string &what, double ours, const std::string &unit,
                   const std::string &peer = "", double theirs = 1, const figure_aim &aim = {}) {
    std::string wanted;
    if (aim.ratio > 0) {
        wanted = "ratio " + short_number(aim.ratio);
    }
    if (aim.most > 0) {
        wanted += (wanted.empty() ? "" : ", ") + short_number(aim.most) + " " + unit;
    }
    const bool is_met =
        (aim.ratio <= 0 || ours / theirs <= aim.ratio) && (aim.most <= 0 || ours <= aim.most);
    std::printf("| %s | %s %s | %s | %s | %s | %s |\n", what.c_str(), short_number(ours).c_str(),
                unit.c_str(),
                peer.empty() ? "" : (peer + " " + short_number(theirs) + " " + unit).c_str(),
                peer.empty() ? "" : short_number(ours / theirs).c_str(), wanted.c_str(),
                wanted.empty() ? ""
                : is_met       ? "met"
                               : "missed");
    (void)std::fflush(stdout);
}
