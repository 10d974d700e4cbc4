#pragma once

#include "board/CircleMarkerSearcher.h"

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace vexo {

/// Links the kept markers of a CircleMarkerSearcher to the grid of a board.
///
/// Distances  n x n matrix for n kept markers: (i, j) is the distance of centre j from centre i in px, or no_link.
///            It need not be symmetric, since each row is cut by its own marker's size.
/// States     one per kept marker: 0 dropped, 1 in play, others as basemarker_process() gives them.
class ConnectionFinder : public CircleMarkerSearcher {
public:
    static constexpr double no_link = 1.7976931348623157e308; ///< DBL_MAX
    static constexpr int dropped = 0x7fffffff;                ///< every neighbour of a dropped marker

    /// Four nearest neighbours of a marker, nearest first; -1 where there are fewer.
    using Neighbours = std::array<int, 4>;

    /// Runs the whole chain over the kept markers.
    /// @param debug  in, out: colour picture to draw the grid into; empty: not drawn
    /// @return       whether a base marker was found; if not, `connections` is as it was
    bool find(cv::Mat& debug);

    /// Distances between all centres; no_link on the diagonal.
    cv::Mat_<double> get_distance_matrix();

    /// Cuts the links that are longer than neighbour_limit marker diameters: first by the marker's larger
    /// axis, then by its diameter in the link's direction. Both are counted in whole tenths of a diameter,
    ///
    ///     cut when floor(10 d / diameter + 1/2) > floor(10 (limit + 0.1))
    ///
    /// so that a tilted view's stretch does not cut the grid.
    void check_distance_matrix(cv::Mat_<double>& D);

    /// Drops every marker outside of the largest connected group (of equal ones: that with the lowest root).
    void remain_largest_group(std::vector<int>& state, cv::Mat_<double>& D);

    /// Finds pairs of markers in play, one inside the other (centres closer than a quarter of its smaller
    /// diameter), and appends what basemarker_process() makes of each to base_markers.
    /// @return  whether there is any
    bool search_base_marker(std::vector<int>& state, cv::Mat_<double>& D);

    /// Median of the contours' point counts over all markers that are not dropped (the upper of two); 0
    /// without any.
    size_t get_median_contour_length(std::vector<int>& state);

    /// Drops markers in play with up to (median + 2) / 4 points, or with at least 4 times the median.
    void remove_inlier(std::vector<int>& state, cv::Mat_<double>& D);

    /// Neighbours of all kept markers.
    std::vector<Neighbours> find_connected(std::vector<int>& state, cv::Mat_<double>& D);

    /// Decides which marker of a pair is the ring and sets both states.
    /// @param outer, inner  the marker that was looked at, and the one found inside of it; it can be the
    ///                      other way round
    /// @return              index of the ring
    virtual int basemarker_process(int outer, int inner, std::vector<int>& state) = 0;

protected:
    /// Draws links, markers in play and base markers of the last find().
    void _draw_connections(cv::Mat& drawing) const;

    /// Draws a line from every marker in play to each of its neighbours.
    void _draw_links(cv::Mat& drawing, const cv::Scalar& bgr) const;

    /// Whether a neighbour entry is a marker. Base markers may have been dropped by another pair.
    bool _is_marker(int index) const { return index >= 0 && static_cast<size_t>(index) < connections.size(); }

    const RotatedEllipse& _ellipse(int marker) const { return ellipses[static_cast<size_t>(marker)]; }
    const Neighbours& _neighbours(int marker) const { return connections[static_cast<size_t>(marker)]; }

    double neighbour_limit = 0;          ///< marker diameters
    std::vector<Neighbours> connections; ///< by kept marker
    std::vector<int> base_markers;       ///< kept markers that are rings
    std::vector<int> state;              ///< what the last find() left, by kept marker

private:
    bool _connected = false; // `connections` belong to the last find()
};

} // namespace vexo
