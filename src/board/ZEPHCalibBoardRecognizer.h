#pragma once

#include "board/CalibBoardRecognizer.h"

namespace vexo {

/// The board with one ring, at board position (0, 0), seen in roughly known orientation: board y points to the
/// left of the image.
///
/// Kept for boards of that kind; no factory makes it and no program of ours offers it. Its x axis is the ring's
/// last (farthest) neighbour, which may be the y neighbour itself or its opposite, so it numbers few boards
/// right: only those on which the ring's farthest neighbour, by perspective, lies along +x.
class ZEPHCalibBoardRecognizer : public CalibBoardRecognizer {
public:
    ~ZEPHCalibBoardRecognizer() override = default;

    void destroy() override;
    int recognize(cv::Mat& image, std::vector<cv::Point2f>& points) override;
    std::string get_error_name(int code) override;

protected:
    /// Also gives the ring the mean of its own and the hole's axes.
    int basemarker_process(int a, int b, std::vector<int>& state) override;

    /// Board y is the ring's neighbour nearest to image -x, board x the last of its neighbours. Without a
    /// neighbour the matrix stays as it is.
    void set_direction();

private:
    static ErrorNames errors;
};

} // namespace vexo
