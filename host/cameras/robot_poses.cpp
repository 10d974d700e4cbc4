#include "host/cameras/robot_poses.h"

#include "base/failure.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/cameras/inverted.h"
#include "host/cameras/robot_columns.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>

namespace vexo {

namespace {

constexpr std::size_t largest_file = 16U << 20U;
constexpr std::size_t most_rows = 10000;

using Fields = std::vector<std::string>;

std::string trimmed(const std::string& text)
{
    const char* blanks = " \t\r\"";
    const std::size_t begin = text.find_first_not_of(blanks);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

Fields fields_of(const std::string& line)
{
    const char between = line.find(';') != std::string::npos ? ';' : line.find(',') != std::string::npos ? ',' : ' ';
    Fields fields(1);
    for (const char c : line) {
        const bool blank = between == ' ' && (c == ' ' || c == '\t');
        if (c != between && !blank)
            fields.back() += c;
        else if (!blank || !fields.back().empty())
            fields.emplace_back();
    }
    for (std::string& field : fields)
        field = trimmed(field);
    return fields;
}

std::optional<double> number_of(std::string text)
{
    if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.erase(0, 1);
    double value = 0.0;
    const char* end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, value);
    if (text.empty() || read.ec != std::errc() || read.ptr != end || !std::isfinite(value)) return std::nullopt;
    return value;
}

bool is_header(const Fields& fields)
{
    return fields.size() > 1 && std::none_of(fields.begin() + 1, fields.end(), [](const std::string& f) {
        return number_of(f).has_value();
    });
}

class Reader {
public:
    explicit Reader(const std::string& path) { _file.path = path; }

    RobotPoseFile read()
    {
        std::string bytes = read_bytes(_file.path, largest_file);
        if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) bytes.erase(0, 3);
        for (std::size_t begin = 0; begin < bytes.size();) {
            const std::size_t end = std::min(bytes.find('\n', begin), bytes.size());
            ++_line;
            _take(trimmed(bytes.substr(begin, std::min(end, bytes.find('#', begin)) - begin)));
            begin = end + 1;
        }
        if (_file.rows.empty()) throw Failure(_file.path + ": it has no pose");
        return _file;
    }

private:
    [[noreturn]] void _fail(const std::string& why) const
    {
        throw Failure(_file.path + ": line " + std::to_string(_line) + ": " + why);
    }

    void _take(const std::string& line)
    {
        if (line.empty()) return;
        const Fields fields = fields_of(line);
        if (_columns.empty()) {
            const bool header = is_header(fields);
            std::string fault;
            _columns = header ? named_columns(fields, _file, fault) : plain_columns(fields.size(), fault);
            if (!fault.empty()) _fail(fault);
            if (header) return;
        }
        if (fields.size() != _columns.size())
            _fail("it has " + std::to_string(fields.size()) + " fields, not " + std::to_string(_columns.size())
                + " as before");
        if (_file.rows.size() == most_rows) _fail("more than " + std::to_string(most_rows) + " poses");
        _file.rows.push_back(_row(fields));
    }

    RobotPoseRow _row(const Fields& fields)
    {
        RobotPoseRow row;
        row.line = _line;
        std::vector<double> matrix(16);
        row.rotation.resize(rotation_numbers(_columns));
        for (std::size_t i = 0; i < fields.size(); ++i) {
            const PoseColumn& column = _columns[i];
            if (column.kind == PoseColumn::Kind::other) continue;
            if (column.kind == PoseColumn::Kind::picture) {
                row.picture = fields[i];
                continue;
            }
            const auto number = number_of(fields[i]);
            if (!number)
                _fail("\"" + shown(fields[i]) + "\" is no number"
                    + (fields[i].find(',') != std::string::npos ? "; write a decimal point" : ""));
            constexpr double farthest = 1e9; // 1000 km in mm; squares of it still are numbers
            if (std::abs(*number) > farthest) _fail("\"" + shown(fields[i]) + "\" is too large for a pose");
            if (column.kind == PoseColumn::Kind::place) row.place[static_cast<int>(column.index)] = *number;
            if (column.kind == PoseColumn::Kind::rotation) row.rotation[column.index] = *number;
            if (column.kind == PoseColumn::Kind::matrix) matrix[column.index] = *number;
        }
        if (row.picture.empty()) _fail("it names no picture");
        if (!_pictures.insert(row.picture).second) _fail("picture " + shown(row.picture) + " comes twice");
        if (row.rotation.empty()) _take_matrix(matrix, row);
        return row;
    }

    void _take_matrix(const std::vector<double>& m, RobotPoseRow& row) const
    {
        constexpr double rounding = 1e-6;
        const auto ends_as_a_pose = [&m](std::size_t a, std::size_t b, std::size_t c) {
            return std::abs(m[a]) + std::abs(m[b]) + std::abs(m[c]) + std::abs(m[15] - 1) < rounding;
        };
        if (!ends_as_a_pose(12, 13, 14))
            _fail(ends_as_a_pose(3, 7, 11) ? "the 4 x 4 is transposed: write it row by row"
                                           : "the last row of the 4 x 4 is not 0 0 0 1");
        row.place = { m[3], m[7], m[11] };
        row.rotation = { m[0], m[1], m[2], m[4], m[5], m[6], m[8], m[9], m[10] };
    }

    RobotPoseFile _file;
    std::vector<PoseColumn> _columns;
    std::set<std::string> _pictures;
    int _line = 0;
};

double largest(const RobotPoseFile& file, bool of_places)
{
    double most = 0.0;
    for (const RobotPoseRow& row : file.rows)
        for (std::size_t i = 0; i < 3; ++i)
            most = std::max(most, std::abs(of_places ? row.place[static_cast<int>(i)] : row.rotation[i]));
    return most;
}

RotationForm form_of(const RobotPoseFile& file, const std::string& asked)
{
    const std::size_t numbers = file.rows.front().rotation.size();
    if (numbers == 9) {
        if (!asked.empty() && asked != "matrix")
            throw UsageFailure("--rotation " + asked + ": " + file.path + " has matrices of 4 x 4");
        return { RotationForm::Kind::matrix, "" };
    }
    if (asked.empty() && file.rotation) return *file.rotation;
    if (asked.empty())
        throw UsageFailure(file.path + ": nothing says what the rotation's " + std::to_string(numbers)
            + " numbers are; add --rotation "
            + (numbers == 4 ? "xyzw or wxyz"
                            : "vector, or the order of Euler angles: ZYX about axes that turn along, xyz about axes "
                              "that stay"));
    auto form = rotation_form_named(asked);
    if (!form)
        throw UsageFailure("--rotation " + asked
            + ": write xyzw, wxyz, vector, matrix, or an order of Euler angles such as ZYX (turning axes) or xyz "
              "(fixed axes)");
    if ((form->kind == RotationForm::Kind::quaternion ? 4U : 3U) != numbers || form->kind == RotationForm::Kind::matrix)
        throw UsageFailure(
            "--rotation " + asked + ": " + file.path + " has " + std::to_string(numbers) + " numbers for the rotation");
    form->by_axis = file.by_axis;
    return *form;
}

void complete_angles(const RobotPoseFile& file, const PoseReadingRequest& request, PoseReading& reading)
{
    if (!reading.rotation.has_angles()) {
        if (request.degrees) throw UsageFailure("--angles: the rotations of " + file.path + " are no angles");
        return;
    }
    constexpr double above_a_turn = 6.5;
    const bool many = largest(file, false) > above_a_turn;
    reading.rotation.degrees = request.degrees.value_or(file.degrees.value_or(many));
    if (!request.degrees && !file.degrees)
        reading.guessed.push_back(
            many ? "angles in degrees, as some exceed a turn in radians" : "angles in radians, as none exceeds 6.5");
}

void complete_unit(const RobotPoseFile& file, const PoseReadingRequest& request, PoseReading& reading)
{
    constexpr double longest_arm_m = 20.0;
    const bool metres = largest(file, true) < longest_arm_m;
    reading.unit_mm = request.unit_mm.value_or(file.unit_mm.value_or(metres ? 1000.0 : 1.0));
    if (!request.unit_mm && !file.unit_mm)
        reading.guessed.push_back(metres ? "places in metres, as none exceeds 20" : "places in mm, as some exceed 20");
}

} // namespace

RobotPoseFile read_robot_poses(const std::string& path)
{
    return Reader(path).read();
}

PoseReading reading_of(const RobotPoseFile& file, const PoseReadingRequest& request)
{
    PoseReading reading;
    reading.rotation = form_of(file, request.rotation);
    reading.inverse = request.inverse;
    reading.transposed = request.transposed;
    complete_angles(file, request, reading);
    complete_unit(file, request, reading);
    if (reading.rotation.by_axis && !rotation_of(reading.rotation, { 0, 0, 0 }))
        throw UsageFailure("--rotation " + reading.rotation.order + ": " + file.path
            + " has angles about x, y and z; an order with one axis twice needs columns a b c");
    for (const RobotPoseRow& row : file.rows)
        if (!robot_pose(row, reading))
            throw Failure(file.path + ": line " + std::to_string(row.line) + ": "
                + (row.rotation.size() == 4 ? "the quaternion's length is not 1"
                                            : "the first three columns of the 4 x 4 are no rotation"));
    return reading;
}

std::string describe(const PoseReading& reading)
{
    return describe(reading.rotation) + ", " + (reading.unit_mm == 1.0 ? "mm" : "m") + ", "
        + (reading.inverse ? "the base in the gripper" : "the gripper in the base")
        + (reading.transposed ? ", rotations transposed" : "");
}

std::optional<cv::Affine3d> robot_pose(const RobotPoseRow& row, const PoseReading& reading)
{
    const auto R = rotation_of(reading.rotation, row.rotation);
    if (!R) return std::nullopt;
    const cv::Affine3d pose(reading.transposed ? R->t() : *R, reading.unit_mm * row.place);
    return reading.inverse ? inverted(pose) : pose;
}

} // namespace vexo
