#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace vexo {

/// What every fringe decoder of one camera offers: frames in, one projector coordinate a pixel out.
///
/// Order    set_input() for every frame, preproc(), unwrap(); then read `unwrapped` and `valid` or `vmask`.
///          Or decode() instead of the two, then read `unwrapped` and `vmask`.
///          With frames missing, or in another order, nothing is valid; nothing else happens.
/// Frames   are copied. All have one size. A subclass names the image behind every input index once, in its
///          constructor (_add_input), so that copying, counting and clearing are written here alone. The
///          images are addressed by pointer: objects are neither copied nor moved, and their vectors of
///          frames keep the length they were made with.
/// Memory   preproc(), unwrap() and decode() throw (std::bad_alloc, cv::Exception) when it runs out; the object
///          stays usable.
/// Threads  one caller at a time; the loops inside run over rows in parallel, with the same result for any
///          number of threads.
class ProjectorPositions {
public:
    virtual ~ProjectorPositions();

    /// Copies one camera frame.
    /// @param data    first pixel: 8-bit grey, or 32-bit float where the subclass says so; any alignment
    /// @param width   px, 1 to 32766
    /// @param height  px, 1 to 32766, and at most 2^26 pixels in all
    /// @param step    bytes from row to row; 0: packed. Nothing after the last pixel of the last row is read
    /// @param index   which frame: 0 dark, 1 fully lit, the others as the subclass says
    /// @return        1; or 0, and nothing has changed: null data, an unknown index, a bad size or step, or
    ///                a size other than that of the frames held. Frames 0 and 1 may start a new size, which
    ///                drops every other frame and all results.
    virtual int set_input(void* data, int width, int height, unsigned long step, int index) = 0;
    /// Decodes the frames: wrapped phases and `valid`.
    virtual void preproc() = 0;
    /// Fills `unwrapped` and narrows `valid` and `vmask` to the pixels that got a coordinate.
    virtual void unwrap() = 0;
    /// preproc() and unwrap() in one: `unwrapped` and `vmask` get the same bits. The decoders of camera frames do it
    /// 7 times (gray code) and 18 times (multi-period) faster; what lies between, `valid` and the images of codes
    /// and phases, is not made then: `valid` has no columns until vmask2valid().
    void decode();
    /// decode() row by row, for callers that bring the parallel loop themselves. Makes room for the results, and
    /// for as many threads as OpenMP would use now.
    ///
    /// @return  true: `unwrapped` and `vmask` are whole when decode_row() has done each row of the frames, from 0 to
    ///          input_size().height - 1. False, and nothing has changed: these frames only decode() can do
    virtual bool begin_decode();
    /// Decodes one row of the frames into the same row of `unwrapped` and `vmask`. Rows come in any order, each once
    /// after begin_decode(), and several at a time.
    ///
    /// @param row     index of the row
    /// @param thread  number of the calling thread, from 0; its calls come one after another
    virtual void decode_row(int row, int thread) noexcept;

    ProjectorPositions(const ProjectorPositions&) = delete;
    ProjectorPositions& operator=(const ProjectorPositions&) = delete;

    /// Number of input indices that set_input() knows.
    int inputs() const noexcept { return static_cast<int>(_inputs.size()); }
    /// The frame of an input index; empty when there is no such index or the frame is not given yet. The
    /// next frame of that index overwrites its pixels: clone what must last longer.
    const cv::Mat& input(int index) const noexcept;
    /// Size of the frames held; 0 x 0 before the first.
    cv::Size input_size() const noexcept;
    /// Whether every frame is given.
    bool complete() const noexcept;
    /// Drops all frames and results.
    void clear() noexcept;

    /// Rebuilds `valid` from the two reference frames, limits in grey levels and inclusive:
    ///
    ///     min_white <= white <= max_white    and    white - black >= min_contrast
    void set_valid(int min_contrast, int max_white, int min_white);
    /// Rebuilds `vmask` from `valid`.
    void valid2vmask();
    /// Rebuilds `valid` from `vmask`; a pixel counts only at exactly 255.
    void vmask2valid();
    /// Debug dump into the current directory: "unwrap<camera_id>.raw" (float rows, no header) and
    /// "vumask<camera_id>.pgm". Silent when that is impossible.
    void save_unwrap() const;

    int camera_id = 0;                   ///< 0 or 1; only names the debug files
    int frame_count = 0;                 ///< frames of one capture
    cv::Mat_<uchar> white;               ///< frame under full light, input 1
    cv::Mat_<uchar> black;               ///< frame without projection, input 0
    std::vector<std::vector<int>> valid; ///< for every row the valid columns, ascending
    cv::Mat_<float> unwrapped;           ///< projector coordinate of the valid pixels, 0 elsewhere
    cv::Mat_<uchar> vmask;               ///< 255 at valid pixels, 0 elsewhere

protected:
    ProjectorPositions(int camera_id, int frame_count);

    /// Names the image of the next input index; its element type is `type`, CV_8U or CV_32F.
    void _add_input(cv::Mat& frame, int type);
    /// Names an image that clear() drops too.
    void _add_result(cv::Mat& image);
    /// set_input() of every subclass.
    int _copy_input(const void* data, int width, int height, unsigned long step, int index) noexcept;
    /// Room for the results of decode(); `valid` has no columns. Allocates only when the size has changed.
    void _prepare_decode();
    /// "Nothing is valid": as many empty rows in `valid` as the frames have, no coordinates, no mask.
    void _drop_results();
    /// Writes a float image as headerless rows. Silent on failure.
    static void _save_raw(const cv::Mat_<float>& image, const std::string& name);
    /// Writes `vmask` as PGM. Silent on failure.
    void _save_mask(const std::string& name) const;

private:
    struct Input {
        cv::Mat* frame;
        int type;
    };
    bool _accepts(int width, int height, unsigned long step, int index) const noexcept;
    std::vector<int> _input_types() const;

    std::vector<Input> _inputs;
    std::vector<cv::Mat> _room; ///< for every input, in one block; made with the first frame of a size
    std::vector<cv::Mat*> _results;
};

} // namespace vexo
