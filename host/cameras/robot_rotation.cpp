#include "host/cameras/robot_rotation.h"

#include <algorithm>
#include <cctype>
#include <cmath>

namespace vexo {

namespace {

using Kind = RotationForm::Kind;

constexpr double near_enough = 0.01; ///< rounding to three digits is ten times less, another meaning more

bool is_intrinsic(const std::string& order)
{
    return std::isupper(static_cast<unsigned char>(order[0])) != 0;
}

int axis_of(char letter)
{
    return std::tolower(static_cast<unsigned char>(letter)) - 'x';
}

bool has_all_axes(const std::string& order)
{
    return order[0] != order[1] && order[1] != order[2] && order[0] != order[2];
}

cv::Matx33d about(int axis, double angle)
{
    cv::Matx33d R = cv::Matx33d::eye();
    const int a = (axis + 1) % 3, b = (axis + 2) % 3;
    R(a, a) = R(b, b) = std::cos(angle);
    R(b, a) = std::sin(angle);
    R(a, b) = -R(b, a);
    return R;
}

std::optional<cv::Matx33d> by_quaternion(const std::string& order, const std::vector<double>& numbers)
{
    cv::Vec4d q;
    for (std::size_t i = 0; i < 4; ++i)
        q[order[i] == 'w' ? 3 : axis_of(order[i])] = numbers[i];
    const double length = cv::norm(q);
    if (!(std::abs(length - 1) < near_enough)) return std::nullopt;
    q /= length;
    const double x = q[0], y = q[1], z = q[2], w = q[3];
    return cv::Matx33d(1 - 2 * (y * y + z * z), 2 * (x * y - z * w), 2 * (x * z + y * w), 2 * (x * y + z * w),
        1 - 2 * (x * x + z * z), 2 * (y * z - x * w), 2 * (x * z - y * w), 2 * (y * z + x * w),
        1 - 2 * (x * x + y * y));
}

std::optional<cv::Matx33d> by_angles(const RotationForm& form, const std::vector<double>& numbers, double unit)
{
    if (form.by_axis && !has_all_axes(form.order)) return std::nullopt;
    cv::Matx33d R = cv::Matx33d::eye();
    for (std::size_t i = 0; i < 3; ++i) {
        const int axis = axis_of(form.order[i]);
        const cv::Matx33d turn = about(axis, unit * numbers[form.by_axis ? static_cast<std::size_t>(axis) : i]);
        R = is_intrinsic(form.order) ? R * turn : turn * R;
    }
    return R;
}

cv::Matx33d by_vector(const cv::Vec3d& turn)
{
    const double angle = cv::norm(turn);
    if (angle == 0) return cv::Matx33d::eye();
    const cv::Vec3d a = turn / angle;
    const double c = std::cos(angle), s = std::sin(angle);
    const cv::Matx33d cross(0, -a[2], a[1], a[2], 0, -a[0], -a[1], a[0], 0);
    return cv::Matx33d::eye() * c + cross * s + (a * a.t()) * (1 - c);
}

std::optional<cv::Matx33d> by_matrix(const std::vector<double>& numbers)
{
    const cv::Matx33d read(numbers.data());
    if (!(cv::norm(read * read.t() - cv::Matx33d::eye()) < near_enough && cv::determinant(read) > 0))
        return std::nullopt;
    const cv::SVD svd { cv::Mat(read) };
    return cv::Matx33d(cv::Mat_<double>(svd.u * svd.vt).ptr<double>()); // rounded digits are no rotation
}

std::vector<std::string> euler_orders()
{
    std::vector<std::string> orders;
    for (const std::string letters : { "XYZ", "xyz" })
        for (const char a : letters)
            for (const char b : letters)
                for (const char c : letters)
                    if (a != b && b != c) orders.push_back({ a, b, c });
    return orders;
}

/// Whether two orders of Euler angles mean one rotation. By axis, "xyz" is "ZYX".
bool is_same_order(const std::string& a, const std::string& b, bool by_axis)
{
    if (!by_axis || is_intrinsic(a) == is_intrinsic(b)) return a == b;
    return std::equal(a.begin(), a.end(), b.rbegin(), [](char x, char y) { return axis_of(x) == axis_of(y); });
}

} // namespace

std::optional<RotationForm> rotation_form_named(const std::string& name)
{
    if (name == "xyzw" || name == "wxyz") return RotationForm { Kind::quaternion, name };
    if (name == "vector") return RotationForm { Kind::vector, "" };
    if (name == "matrix") return RotationForm { Kind::matrix, "" };
    const std::vector<std::string> orders = euler_orders();
    if (std::find(orders.begin(), orders.end(), name) == orders.end()) return std::nullopt;
    return RotationForm { Kind::euler, name };
}

std::string describe(const RotationForm& form)
{
    const std::string unit = form.degrees ? ", in degrees" : ", in radians";
    switch (form.kind) {
    case Kind::quaternion:
        return "quaternions " + form.order;
    case Kind::vector:
        return "rotation vectors" + unit;
    case Kind::matrix:
        return "matrices";
    case Kind::euler:
        break;
    }
    std::string product;
    for (const char letter : form.order) {
        const std::string factor = std::string("R") + static_cast<char>('x' + axis_of(letter));
        product = is_intrinsic(form.order) ? product + (product.empty() ? "" : " ") + factor
                                           : factor + (product.empty() ? "" : " ") + product;
    }
    return "Euler angles " + form.order + " (R = " + product + ")" + unit;
}

std::optional<cv::Matx33d> rotation_of(const RotationForm& form, const std::vector<double>& numbers)
{
    const std::size_t count = form.kind == Kind::quaternion ? 4 : form.kind == Kind::matrix ? 9 : 3;
    if (numbers.size() != count) return std::nullopt;
    const double unit = form.degrees ? CV_PI / 180 : 1.0;
    switch (form.kind) {
    case Kind::quaternion:
        return by_quaternion(form.order, numbers);
    case Kind::euler:
        return by_angles(form, numbers, unit);
    case Kind::vector:
        return by_vector(unit * cv::Vec3d(numbers.data()));
    case Kind::matrix:
        break;
    }
    return by_matrix(numbers);
}

std::vector<RotationForm> other_forms(const RotationForm& form)
{
    std::vector<RotationForm> forms;
    if (form.kind == Kind::quaternion) forms.push_back({ Kind::quaternion, form.order == "xyzw" ? "wxyz" : "xyzw" });
    if (!form.has_angles()) return forms;
    for (const bool degrees : { form.degrees, !form.degrees }) {
        for (const std::string& order : euler_orders()) {
            const bool same
                = form.kind == Kind::euler && degrees == form.degrees && is_same_order(order, form.order, form.by_axis);
            // By axis each order has a double about the other kind of axes: one of both will do.
            const bool needed = !form.by_axis || (has_all_axes(order) && is_intrinsic(order));
            if (!same && needed) forms.push_back({ Kind::euler, order, degrees, form.by_axis });
        }
        if (form.kind != Kind::vector || degrees != form.degrees) forms.push_back({ Kind::vector, "", degrees });
    }
    for (RotationForm& other : forms)
        other.by_axis = form.by_axis;
    return forms;
}

} // namespace vexo
