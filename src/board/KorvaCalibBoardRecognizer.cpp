#include "board/KorvaCalibBoardRecognizer.h"

#include "base/boundary.h"

#include <algorithm>

namespace vexo {

CalibBoardRecognizer::ErrorNames KORVACalibBoardRecognizer::errors = {
    { kSuccess, "Success" },
    { kImageSizeChanged, "ImageSize_Changed" },
    { kFewContours, "Few_Contours" },
    { kBaseMarkerNotFound, "BaseMarker_NotFound" },
    { kBaseMarkerCount, "N_BaseMarker_NotMatch" },
    { kBaseMarkerClassify, "BaseMarker_ClassifyFailure" },
};

void KORVACalibBoardRecognizer::destroy()
{
    delete this;
}

std::string KORVACalibBoardRecognizer::get_error_name(int code)
{
    return nothing_if_it_throws([code] { return errors[code]; }); // no memory: as an unknown code
}

int KORVACalibBoardRecognizer::recognize(cv::Mat& image, std::vector<cv::Point2f>& points)
{
    return _recognize([&] {
        const int code = _find_markers(image);
        if (code != kSuccess) return code;
        if (base_markers.size() != 3) return int { kBaseMarkerCount };
        int o = -1, x = -1, y = -1;
        if (!init_numbering(o, x, y)) return int { kBaseMarkerClassify };
        return _number_markers(o, points);
    });
}

int KORVACalibBoardRecognizer::basemarker_process(int a, int b, std::vector<int>& states)
{
    const auto length = [this](int marker) { return contours[static_cast<size_t>(marker)].size(); };
    const int ring = length(a) > length(b) ? a : b;
    const int hole = ring == a ? b : a;
    states[static_cast<size_t>(hole)] = 0;
    states[static_cast<size_t>(ring)] = 2;
    return ring;
}

int KORVACalibBoardRecognizer::search_mid_marker() const
{
    std::vector<int> count(connections.size(), 0);
    for (const int base : base_markers)
        for (const int q : _neighbours(base))
            if (_is_marker(q)) ++count[static_cast<size_t>(q)];
    const auto mid = std::find(count.begin(), count.end(), 2);
    return mid == count.end() ? -1 : static_cast<int>(mid - count.begin());
}

bool KORVACalibBoardRecognizer::is_X_marker(int base) const
{
    const Neighbours& neighbours = _neighbours(base);
    return std::none_of(neighbours.begin(), neighbours.end(), [this](int q) {
        return q != -1 && std::find(base_markers.begin(), base_markers.end(), q) != base_markers.end();
    });
}

bool KORVACalibBoardRecognizer::is_O_marker(int base, int mid) const
{
    const Neighbours& neighbours = _neighbours(base);
    return std::find(neighbours.begin(), neighbours.end(), mid) != neighbours.end();
}

bool KORVACalibBoardRecognizer::is_Y_marker(int o, int x, int y)
{
    _set_axis(0, o, x);
    _set_axis(1, o, y);
    return direction(0, 0) * direction(1, 1) - direction(0, 1) * direction(1, 0) < 0;
}

bool KORVACalibBoardRecognizer::init_numbering(int& o, int& x, int& y)
{
    x = -1;
    std::vector<int> others;
    for (const int base : base_markers) {
        if (is_X_marker(base))
            x = base;
        else
            others.push_back(base);
    }
    if (others.size() != 2) return false;

    const int mid = search_mid_marker();
    if (mid == -1) return false;

    o = -1;
    std::vector<int> rest;
    for (const int base : others) {
        if (is_O_marker(base, mid))
            o = base;
        else
            rest.push_back(base);
    }
    if (rest.size() != 1) return false;
    y = rest[0];
    return is_Y_marker(o, x, y);
}

} // namespace vexo
