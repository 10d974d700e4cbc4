#include "board/ZEPHCalibBoardRecognizer.h"

#include "base/boundary.h"

#include <cfloat>

namespace vexo {

CalibBoardRecognizer::ErrorNames ZEPHCalibBoardRecognizer::errors = {
    { kSuccess, "Success" },
    { kImageSizeChanged, "ImageSize_Changed" },
    { kFewContours, "Few_Contours" },
    { kBaseMarkerNotFound, "BaseMarker_NotFound" },
    { kBaseMarkerCount, "N_BaseMarker_NotMatch" },
};

void ZEPHCalibBoardRecognizer::destroy()
{
    delete this;
}

std::string ZEPHCalibBoardRecognizer::get_error_name(int code)
{
    return nothing_if_it_throws([code] { return errors[code]; }); // no memory: as an unknown code
}

int ZEPHCalibBoardRecognizer::recognize(cv::Mat& image, std::vector<cv::Point2f>& points)
{
    return _recognize([&] {
        const int code = _find_markers(image);
        if (code != kSuccess) return code;
        if (base_markers.size() != 1) return int { kBaseMarkerCount };
        set_direction();
        return _number_markers(base_markers[0], points);
    });
}

int ZEPHCalibBoardRecognizer::basemarker_process(int a, int b, std::vector<int>& states)
{
    const auto index = [](int marker) { return static_cast<size_t>(marker); };
    const int ring = contours[index(a)].size() > contours[index(b)].size() ? a : b;
    const int hole = ring == a ? b : a;
    for (int axis = 0; axis < 2; ++axis) {
        double& of_ring = ellipses[index(ring)].full_axes[axis];
        of_ring = static_cast<float>(of_ring + ellipses[index(hole)].full_axes[axis]) * 0.5;
    }
    states[index(ring)] = 2;
    states[index(hole)] = 0;
    return ring;
}

void ZEPHCalibBoardRecognizer::set_direction()
{
    const int base = base_markers[0];
    bool any = false;
    float best = 0;
    for (const int q : _neighbours(base)) {
        if (!_is_marker(q)) continue;
        const float score = -_direction(base, q)[0];
        if (any && !(score > best)) continue;
        any = true;
        best = score;
        _set_axis(1, base, q);
    }
    for (const int q : _neighbours(base)) {
        if (!_is_marker(q)) continue;
        const cv::Vec2f u = _direction(base, q);
        const float cross = direction(1, 0) * u[1] - direction(1, 1) * u[0];
        if (cross < FLT_MAX) _set_axis(0, base, q); // every finite one: the last neighbour stays
    }
}

} // namespace vexo
