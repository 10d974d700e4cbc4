#pragma once

#include "vexo/records.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace vexo {

/// Finds the circle markers of a calibration board in a grey image and numbers them.
///
/// Made by CreateCalibBoardRecognizer: a grid of discs of which three are rings (annuli): O at board
/// position (0, 0), X two steps along board x, Y one step along board y.
/// Lists    one entry per board position, index = (origin_x - x) * rows - y + origin_y for position (x, y);
///          a marker that was not found is (FLT_MAX, FLT_MAX).
/// Codes    0 "Success", 1 "ImageSize_Changed", 2 "Few_Contours", 3 "BaseMarker_NotFound",
///          4 "N_BaseMarker_NotMatch", 5 "BaseMarker_ClassifyFailure".
/// Pictures kind 0 numbered markers, 2 binary image, 3 circles found, 4 and 5 neighbours found; -1 the one
///          that belongs to how the last recognition ended; any other kind has no picture. A stage that the
///          last recognition did not come to has none either, even where an earlier one left it.
/// Threads  one recogniser is for one thread at a time.
///
/// Binary contract: the order of the virtual operations; the destructor comes second.
class iCalibBoardRecognizer {
public:
    /// Ends the object.
    virtual void destroy() = 0;

protected:
    /// Hosts call destroy(); deleting through the interface does not compile.
    virtual ~iCalibBoardRecognizer() = default;

public:
    /// Must succeed before recognize(). Also forgets the image size seen so far.
    /// @return false, and all settings kept, when the pitch is not positive and finite, columns or rows are
    ///         below 1, or there are more than 1 000 000 positions
    virtual bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) = 0;

    /// Recognises the board in an 8-bit grey image.
    /// @param points  out: one entry per board position on success: marker centre in px, or (FLT_MAX, FLT_MAX)
    /// @return        the code, see above; an image that is empty or not 8-bit grey gives 2
    /// Throws cv::Exception for an adaptive block size that is even or below 3; nothing else.
    virtual int recognize(cv::Mat& image, std::vector<cv::Point2f>& points) = 0;

    /// Name of a code; empty for an unknown one. Safe from several threads.
    virtual std::string get_error_name(int code) = 0;

    /// Image size of the last recognition, px.
    virtual cv::Size image_size() = 0;

    /// The rectangle (1, 1, columns, rows).
    virtual cv::Rect get_marker_range() const = 0;

    /// Index of a board position in the lists; not checked against the range.
    virtual int get_marker_index(cv::Point position) const = 0;

    /// Pairs the markers found in one image with their board points (z = 0, unit of the pitch).
    /// @param image_points  list as recognize() fills it; entries that are lacking count as not found
    /// @return              number of pairs written to both outputs, which are cleared first; -1, and the outputs
    ///                      kept, for lack of memory
    virtual int corresponding_points(const std::vector<cv::Point2f>& image_points, std::vector<cv::Point2f>& image_out,
        std::vector<cv::Point3f>& board_out)
        = 0;

    /// As above, of the markers found in both of two images.
    virtual int corresponding_points(const std::vector<cv::Point2f>& image_points0,
        const std::vector<cv::Point2f>& image_points1, std::vector<cv::Point2f>& image_out0,
        std::vector<cv::Point2f>& image_out1, std::vector<cv::Point3f>& board_out)
        = 0;

    /// Writes a picture of the last recognition, in the format of the path's extension; nothing when the
    /// kind has no picture or the file cannot be written.
    virtual void save_result_image(std::string path, int kind) = 0;

    /// Deep copy of a picture of the last recognition, 8-bit grey or BGR; `image` is kept when there is none.
    virtual void copy_result_image(cv::Mat& image, int kind) = 0;

    /// Shows a picture in the window "result". Without a display it writes one line to standard error.
    virtual void show_result_image(int kind) = 0;
};

} // namespace vexo
