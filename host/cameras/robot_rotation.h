#pragma once

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

/// How robots say which way their gripper is turned.
namespace vexo {

/// What the numbers of a rotation mean. Rotations are base_from_gripper unless a PoseReading inverts them.
struct RotationForm {
    enum class Kind {
        quaternion, ///< order: "xyzw" or "wxyz", as the numbers follow one another
        euler,      ///< order: three letters. "ZYX": R = Rz Ry Rx, about axes that turn along (intrinsic);
                    ///< "zyx": R = Rx Ry Rz, about axes that stay (extrinsic)
        vector,     ///< axis times angle (Rodrigues)
        matrix      ///< nine numbers, row by row
    };
    Kind kind = Kind::quaternion;
    std::string order;
    bool degrees = false; ///< of angles and rotation vectors; else radians
    /// Euler angles stand as those about x, y and z; else in the order of the letters.
    bool by_axis = false;

    bool has_angles() const { return kind == Kind::euler || kind == Kind::vector; }
};

/// "xyzw", "wxyz", "vector", "matrix", or three letters of axes as in RotationForm; nothing for any other name, such as
/// letters of both sizes or one axis twice in a row.
std::optional<RotationForm> rotation_form_named(const std::string& name);

/// "Euler angles ZYX (R = Rz Ry Rx), in degrees".
std::string describe(const RotationForm& form);

/// The rotation; nothing where the numbers are none of that form: their count, a quaternion or a matrix farther than 1
/// % from a rotation, or angles about x, y and z for an order that has not all of them.
std::optional<cv::Matx33d> rotation_of(const RotationForm& form, const std::vector<double>& numbers);

/// All forms, but this one, that as many numbers may have; angles in degrees and in radians.
std::vector<RotationForm> other_forms(const RotationForm& form);

} // namespace vexo
