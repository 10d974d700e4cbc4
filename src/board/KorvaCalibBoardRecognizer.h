#pragma once

#include "board/CalibBoardRecognizer.h"

namespace vexo {

/// The board with three rings: O at board position (0, 0), X two steps along x, Y one step along y. Needs no
/// known orientation, and distinguishes a mirrored board from a true one. Seen from the front with x to the right, y
/// points up.
class KORVACalibBoardRecognizer : public CalibBoardRecognizer {
public:
    ~KORVACalibBoardRecognizer() override = default;

    void destroy() override;
    int recognize(cv::Mat& image, std::vector<cv::Point2f>& points) override;
    std::string get_error_name(int code) override;

protected:
    int basemarker_process(int a, int b, std::vector<int>& state) override;

    /// The marker between O and X: the lowest index that neighbours exactly two base markers; -1: none.
    int search_mid_marker() const;
    /// X is the base marker without a base marker beside it.
    bool is_X_marker(int base) const; // NOLINT(readability-identifier-naming)
    /// O is the base marker beside the mid marker.
    bool is_O_marker(int base, int mid) const; // NOLINT(readability-identifier-naming)
    /// Sets the direction matrix. False when y lies clockwise of x on screen, as on a mirrored board.
    bool is_Y_marker(int o, int x, int y); // NOLINT(readability-identifier-naming)
    /// Tells which of the three base markers is which, and sets the direction matrix.
    bool init_numbering(int& o, int& x, int& y);

private:
    static ErrorNames errors;
};

} // namespace vexo
