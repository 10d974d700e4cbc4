#pragma once

#include "base/boundary.h"
#include "board/ConnectionFinder.h"
#include "board/PreProcessor.h"
#include "vexo/board.h"

#include <opencv2/core.hpp>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vexo {

/// What recognize() returns; names from get_error_name().
enum BoardCode {
    kSuccess = 0,
    kImageSizeChanged = 1,
    kFewContours = 2,
    kBaseMarkerNotFound = 3,
    kBaseMarkerCount = 4,
    kBaseMarkerClassify = 5,
};

/// What all board layouts share: geometry, the numbering walk, pairing, result pictures.
///
/// Geometry  position k = i rows + j, column i from 0 to columns - 1 and row j from 0 to rows - 1, is at
///           ((origin_x - i) pitch, (origin_y - j) pitch, 0): board x and y fall as the indices grow.
/// Pictures  drawn when they are asked for, from what the last recognition left: drawing takes as long as
///           recognising.
/// Threads   one recogniser is for one thread at a time.
class CalibBoardRecognizer : public iCalibBoardRecognizer, protected ConnectionFinder, protected PreProcessor {
public:
    /// Default parameters, without a geometry: set_parameters() must come before recognize().
    CalibBoardRecognizer();
    ~CalibBoardRecognizer() override = default;

    bool set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board) override;
    cv::Size image_size() override;
    cv::Rect get_marker_range() const override;
    int get_marker_index(cv::Point position) const override;
    int corresponding_points(const std::vector<cv::Point2f>& image_points, std::vector<cv::Point2f>& image_out,
        std::vector<cv::Point3f>& board_out) override;
    int corresponding_points(const std::vector<cv::Point2f>& image_points0,
        const std::vector<cv::Point2f>& image_points1, std::vector<cv::Point2f>& image_out0,
        std::vector<cv::Point2f>& image_out1, std::vector<cv::Point3f>& board_out) override;
    void save_result_image(std::string path, int kind) override;
    void copy_result_image(cv::Mat& image, int kind) override;
    void show_result_image(int kind) override;

    /// Checks the record and copies it, with its board points; false, and all kept, when it is unusable.
    bool init_recognizer(CalibBoardParam& board);

protected:
    /// The four pictures of a recognition.
    enum class Picture { none, numbered, binary, circles, connections };

    /// Names of codes, with a lock, since asking for an unknown one adds it with an empty name.
    class ErrorNames {
    public:
        ErrorNames(std::initializer_list<std::pair<const int, std::string>> names)
            : _names(names)
        {
        }
        std::string operator[](int code)
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            return _names[code];
        }

    private:
        std::mutex _mutex;
        std::map<int, std::string> _names;
    };

    /// Runs a layout's steps, which return a code, and keeps their code. Exceptions end as kFewContours, except
    /// for that of a bad adaptive block size.
    template <class Steps> int _recognize(Steps steps);

    /// Steps that every layout begins with: size check, binary image, circles, connections.
    int _find_markers(cv::Mat& image);

    /// Steps that every layout ends with: numbers all markers reached from the one at board position (0, 0).
    int _number_markers(int origin_marker, std::vector<cv::Point2f>& points);

    /// Walks from `marker`, at list index `index`, to its neighbours, and on from each before the next, and
    /// enters centre and marker of every index reached. A step along x changes the index by rows, one along y
    /// by 1, whichever board direction is nearer. Only the ends of the list are checked: a marker outside of
    /// the board's rows gets an index in the neighbouring column.
    void numbering(int marker, int index, std::vector<cv::Point2f>& points, std::vector<int>& markerOfIndex);

    /// Colour copy of the image with links and numbered markers.
    void make_finalimg(cv::Mat& image, cv::Mat& out, std::vector<int>& markerOfIndex);

    /// Picture of a kind; kind -1 means that of the last code.
    Picture get_dbgimg_index(int kind) const;

    /// Unit vector from the centre of one marker to that of another, px components as floats.
    cv::Vec2f _direction(int from, int to) const;

    /// Sets a row of the direction matrix to that vector.
    void _set_axis(int row, int from, int to);

    CalibBoardParam board_param;
    int marker_count = 0;                       ///< columns times rows
    std::vector<cv::Point3f> board_points;      ///< unit of the pitch
    cv::Matx22f direction = cv::Matx22f::eye(); ///< rows: image directions of board x and y
    int last_error = kSuccess;

private:
    bool _usable(const cv::Mat& image) const;
    int _next_index(int marker, int neighbour, int index) const;
    /// Own copy of a picture; empty when there is none, and for lack of memory.
    cv::Mat _picture(int kind) noexcept;
    cv::Mat _draw_picture(int kind);

    cv::Mat _source; // what the pictures are drawn on; empty: no picture
    cv::Mat _binary;
    std::vector<int> _marker_of_index;
    Picture _last_stage = Picture::none; // the last picture that there is
};

template <class Steps> int CalibBoardRecognizer::_recognize(Steps steps)
{
    last_error = kFewContours; // should the stated exception leave
    last_error = value_but_stated(int { kFewContours }, why_invalid(preproc_param) != nullptr, steps);
    return last_error;
}

} // namespace vexo
