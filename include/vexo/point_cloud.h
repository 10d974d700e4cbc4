#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace vexo {

class iStereoCamera;

/// The host's receiver of a point cloud. The library calls only the first virtual operation.
class PointCloudCallback {
public:
    /// Called once, on the calling thread, by iPointCloudGenerator::get_pointcloud().
    ///
    /// All buffers stay owned by the generator and live until its next init(), genPC() or destroy().
    /// @param texture       rectified lit frame of camera 0, 8-bit grey; null before the first genPC()
    /// @param texture_step  its row step in bytes
    /// @param width,height  its size in pixels: that of the rectified image; 0 x 0 before the first genPC()
    /// @param points        width x height points, row after row, one per rectified pixel of camera 0, in
    ///                      rectified camera-0 axes (or in the frame set by convert_coordinate), in the
    ///                      calibration's length unit; (NaN, NaN, NaN) where nothing was measured
    /// @param valid_count   number of points that are not NaN
    virtual void receive(unsigned char* texture, std::size_t texture_step, int width, int height,
        cv::Point3_<float>* points, int valid_count)
        = 0;

protected:
    ~PointCloudCallback() = default;
};

/// Turns the frames of both cameras into a dense point cloud.
///
/// Made by CreatePointCloudGenerator; selector 0 block matching, 1 gray code + phase, 2 multi-period phase.
/// Order    init, setparams, setpict or loadpict for every frame of both cameras, exec, genPC,
///          get_pointcloud; then again from the frames. A call out of order answers false or does nothing.
/// Threads  one generator is for one thread at a time; several may share one stereo camera.
///
/// Binary contract: the order of the virtual operations; the destructor comes last.
class iPointCloudGenerator {
public:
    /// How genPC() turns the disparity map into points.
    enum Method3D {
        MethodQ = 0, ///< reprojection matrix Q; the one to use. Any unknown value means this one, too
        /// Midpoint of the sight rays. It reads the *map value* as the column in camera 1, not x - d, so it
        /// suits a map that holds columns of camera 1; on disparities it gives no useful point.
        MethodV = 1,
        /// Linear least squares. It reads the map value as the column in camera 1, as MethodV does.
        MethodP = 2
    };

    /// Ends the object and all buffers that it handed out. The stereo camera stays the host's.
    virtual void destroy() = 0;

    /// Binds the generator to a stereo camera made by this library, which must outlive it.
    /// Another camera drops frames, disparities and points; null leaves a generator that answers false.
    virtual void init(iStereoCamera* camera) = 0;

    /// Frame of the points: reads the 4x4 rigid transform "RT" (that frame -> rectified camera 0) of a YAML
    /// file; points made by the Q method then come out in that frame: p' = RT^-1 p. P and V ignore it.
    /// @return false, and the transform kept, for a file that cannot be read, no 4x4 matrix "RT", or one
    ///         that is singular or not finite
    virtual bool convert_coordinate(std::string file) = 0;

    /// As above, from 16 numbers, row-major. Fewer than 16 give false.
    virtual bool convert_coordinate(std::vector<double>& rt) = 0;

    /// Replaces the parameters; may be called at any time before exec().
    ///
    /// @param params  SGBMatchingParam, GrayPhaseMatchingParam or MultiPhaseMatchingParam, for selector 0, 1
    ///                or 2; copied, need not outlive the call
    /// @return        false for null, or for a record that why_invalid() faults; such a record is in force
    ///                all the same (the copy comes before the checks), but the frames are kept
    /// A success of the phase matchers drops the frames given so far. Writes one line with its name to the
    /// standard error stream.
    virtual bool setparams(void* params) = 0;

    /// Frames per camera of the method: 1 (block matching), 13 (gray code + phase) or 14 (multi-period).
    /// A constant of the class: other records of the multi-period method may use fewer or more frames.
    virtual int requiredframes() const { return 1; }

    /// Copies one 8-bit grey frame of the camera's input size.
    ///
    /// @param data   top-left pixel
    /// @param step   bytes from row to row; 0 means packed rows
    /// @param cam    0 or 1; 2: `data` holds both frames side by side, camera 0 on the left, and camera 1
    ///               starts step / 2 bytes into each row
    /// @param frame  index in the order of projection: 0 dark, 1 lit, then the patterns
    /// @return       false, and nothing kept, for a bad camera or frame index, null data, a step smaller
    ///               than a row, or before init() and setparams()
    virtual bool setpict(void* data, unsigned long step, int cam, int frame) = 0;

    /// As setpict, from an image file (PNG, TIFF, BMP, PNM or JPEG), converted to grey. False, too, when the file
    /// cannot be read or its size is not the input size (twice the width for cam 2).
    virtual bool loadpict(std::string file, int cam, int frame) = 0;

    /// A frame as it was given (block matching: the rectified image, `frame` is ignored).
    ///
    /// @param data, width, height, step  out: 8-bit grey image, owned by the generator, until the next call
    /// @param cam    0, 1, or 2 for both side by side
    /// @param frame  index as in setpict
    /// @return       false, and nothing written, for an index out of range or a frame not given yet
    virtual bool getpict(unsigned char** data, int* width, int* height, unsigned long* step, int cam, int frame) = 0;

    /// Decodes and rectifies all frames (block matching: computes the disparities).
    /// @return false when a frame is missing, sizes differ, or init or setparams is missing
    virtual bool exec() = 0;

    /// Matches and triangulates: fills the texture, the disparities and the points.
    ///
    /// @param method       see Method3D
    /// @param interpolate  phase matchers: give every column between the first and the last valid column of
    ///                     a row a disparity, by a line fit over its valid neighbours; block matching
    ///                     ignores it
    /// Without a successful exec() since the last init or setparams there are no points.
    virtual void genPC(Method3D method, bool interpolate) = 0;

    /// Hands the last cloud to the host.
    /// @param callback  called once, before this returns; null is allowed and only asks for the count. It may measure
    ///                  again or call destroy(), after which the buffers handed to it are gone
    /// @return          number of valid points, the one that the callback was given
    virtual int get_pointcloud(PointCloudCallback* callback) = 0;

protected:
    /// Hosts call destroy(); deleting through the interface does not compile.
    virtual ~iPointCloudGenerator() = default;
};

} // namespace vexo
