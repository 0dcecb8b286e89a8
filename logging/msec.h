// A duration in milliseconds that prints as fixed-point with three decimals
// ("12.500") without disturbing the stream's own formatting.
#pragma once

#include <ostream>

namespace OrvaneInternal {

struct msec {
    explicit msec(double milliseconds) : value(milliseconds) {}
    double value;
};

std::ostream& operator<<(std::ostream& out, const msec& value);

} // namespace OrvaneInternal
