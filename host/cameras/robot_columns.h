#pragma once

#include "host/cameras/robot_rotation.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// What a column of a robot's poses holds.
struct PoseColumn {
    enum class Kind { other, picture, place, rotation, matrix };
    Kind kind = Kind::other;
    std::size_t index = 0; ///< in place, rotation or the 16 numbers of the matrix
};

/// What the names of columns say.
struct StatedColumns {
    std::optional<RotationForm> rotation; ///< where the header names one
    bool by_axis = false;                 ///< three angles that the header calls those about x, y and z
    std::optional<bool> degrees;          ///< of "rx_deg", "rx_rad"
    std::optional<double> unit_mm;        ///< of "x_mm", "x_m"
};

/// Columns by their names; what these say of rotation and units goes into `stated`. Columns of other names are ignored.
/// @param fault  a clause that says what is missing or comes twice
std::vector<PoseColumn> named_columns(const std::vector<std::string>& names, StatedColumns& stated, std::string& fault);

/// Columns of lines that are named by nothing: 7, 8 or 17.
std::vector<PoseColumn> plain_columns(std::size_t count, std::string& fault);

/// How many numbers of a rotation there are; 0 for a 4 x 4.
std::size_t rotation_numbers(const std::vector<PoseColumn>& columns);

} // namespace vexo
