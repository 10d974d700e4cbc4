#pragma once

#include "vexo/records.h"

#include <string>
#include <vector>

namespace vexo {

/// Pose of a board seen by calibrated cameras. No exported factory makes it: programs that link vexo_core
/// statically construct vexo::CalibBoardPoseSolver.
///
/// Binary contract: the order of the virtual operations; the destructor comes last.
class iCalibBoardPoseSolver {
public:
    /// Ends the object.
    virtual void destroy() = 0;

    /// Reads a calibrated camera. One of a stereo file or an hmat set is a *rectified* camera: it takes rectified
    /// pictures, as iStereoCamera::remap makes them, and the pose is in its rectified axes.
    ///
    /// @param files         camera YAML files, one for each camera, or one that holds several ("cam0_...", "cam1_...");
    ///                      or a stereo YAML file; or the three files of an hmat set: projection matrix of camera 0,
    ///                      of camera 1, rectification tables of both
    /// @param selector      index of the camera to use
    /// @param width,height  image size the camera must have, px; 0 x 0: any, but for an hmat set, whose files do not
    ///                      hold it
    /// @return              false, and the camera kept, when that camera cannot be read or its file says no size
    virtual bool init_camera(const std::vector<std::string>& files, int selector, int width, int height) = 0;

    /// As iCalibBoardRecognizer::set_parameters.
    virtual bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) = 0;

    /// Pose from an 8-bit grey picture.
    /// @param step  bytes from row to row; 0 means packed rows
    /// @param pose  out: 4x4 board -> camera, row-major, 16 numbers; written only on success
    /// @return      recognition code, 0 on success; -1 before init_camera and set_parameters, or when the
    ///              markers determine no pose
    virtual int solve_pose(unsigned char* data, int width, int height, unsigned long step, double* pose) = 0;

    /// As above, from an image file.
    /// @param debug  draw the board's axes into the debug image
    virtual int solve_pose(std::string file, bool debug, double* pose) = 0;

    /// Writes the debug image of the last picture; nothing when there is none.
    virtual void save_debug_image(std::string file) = 0;

    /// Shows the debug image; without a display it writes one line to standard error.
    virtual void show_debug_image() = 0;

    /// Debug image of the last picture, packed 8-bit BGR of get_size(), owned by the object; null: none.
    virtual unsigned char* ptr_debug_image() = 0;

    /// Size of the debug image, px; 0 x 0: none.
    virtual void get_size(int* width, int* height) = 0;

protected:
    /// Callers use destroy().
    virtual ~iCalibBoardPoseSolver() = default;
};

} // namespace vexo
