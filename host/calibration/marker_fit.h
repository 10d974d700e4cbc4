#pragma once

#include "host/calibration/marker_model.h"

#include <opencv2/core.hpp>

#include <optional>
#include <vector>

namespace vexo {

/// A marker's centre as its grey values have it.
struct MarkerFit {
    cv::Point2d centre;     ///< px; of the centre itself, not of the ellipse that its outline becomes
    cv::Matx22d covariance; ///< px^2, by the scatter of the grey values around the model
    cv::Point2d middle;     ///< of the model that it was fitted from, px
    double blur = 0.0;      ///< standard deviation, px
    double growth = 0.0;    ///< of the radius over what is printed: ink that spreads, glare
    double paper = 0.0;     ///< grey level
    double ink = 0.0;       ///< grey level
    cv::Point2d tilt;       ///< relative change of the light, 1/px from the middle
    double rms = 0.0;       ///< of the grey values around the model
};

/// Fits the grey values around a marker's edges by what the camera should see there:
///
///     z = (d - n . s - g R') / blur     cover = 1 - Phi(z)     a ring's hole takes 1 - Phi(z') off, without g
///     I = (paper + (ink - paper) cover) (1 + t . delta)
///
/// The nearest of the markers beside it covers its part, too: of photos blurred by 2 px it is 2 % of the contrast, and
/// the outermost markers, which have none outside, would all seem to lie farther out.
///
/// d is a pixel's distance from the projected edge, n the edge's normal, R' the radius, delta the offset from the
/// middle, all px; found are the shift s, the growth g, blur, paper, ink and a tilt t of the light. Gauss-Newton. The
/// outline of a tilted disc is seen off-centre, and is bent by the distortion: as both are in d, the centre is free of
/// either. Source: Kannala, Brandt, A generic camera model and calibration method, PAMI 28 (2006) 1335, for the bias;
/// least squares of a rendered marker in place of their correction.
/// @param picture  CV_8U
/// @return nothing when the marker is not wholly in the picture, too small, hidden, or the fit does not converge
class MarkerFitter {
public:
    MarkerFitter(const cv::Mat& picture, const BoardFile& board);

    std::optional<MarkerFit> fit(const MarkerModel& model, bool ring);

private:
    /// What is known of a pixel near an edge.
    struct Pixel {
        double edge, hole;     ///< signed distances from both edges, px, positive outside
        double beside;         ///< signed distance from the edge of the nearest other marker, px
        double nx, ny, radius; ///< normal, and the radius along it, px
        double box_cumulant;   ///< fourth, of the pixel's area along the normal, px^4
        double x, y;           ///< from the middle, in units of 10 px
        double grey;
    };
    struct Parameters;
    struct Equations;

    void _collect(const MarkerModel& model);
    std::optional<Parameters> _first_guess(bool ring) const;
    Equations _equations(const Parameters& at, bool ring) const;

    double _from_other(const MarkerModel& model, cv::Point2d at, const cv::Matx22d& slope) const;

    cv::Mat _picture;
    double _radius, _hole, _half_pitch; ///< mm
    std::vector<Pixel> _pixels;
};

} // namespace vexo
