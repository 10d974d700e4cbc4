#pragma once

#include <string>

/// Figures as people read them, whatever the locale.
namespace vexo {

/// A number with `decimals` digits after a point, whatever the locale; "nan" and "inf" in words. What rounds to zero
/// has no sign.
std::string number(double value, int decimals);

/// A share as per cent with two decimals: "99.51 %"; "-" of nothing.
std::string percent(double part, double whole);

/// An integer with thin groups: "1 310 720".
std::string grouped(long long value);

/// "1280 x 1024".
std::string size_text(int width, int height);

/// A text of a file as a message may show it: a "?" for each byte that a terminal would obey, and "..." for the end of
/// a long one.
std::string shown(const std::string& text);

} // namespace vexo
