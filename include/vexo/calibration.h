#pragma once

#include "vexo/records.h"

#include <string>
#include <vector>

namespace vexo {

/// Calibrates one camera from pictures of the board; see iCalibBoardRecognizer for board and codes.
///
/// Order    set_parameters, put_image for each picture, do_calibrate, save_calibfile.
/// Lengths  in the unit of CalibBoardParam::pitch.
/// Threads  one calibrator is for one thread at a time.
///
/// Binary contract: the order of the virtual operations; the destructor comes first.
class iCameraCalibrator {
protected:
    /// Hosts call destroy(); deleting through the interface does not compile.
    virtual ~iCameraCalibrator() = default;

public:
    /// Ends the object.
    virtual void destroy() = 0;

    /// As iCalibBoardRecognizer::set_parameters.
    virtual bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) = 0;

    /// Recognises the board in an 8-bit grey picture and keeps the markers as a view.
    ///
    /// @param data, width, height, step  picture and its row step in bytes, 0 for packed rows; not kept
    /// @param show   show the result picture of this recognition, kind -1 of iCalibBoardRecognizer; what an earlier one
    ///               left of a later stage counts as absent
    /// @param save   file for the result picture, in the format of its extension, such as .png; empty: none
    /// @return       recogniser's code, 0 on success; -1 before set_parameters; 2 for an empty picture.
    ///               Only code 0 keeps a view
    virtual int put_image(unsigned char* data, int width, int height, unsigned long step, bool show, std::string save)
        = 0;

    /// As above, from an image file (PNG, TIFF, BMP, PNM or JPEG), converted to grey; 2 when it cannot be read.
    virtual int put_image(std::string file, bool show, std::string save) = 0;

    /// Calibrates from all views with at least 5 markers.
    ///
    /// @param per_view  out, may be null: reprojection error of each view in px, NaN for one not used
    /// @param rms       out, may be null: root mean square reprojection error, px
    /// @return          false when no view can be used
    /// Throws cv::Exception for degenerate views and for flags that do not go together, as cv::calibrateCamera does.
    virtual bool do_calibrate(CameraCalibParam& param, std::vector<double>* per_view, double* rms) = 0;

    /// Writes the camera's YAML file under keys "<name>_size", "<name>_K", ... The camera keeps the name, even when
    /// the file cannot be written; an empty one stands for the name that it has, at first "cam".
    /// The file is replaced whole or, when false is returned, not at all.
    virtual bool save_calibfile(std::string file, std::string name) = 0;
};

/// Calibrates a camera pair from pictures of the board and makes its stereo camera and files.
///
/// Order    set_parameters, put_image for both cameras, do_calibrate, save_calibfile, create_stereo_camera,
///          then the other files. Picture k of camera 0 and picture k of camera 1 must show the same pose;
///          a failed picture keeps its place as an empty view.
/// Frames   camera 1's pose: x1 = R x0 + T. Stereo camera: rectified camera-0 axes.
/// Threads  one calibrator is for one thread at a time.
///
/// Binary contract: the order of the virtual operations; the destructor comes first.
class iStereoCalibrator {
protected:
    /// Hosts call destroy(); deleting through the interface does not compile.
    virtual ~iStereoCalibrator() = default;

public:
    /// Ends the object.
    virtual void destroy() = 0;

    /// As iCalibBoardRecognizer::set_parameters.
    virtual bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) = 0;

    /// As iCameraCalibrator::put_image, for camera `cam` (0 or 1; another: -1 and nothing kept). Each call
    /// appends one view to that camera's list, an empty one when the code is not 0.
    virtual int put_image(
        int cam, unsigned char* data, int width, int height, unsigned long step, bool show, std::string save)
        = 0;

    /// As above, from an image file, as iCameraCalibrator::put_image reads it.
    virtual int put_image(int cam, std::string file, bool show, std::string save) = 0;

    /// Both pictures side by side in one file, camera 0 on the left. An odd width gives 2, nothing kept.
    /// @return camera 0's code when it is not 0, else camera 1's
    virtual int put_image(std::string file, bool show, std::string save) = 0;

    /// Calibrates each camera and then the pair, from pairs of views with at least 5 common markers.
    ///
    /// @param per_view  out, may be null: grown to two lists, one entry per picture put, px, NaN if not used
    /// @param rms       out, may be null: root mean square reprojection error of the pair, px
    /// @return          false when a camera has no usable view or there is no usable pair, for degenerate views, and
    ///                  for flags that do not go together or ask for a first guess of the pose
    ///                  (CALIB_USE_EXTRINSIC_GUESS); then nothing calibrated before is lost
    virtual bool do_calibrate(CameraCalibParam& param, std::vector<std::vector<double>>* per_view, double* rms) = 0;

    /// Writes the cameras' YAML files, names "cam0" and "cam1". Equal names, or an empty file1: both into
    /// file0. This is what CreateStereoCamera reads with selector 2.
    virtual bool save_calibfile(std::string file0, std::string file1) = 0;

    /// Rectifies the pair; replaces an earlier stereo camera.
    /// @param roi0, roi1  out, may be null: x, y, width, height of the valid region of each rectified image
    /// @return            baseline length, or -1 on failure or before do_calibrate
    virtual double create_stereo_camera(RectifyParam& param, int* roi0, int* roi1) = 0;

    /// Sets the frame of the stereo camera to that of the board seen in one picture per camera; pictures
    /// have the input size, and row steps of 0 mean packed rows. Needs create_stereo_camera.
    /// @return false when either picture fails
    virtual bool create_stereo_brdcrd(
        unsigned char* data0, unsigned long step0, unsigned char* data1, unsigned long step1)
        = 0;

    /// As above, from two image files.
    virtual bool create_stereo_brdcrd(std::string file0, std::string file1) = 0;

    /// As above, from one image file with both pictures side by side.
    virtual bool create_stereo_brdcrd(std::string file) = 0;

    /// Writes the stereo YAML file; with two map file names also the rectification tables.
    /// @return false before create_stereo_camera, or when a file cannot be written
    virtual bool save_stereofile(std::string file, std::string map_file0, std::string map_file1) = 0;

    /// Writes the hmat set of CreateStereoCamera's selector 1.
    /// @param board_frame  true: in the board's frame (needs create_stereo_brdcrd), false: rectified camera 0
    /// @return             false when the rectified size is not the input size, or on any failure
    virtual bool save_stereohmat(std::string file0, std::string file1, std::string tables, bool board_frame) = 0;

    /// Writes the board's pose, 4x4 board -> rectified camera 0, as "RT": what
    /// iPointCloudGenerator::convert_coordinate reads to give points in the board's frame.
    virtual bool save_boardRT(std::string file) = 0;
};

} // namespace vexo
