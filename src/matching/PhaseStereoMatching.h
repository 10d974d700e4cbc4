#pragma once

#include "decode/ProjectorPositions.h"
#include "matching/LeastSquares.h"
#include "matching/PointCloudGenerator.h"
#include "matching/row_matcher.h"
#include "vexo/records.h"

#include <array>
#include <climits>
#include <memory>
#include <vector>

namespace vexo {

class UndistortCamera;

/// Matching by projector coordinate ("phase"), shared by the two structured-light generators.
///
/// Each camera has a decoder, made by the subclass, that turns its frames into a phase map. Both maps are
/// rectified; then, row by row, each pixel of camera 0 is matched with the sub-pixel column of camera 1 where
/// the phase is the same. In between two valid columns that phase is read off a line through its neighbours.
///
///     disparity = column in camera 0 - column in camera 1     px, rectified
///
/// A pixel that finds no partner within the record's limits keeps `min_disparity` - 1.
/// Source: the triangulation of phase maps as in Zhang, Opt. Lasers Eng. 48 (2010) 149.
class PhaseStereoMatching : public PointCloudGenerator {
public:
    void init(iStereoCamera* camera) override;
    /// Keeps the pointer, to a record that begins with PhaseMatchingParam; subclasses pass their own copy.
    bool setparams(void* p) override;
    bool setpict(void* data, unsigned long step, int cam, int frame) override;
    bool loadpict(std::string file, int cam, int frame) override;
    /// Frames of decoded data come back as they were given, as float.
    bool getpict(unsigned char** data, int* width, int* height, unsigned long* step, int cam, int index) override;
    /// Leaves each decoder with its rectified map and mask. Columns are not listed: nothing here needs lists; whoever
    /// does calls the decoder's vmask2valid().
    bool exec() override;
    /// With MethodQ `disparity` stays empty: no map is kept between matching and points.
    void genPC(Method3D method, bool interpolate) override;

    /// 0: camera frames are decoded, 1: decoded data is loaded.
    virtual int get_datatype() const = 0;

protected:
    PhaseStereoMatching() = default;
    ~PhaseStereoMatching() override = default;

    /// Fills `disparity` from the rectified maps of both decoders, row by row. See genPC for `interpolate`.
    ///
    /// RowMatcher does it. What a match is, _get_linedisparity() and those below it say; they also match the rows that
    /// RowMatcher leaves (with a NaN in them).
    void _make_disparity_data(bool interpolate);

    /// One row as _get_linedisparity(_interpo) says, with the line fit that the record asks for.
    void _match_plainly(double* row, bool interpolate, const std::vector<int>& leftlist, const float* leftphase,
        const std::vector<int>& rightlist, const float* rightphase) const noexcept;

    /// One row, a disparity for each valid column of camera 0.
    ///
    /// @param row        out, one value per column, all set
    /// @param rightfit   scratch
    /// @param leftlist   valid columns of camera 0, ascending; leftphase its row of the phase map
    /// @param rightlist  the same of camera 1
    template <class Fit>
    void _get_linedisparity(double* row, Fit& rightfit, const std::vector<int>& leftlist, const float* leftphase,
        const std::vector<int>& rightlist, const float* rightphase) const noexcept;

    /// One row, a disparity for each column between the first and the last valid one of camera 0; its phase is
    /// read off the line through the valid neighbours. Stretches where no line rises are left out.
    template <class Fit>
    void _get_linedisparity_interpo(double* row, Fit& leftfit, Fit& rightfit, const std::vector<int>& leftlist,
        const float* leftphase, const std::vector<int>& rightlist, const float* rightphase) const noexcept;

    /// Disparity of the pixel at column x0 of camera 0 that has this phase.
    template <class Fit>
    double _calc_disparity(
        float phase, int x0, const float* rightphase, const std::vector<int>& rightlist, Fit& fit) const noexcept;

    /// Position in `list` whose phase is nearest, by binary search; the later one of a tie. -1 outside the
    /// row's range. Where the phase does not rise along the list, some position of the list, or -1.
    static int _nearest(float phase, const float* rowphase, const std::vector<int>& list) noexcept;

    const void* params = nullptr;                                ///< the subclass's record
    PhaseMatchingParam limits;                                   ///< its head
    std::array<std::unique_ptr<ProjectorPositions>, 2> decoders; ///< one per camera; null before setparams()
    int first_float_frame = INT_MAX;                             ///< frames from this index on are 32-bit float

private:
    /// What one thread needs for its rows.
    struct RowMemory {
        RowMatcher matcher;
        std::vector<int> left_list, right_list; ///< for a row that the matcher leaves
        std::vector<double> disparities;
        void reserve(int cols);
    };
    /// Rectified images of one camera.
    struct Rectified {
        cv::Mat map, mask;
    };
    void _decode();
    /// Rectifies map and mask of both cameras into their decoders. Throws cv::Exception when that is impossible.
    void _rectify();
    void _prepare_rectification(int cam);
    void _rectify_row(int cam, int row) noexcept;
    const UndistortCamera& _rectifier(int cam) const noexcept;
    bool _make_texture();
    bool _frames_complete() const noexcept;
    bool _set_frame(int cam, unsigned char* data, unsigned long step, int frame);
    void _read_limits() noexcept;
    void _prepare_rows();
    /// The Q method without a disparity map in between: each row goes on to its points while it is in the cache.
    void _make_points_by_rows(bool interpolate);
    void _match_row(int row, bool interpolate, RowMemory& memory, double* out) const noexcept;

    std::array<Rectified, 2> _rectified; ///< for the next capture; exchanged with the decoders' own
    std::array<bool, 2> _by_rows {};     ///< whether the camera has the row form of its remap
    cv::Mat _next_texture;               ///< made from the frames that exec() saw last
    bool _have_next_texture = false;     ///< it is made, and not yet handed on
    std::vector<RowMemory> _row_memory;  ///< one a thread
};

} // namespace vexo
