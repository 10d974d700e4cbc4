#include "board/CalibBoardRecognizer.h"

#include "board/result_picture.h"
#include "vexo/limits.h"

#include <opencv2/imgproc.hpp>

#include <array>
#include <cfloat>
#include <cmath>

namespace vexo {

namespace {

bool is_missing(const std::vector<cv::Point2f>& points, size_t k)
{
    return k >= points.size() || points[k].x == FLT_MAX;
}

/// Fill colour of the k-th numbered position, BGR: neighbours along x and y differ.
cv::Scalar palette_colour(size_t k)
{
    static const std::array<cv::Scalar, 7> palette = {
        cv::Scalar(255, 127, 0),
        cv::Scalar(0, 191, 255),
        cv::Scalar(127, 255, 0),
        cv::Scalar(191, 0, 255),
        cv::Scalar(255, 255, 127),
        cv::Scalar(127, 127, 255),
        cv::Scalar(0, 255, 191),
    };
    return palette[k % palette.size()];
}

cv::Mat colour_copy(const cv::Mat& grey)
{
    cv::Mat colour;
    cv::cvtColor(grey, colour, cv::COLOR_GRAY2BGR);
    return colour;
}

} // namespace

CalibBoardRecognizer::CalibBoardRecognizer()
{
    PreProcParam pre;
    CircleMarkerParam circle;
    init_preproc(pre);
    init_searcher(circle);
    neighbour_limit = board_param.neighbour_limit;
}

bool CalibBoardRecognizer::set_parameters(PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board)
{
    const bool board_accepted = false_without_memory([&] {
        gamma_table.reserve(256); // here and in the board's points ends what can fail: all settings or none
        return init_recognizer(board);
    });
    if (!board_accepted) return false;
    neighbour_limit = board.neighbour_limit;
    init_searcher(circle);
    init_preproc(pre);
    return true;
}

bool CalibBoardRecognizer::init_recognizer(CalibBoardParam& board)
{
    if (why_invalid(board) != nullptr) return false;
    const int positions = board.columns * board.rows;
    board_points.resize(static_cast<size_t>(positions));
    board_param = board;
    marker_count = positions;
    const auto pitch = static_cast<float>(board.pitch);
    size_t k = 0;
    for (int i = 0; i < board.columns; ++i) {
        const auto x = static_cast<float>(static_cast<long long>(board.origin_x) - i) * pitch;
        for (int j = 0; j < board.rows; ++j)
            board_points[k++] = { x, static_cast<float>(static_cast<long long>(board.origin_y) - j) * pitch, 0 };
    }
    return true;
}

cv::Size CalibBoardRecognizer::image_size()
{
    return { searcher_param.image_width, searcher_param.image_height };
}

cv::Rect CalibBoardRecognizer::get_marker_range() const
{
    return { 1, 1, board_param.columns, board_param.rows };
}

int CalibBoardRecognizer::get_marker_index(cv::Point position) const
{
    const CalibBoardParam& b = board_param;
    const long long column = static_cast<long long>(b.origin_x) - position.x;
    return static_cast<int>(column * b.rows - position.y + b.origin_y);
}

// Both forms fill lists of their own first: the host may pass one list as input and output.

int CalibBoardRecognizer::corresponding_points(const std::vector<cv::Point2f>& image_points,
    std::vector<cv::Point2f>& image_out, std::vector<cv::Point3f>& board_out)
{
    return value_if_it_throws(-1, [&] {
        std::vector<cv::Point2f> in_image;
        std::vector<cv::Point3f> on_board;
        for (size_t k = 0; k < board_points.size(); ++k) {
            if (is_missing(image_points, k)) continue;
            in_image.push_back(image_points[k]);
            on_board.push_back(board_points[k]);
        }
        image_out.swap(in_image);
        board_out.swap(on_board);
        return static_cast<int>(image_out.size());
    });
}

int CalibBoardRecognizer::corresponding_points(const std::vector<cv::Point2f>& image_points0,
    const std::vector<cv::Point2f>& image_points1, std::vector<cv::Point2f>& image_out0,
    std::vector<cv::Point2f>& image_out1, std::vector<cv::Point3f>& board_out)
{
    return value_if_it_throws(-1, [&] {
        std::vector<cv::Point2f> in_image0, in_image1;
        std::vector<cv::Point3f> on_board;
        for (size_t k = 0; k < board_points.size(); ++k) {
            if (is_missing(image_points0, k) || is_missing(image_points1, k)) continue;
            in_image0.push_back(image_points0[k]);
            in_image1.push_back(image_points1[k]);
            on_board.push_back(board_points[k]);
        }
        image_out0.swap(in_image0);
        image_out1.swap(in_image1);
        board_out.swap(on_board);
        return static_cast<int>(board_out.size());
    });
}

// --- recognition ---------------------------------------------------------------------------------------

bool CalibBoardRecognizer::_usable(const cv::Mat& image) const
{
    return image.dims == 2 && image.type() == CV_8UC1 && is_picture_size(image.cols, image.rows);
}

int CalibBoardRecognizer::_find_markers(cv::Mat& image)
{
    if (marker_count == 0) return kBaseMarkerClassify; // no geometry yet
    if (!_usable(image)) {
        _last_stage = Picture::none;
        return kFewContours;
    }
    int& width = searcher_param.image_width;
    int& height = searcher_param.image_height;
    if (width != 0 && height != 0 && (width != image.cols || height != image.rows)) return kImageSizeChanged;
    width = image.cols;
    height = image.rows;

    _last_stage = Picture::none;
    image.copyTo(_source);
    _binary = preprocess(image);
    _last_stage = Picture::binary;
    if (_binary.empty()) return kFewContours;
    debug_show(_binary, "debug", false);

    const bool windows = searcher_param.debug_scale != 0;
    _last_stage = Picture::circles;
    cv::Mat circles = windows ? colour_copy(image) : cv::Mat();
    if (search(_binary, circles) == 0) return kFewContours;

    cv::Mat grid = windows ? colour_copy(image) : cv::Mat();
    const bool found = find(grid);
    _last_stage = Picture::connections;
    return found ? kSuccess : kBaseMarkerNotFound;
}

int CalibBoardRecognizer::_number_markers(int origin_marker, std::vector<cv::Point2f>& points)
{
    const CalibBoardParam& b = board_param;
    const long long start = static_cast<long long>(b.origin_x) * b.rows + b.origin_y;
    if (start < 0 || start >= marker_count) return kBaseMarkerClassify; // the board lacks position (0, 0)

    points.assign(static_cast<size_t>(marker_count), cv::Point2f(FLT_MAX, FLT_MAX));
    _marker_of_index.assign(static_cast<size_t>(marker_count), -1);
    numbering(origin_marker, static_cast<int>(start), points, _marker_of_index);
    _last_stage = Picture::numbered;
    if (searcher_param.debug_scale != 0) {
        cv::Mat numbered;
        make_finalimg(_source, numbered, _marker_of_index);
        debug_show(numbered, "debug", false);
    }
    return kSuccess;
}

void CalibBoardRecognizer::numbering(
    int marker, int index, std::vector<cv::Point2f>& points, std::vector<int>& markerOfIndex)
{
    struct Visit {
        int marker;
        int index;
        size_t next_slot;
    };
    std::vector<Visit> path; // a list of its own: a board of 10^6 markers would end the thread's stack
    const auto enter = [&](int m, int k) {
        points[static_cast<size_t>(k)] = cv::Point2f(_ellipse(m).center);
        markerOfIndex[static_cast<size_t>(k)] = m;
        path.push_back({ m, k, 0 });
    };
    enter(marker, index);
    while (!path.empty()) {
        Visit& at = path.back();
        const Neighbours& neighbours = _neighbours(at.marker);
        if (at.next_slot == neighbours.size()) {
            path.pop_back();
            continue;
        }
        const int q = neighbours[at.next_slot++];
        if (!_is_marker(q)) continue;
        const int k = _next_index(at.marker, q, at.index);
        if (0 <= k && k < marker_count && markerOfIndex[static_cast<size_t>(k)] == -1) enter(q, k);
    }
}

int CalibBoardRecognizer::_next_index(int marker, int neighbour, int index) const
{
    const cv::Vec2f along_board = direction * _direction(marker, neighbour);
    const float a = along_board[0];
    const float b = along_board[1];
    const int rows = board_param.rows;
    if (std::abs(a) > std::abs(b)) return a >= 0 ? index - rows : index + rows;
    return b >= 0 ? index - 1 : index + 1;
}

cv::Vec2f CalibBoardRecognizer::_direction(int from, int to) const
{
    const cv::Point2d d = _ellipse(to).center - _ellipse(from).center;
    const double length = std::sqrt(d.x * d.x + d.y * d.y);
    const auto x = static_cast<float>(d.x);
    const auto y = static_cast<float>(d.y);
    return { static_cast<float>(x / length), static_cast<float>(y / length) };
}

void CalibBoardRecognizer::_set_axis(int row, int from, int to)
{
    const cv::Vec2f axis = _direction(from, to);
    direction(row, 0) = axis[0];
    direction(row, 1) = axis[1];
}

// --- pictures ------------------------------------------------------------------------------------------

void CalibBoardRecognizer::make_finalimg(cv::Mat& image, cv::Mat& out, std::vector<int>& markerOfIndex)
{
    out = colour_copy(image);
    _draw_links(out, { 250, 230, 230 });
    for (size_t k = 0; k < markerOfIndex.size(); ++k)
        if (markerOfIndex[k] >= 0) draw_ellipse(out, _ellipse(markerOfIndex[k]), palette_colour(k), cv::FILLED);
    for (const int base : base_markers) {
        draw_ellipse(out, _ellipse(base), { 0, 0, 255 }, 4);
        draw_ellipse(out, _ellipse(base), { 0, 0, 255 }, cv::FILLED, 0.4);
    }
}

CalibBoardRecognizer::Picture CalibBoardRecognizer::get_dbgimg_index(int kind) const
{
    switch (kind == -1 ? last_error : kind) {
    case 0:
        return Picture::numbered;
    case 2:
        return Picture::binary;
    case 3:
        return Picture::circles;
    case 4:
    case 5:
        return Picture::connections;
    default:
        return Picture::none;
    }
}

cv::Mat CalibBoardRecognizer::_picture(int kind) noexcept
{
    return nothing_if_it_throws([&] { return _draw_picture(kind); });
}

cv::Mat CalibBoardRecognizer::_draw_picture(int kind)
{
    const auto stage_order = [](Picture p) {
        constexpr std::array<int, 5> order = { 0, 4, 1, 2, 3 }; // none, numbered, binary, circles, connections
        return order[static_cast<size_t>(p)];
    };
    const Picture wanted = get_dbgimg_index(kind);
    if (wanted == Picture::none || stage_order(wanted) > stage_order(_last_stage)) return {};

    cv::Mat picture;
    if (wanted == Picture::binary) return _binary.clone();
    if (wanted == Picture::numbered) {
        make_finalimg(_source, picture, _marker_of_index);
        return picture;
    }
    picture = colour_copy(_source);
    if (wanted == Picture::circles)
        _draw_circles(picture);
    else
        _draw_connections(picture);
    return picture;
}

void CalibBoardRecognizer::save_result_image(std::string path, int kind)
{
    const cv::Mat picture = _picture(kind);
    write_picture(path, picture);
}

void CalibBoardRecognizer::copy_result_image(cv::Mat& image, int kind)
{
    const cv::Mat picture = _picture(kind);
    if (!picture.empty()) image = picture;
}

void CalibBoardRecognizer::show_result_image(int kind)
{
    show_picture("result", _picture(kind), -1);
}

} // namespace vexo
