#pragma once

#include "capture.h"

/// Gray code + phase with OpenCV's own functions, as its user writes it: the measure that the library is held to.
namespace bench {

class OpenCvChain {
public:
    explicit OpenCvChain(const Capture& capture);

    /// Rectifies all frames of both cameras.
    void rectify();
    /// Frames to points: rectify(), absolute phase of both cameras, search along rows, reprojection.
    /// @return the number of points
    int run();

    cv::Mat disparity; ///< CV_32F; below -1000: none
    cv::Mat points;    ///< CV_32FC3

private:
    void decode(int cam);
    void match_row(int row);

    const Capture* _capture;
    std::array<cv::Mat, 2> _map_x, _map_y;
    std::array<std::vector<cv::Mat>, 2> _rectified;
    std::array<cv::Mat, 2> _phase; ///< CV_32F, fringe periods; negative: invalid
};

} // namespace bench
