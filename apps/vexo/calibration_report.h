#pragma once

#include "calibration_check.h"
#include "report.h"

#include <string>
#include <vector>

/// What a calibration is worth, for people: one page that needs no other file; and the same figures as JSON.
namespace vexo::app {

/// An answer to one question about the calibration.
struct Check {
    enum Level { good, fair, bad, unknown };
    std::string question;
    Level level = good;
    std::string answer; ///< figures
    std::string advice; ///< what to do about it; empty when good
};

/// A hold-out check: each view against the cameras that the other half of the views gave.
struct HoldOut {
    bool done = false;
    std::vector<CameraFit> fits; ///< by camera
    PairFit pair;
    double focal_spread = 0; ///< px, largest difference of a focal length between the halves
};

/// Everything that a calibration was made from and what came out.
struct Calibration {
    BoardFile board;                 ///< with the pitch as corrected by the rulers
    double printed_pitch = 0;        ///< mm, of the board file
    double ruler_x = 0, ruler_y = 0; ///< mm, 0: not given
    BoardViews views;
    std::vector<bool> used;   ///< by view
    std::vector<int> dropped; ///< numbers of views left out on request
    cv::Size size;            ///< px
    std::vector<CalibratedCamera> cameras;
    double rms = 0;                            ///< px, as the calibration itself reports
    double baseline = 0;                       ///< mm; a pair only
    std::vector<std::vector<double>> view_rms; ///< [camera][view] px, as the calibration itself reports
    std::vector<CameraFit> fits;               ///< by camera
    PairFit pair;
    /// px by view, see pair_agreement(); only asked for when the pair fits far worse than its cameras, else empty
    std::vector<double> agreement;
    HoldOut hold_out;

    bool is_pair() const { return cameras.size() == 2; }
    std::size_t used_count() const;
};

/// Views with an error far above the others', of either camera.
std::vector<std::size_t> outlying_views(const Calibration& c);

/// The questions that the page answers. The limits stand with their reasons in the source.
std::vector<Check> check_calibration(const Calibration& c);

/// "good", "usable", "not good enough".
std::string verdict(const std::vector<Check>& checks);

Json calibration_json(const Calibration& c, const std::vector<Check>& checks);
std::string calibration_html(const Calibration& c, const std::vector<Check>& checks);

} // namespace vexo::app
