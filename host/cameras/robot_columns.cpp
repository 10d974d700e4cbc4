#include "host/cameras/robot_columns.h"

#include "base/text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <set>

namespace vexo {

namespace {

using Kind = PoseColumn::Kind;
using Names = std::vector<std::string>;

constexpr const char* expected = "name the columns picture, x y z, and qx qy qz qw, or rx ry rz, or m00 to m33";

/// "X (mm)", "x_mm" and "x[mm]" are "x" and "mm".
struct Name {
    std::string name, unit;
};

Name name_of(const std::string& text)
{
    std::string plain;
    for (const char c : text)
        if (std::isspace(static_cast<unsigned char>(c)) == 0 && c != ')' && c != ']')
            plain += c == '(' || c == '[' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (const std::string unit : { "mm", "m", "deg", "degrees", "rad", "radians" }) {
        const std::string end = "_" + unit;
        if (plain.size() > end.size() && plain.compare(plain.size() - end.size(), end.size(), end) == 0)
            return { plain.substr(0, plain.size() - end.size()), unit.substr(0, 3) };
    }
    return { plain, "" };
}

bool is_one_of(const std::string& name, const Names& names)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::size_t place_in(const std::string& name, const Names& names)
{
    return static_cast<std::size_t>(std::find(names.begin(), names.end(), name) - names.begin());
}

PoseColumn column_named(const std::string& name)
{
    if (is_one_of(name, { "picture", "image", "photo", "file", "name", "number", "nr", "no", "view", "id", "index" }))
        return { Kind::picture, 0 };
    for (const Names& names : { Names { "x", "y", "z" }, Names { "tx", "ty", "tz" }, Names { "px", "py", "pz" } })
        if (is_one_of(name, names)) return { Kind::place, place_in(name, names) };
    for (const Names& names : { Names { "rx", "ry", "rz" }, Names { "roll", "pitch", "yaw" }, Names { "a", "b", "c" },
             Names { "rvx", "rvy", "rvz" }, Names { "qx", "qy", "qz", "qw" } })
        if (is_one_of(name, names)) return { Kind::rotation, place_in(name, names) };
    if (name.size() == 3 && name[0] == 'm' && name[1] >= '0' && name[1] <= '3' && name[2] >= '0' && name[2] <= '3')
        return { Kind::matrix, static_cast<std::size_t>(4 * (name[1] - '0') + name[2] - '0') };
    return {};
}

/// Units of both kinds, which must not contradict one another.
bool take_unit(const Name& name, const PoseColumn& column, StatedColumns& stated)
{
    if (name.unit.empty()) return true;
    const bool angle = name.unit == "deg" || name.unit == "rad";
    if (angle != (column.kind == Kind::rotation)) return false;
    if (angle) {
        const bool degrees = name.unit == "deg";
        if (stated.degrees.value_or(degrees) != degrees) return false;
        stated.degrees = degrees;
        return true;
    }
    const double unit = name.unit == "mm" ? 1.0 : 1000.0;
    if (stated.unit_mm.value_or(unit) != unit) return false;
    stated.unit_mm = unit;
    return true;
}

/// What names of a rotation's columns say. Quaternions stay in the order of the file, so that another order can be
/// tried.
void take_rotation(const Names& names, std::vector<PoseColumn>& columns, StatedColumns& stated)
{
    std::string first, letters;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].kind != Kind::rotation) continue;
        if (first.empty()) first = names[i];
        letters += names[i].back();
    }
    if (letters == "xyzw" || letters == "wxyz") {
        std::size_t next = 0;
        for (PoseColumn& column : columns)
            if (column.kind == Kind::rotation) column.index = next++;
        stated.rotation = RotationForm { RotationForm::Kind::quaternion, letters };
    } else if (letters.size() == 4) {
        stated.rotation = RotationForm { RotationForm::Kind::quaternion, "xyzw" };
    } else if (first.rfind("rv", 0) == 0) {
        stated.rotation = RotationForm { RotationForm::Kind::vector, "" };
    }
    stated.by_axis = letters.size() == 3 && !is_one_of(first, { "a", "b", "c" });
}

/// rx, roll, a, rvx or qx, and as many as each has.
bool is_one_family(const Names& names, const std::vector<PoseColumn>& columns)
{
    std::set<std::string> families;
    for (std::size_t i = 0; i < columns.size(); ++i)
        if (columns[i].kind == Kind::rotation)
            families.insert(is_one_of(names[i], { "roll", "pitch", "yaw" }) ? "roll"
                    : names[i].size() == 1                                  ? "a"
                                                                            : names[i].substr(0, names[i].size() - 1));
    const bool four = families.count("q") > 0;
    return families.size() <= 1 && (families.empty() || (rotation_numbers(columns) == 4) == four);
}

std::string fault_of(const std::vector<PoseColumn>& columns)
{
    std::array<std::size_t, 5> count {};
    std::set<std::pair<Kind, std::size_t>> seen;
    for (const PoseColumn& column : columns) {
        if (column.kind == Kind::other) continue;
        ++count[static_cast<std::size_t>(column.kind)];
        if (!seen.insert({ column.kind, column.index }).second) return "two columns of one meaning";
    }
    const auto of = [&count](Kind kind) { return count[static_cast<std::size_t>(kind)]; };
    if (of(Kind::picture) != 1) return "no column says which picture; add one named picture, with names or numbers";
    const bool matrix = of(Kind::matrix) == 16 && of(Kind::place) == 0 && of(Kind::rotation) == 0;
    const std::size_t turn = of(Kind::rotation);
    if (matrix || (of(Kind::place) == 3 && (turn == 3 || turn == 4) && of(Kind::matrix) == 0)) return "";
    return expected;
}

} // namespace

std::vector<PoseColumn> named_columns(const Names& texts, StatedColumns& stated, std::string& fault)
{
    std::vector<PoseColumn> columns;
    Names names;
    for (const std::string& text : texts) {
        const Name name = name_of(text);
        columns.push_back(column_named(name.name));
        names.push_back(name.name);
        if (columns.back().kind != Kind::other && !take_unit(name, columns.back(), stated))
            fault = "the unit of column " + shown(text) + " makes no sense, or is another than before";
    }
    if (fault.empty()) fault = fault_of(columns);
    if (fault.empty() && !is_one_family(names, columns)) fault = expected;
    if (fault.empty()) take_rotation(names, columns, stated);
    return columns;
}

std::vector<PoseColumn> plain_columns(std::size_t count, std::string& fault)
{
    std::vector<PoseColumn> columns { { Kind::picture, 0 } };
    if (count == 17)
        for (std::size_t i = 0; i < 16; ++i)
            columns.push_back({ Kind::matrix, i });
    else if (count == 7 || count == 8)
        for (std::size_t i = 0; i < count - 1; ++i)
            columns.push_back({ i < 3 ? Kind::place : Kind::rotation, i < 3 ? i : i - 3 });
    else
        fault = std::string("the line has ") + std::to_string(count) + " fields; " + expected;
    return columns;
}

std::size_t rotation_numbers(const std::vector<PoseColumn>& columns)
{
    return static_cast<std::size_t>(
        std::count_if(columns.begin(), columns.end(), [](const PoseColumn& c) { return c.kind == Kind::rotation; }));
}

} // namespace vexo
