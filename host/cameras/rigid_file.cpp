#include "host/cameras/rigid_file.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/plain_yaml.h"
#include "base/whole_file.h"
#include "host/cameras/camera_file.h"

#include <charconv>
#include <cmath>
#include <sstream>
#include <string_view>
#include <vector>

namespace vexo {

namespace {

constexpr const char* what_it_is = ": is no rigid transform: a YAML with a 4 x 4 \"RT\", or 16 numbers row by row";

std::vector<double> numbers_in(const std::string& path)
{
    std::istringstream text(read_bytes(path, max_yaml_bytes));
    std::vector<double> numbers;
    for (std::string line; std::getline(text, line);) {
        if (!line.empty() && line[0] == '#') continue;
        constexpr std::string_view between = " \t\r,;";
        for (std::size_t at = line.find_first_not_of(between); at != std::string::npos;
             at = line.find_first_not_of(between, at)) {
            double value = 0.0;
            const char* const end = line.data() + line.size();
            const auto read = std::from_chars(line.data() + at, end, value);
            at = static_cast<std::size_t>(read.ptr - line.data());
            if (read.ec != std::errc() || (read.ptr != end && between.find(*read.ptr) == std::string_view::npos))
                throw Failure(path + what_it_is);
            numbers.push_back(value);
        }
    }
    return numbers;
}

cv::Matx44d numbers_of(const std::string& path)
{
    cv::FileStorage yaml;
    cv::Mat matrix;
    const auto read = [&] { return read_matrix(yaml, "RT", 4, 4, matrix); };
    if (open_yaml(path, yaml) && failure_if_opencv_throws(path + what_it_is, read)) return matrix;
    const std::vector<double> numbers = numbers_in(path);
    if (numbers.size() != 16) throw Failure(path + what_it_is);
    return cv::Matx44d(numbers.data());
}

} // namespace

cv::Matx44d read_rigid(const std::string& path)
{
    constexpr double tolerance = 1e-6;
    const cv::Matx44d m = numbers_of(path);
    const cv::Matx33d R = m.get_minor<3, 3>(0, 0);
    const cv::Matx33d off = R * R.t() - cv::Matx33d::eye();
    for (const double value : m.val)
        if (!std::isfinite(value)) throw Failure(path + ": holds a number that is not finite; save it again");
    if (!(cv::norm(off, cv::NORM_INF) <= tolerance) || !(cv::determinant(R) > 0.0))
        throw Failure(
            path + ": its rotation scales, bends or mirrors space; it is to be a 4 x 4 of rotation and shift");
    if (!(cv::norm(m.row(3) - cv::Matx14d(0, 0, 0, 1), cv::NORM_INF) <= tolerance))
        throw Failure(path + ": its last row is not 0 0 0 1; write the shift into the last column");
    return m;
}

cv::Matx44d inverse_of_rigid(const cv::Matx44d& transform)
{
    const cv::Matx33d R = transform.get_minor<3, 3>(0, 0).t();
    const cv::Vec3d t = -(R * cv::Vec3d(transform(0, 3), transform(1, 3), transform(2, 3)));
    return { R(0, 0), R(0, 1), R(0, 2), t[0], R(1, 0), R(1, 1), R(1, 2), t[1], R(2, 0), R(2, 1), R(2, 2), t[2], 0, 0, 0,
        1 };
}

} // namespace vexo
