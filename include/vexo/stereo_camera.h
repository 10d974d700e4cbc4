#pragma once

namespace vexo {

/// A rectified stereo pair: removes distortion and aligns rows, and turns matches into 3D points.
///
/// Made by CreateStereoCamera or CreateStereoCameraFromRaw.
/// Pixels   (0, 0) is the centre of the top-left pixel; x to the right, y down.
/// Frame    points lie in *rectified* camera-0 axes: origin at the optical centre of camera 0, x right and
///          y down along the rectified image, z forward. These axes are those of the raw camera 0 turned by
///          the rectifying rotation.
/// Lengths  in the unit of the calibration (that of its baseline), usually mm.
/// Threads  remap() and the get3dposition() family may be called from several threads at once; generators
///          that share one camera only read it.
///
/// Binary contract: the order of the virtual operations; the destructor comes last.
class iStereoCamera {
public:
    /// Ends the object. A generator that was given this camera must not be used afterwards.
    virtual void destroy() = 0;

    /// Distance between the two optical centres, in the calibration's length unit.
    virtual double get_baseline_length() const = 0;

    /// Size of the raw camera images that remap() accepts, in pixels.
    virtual void get_inpimage_size(int* width, int* height) const = 0;

    /// Size of the rectified images that remap() makes, in pixels.
    virtual void get_outimage_size(int* width, int* height) const = 0;

    /// Rectifies 8-bit one-channel images.
    ///
    /// @param src, src_step  raw image of the input size, and its row step in bytes; 0 means packed rows
    /// @param dst, dst_step  out: rectified image of the output size, and its row step; pixels that have no source
    ///                       pixel get the camera's fill colour
    /// @param which          0 or 1: one image with that camera. 2: two images side by side in one buffer,
    ///                       camera 0 on the left, in src and in dst
    /// @return               false, and dst untouched, for any other `which`, null buffers, steps that are
    ///                       smaller than a row, or a camera without rectification tables
    virtual bool remap(
        unsigned char* src, unsigned long src_step, unsigned char* dst, unsigned long dst_step, int which)
        = 0;

    /// Q method: point seen at a rectified pixel of camera 0, from its disparity.
    ///
    ///     (X, Y, Z, W)^T = Q (x, y, d, 1)^T         point = (X, Y, Z) / W
    ///
    /// @param xyz        out: three numbers, always written
    /// @param x, y       pixel of rectified camera 0
    /// @param disparity  x0 - x1 (y0 - y1 on a vertical rig), px
    /// @return           true, always: W = 0 (a point infinitely far) gives infinite or NaN coordinates
    /// Source: Bradski, Kaehler, Learning OpenCV (2008), ch. 12.
    virtual bool get3dposition(double* xyz, int x, int y, double disparity) = 0;

    /// P method: linear least squares on the two projection matrices.
    ///
    /// @param xyz       out: three numbers, written only on success
    /// @param pt0, pt1  {x, y} in rectified camera 0 and {x, y} in rectified camera 1
    /// @return          false when the 3x3 normal matrix is exactly singular
    /// Source: Hartley, Zisserman, Multiple View Geometry (2004), 12.2, inhomogeneous form.
    virtual bool get3dposition(double* xyz, const double* pt0, const double* pt1) = 0;

    /// V method: midpoint of the shortest segment between the two sight rays.
    ///
    /// @param xyz       out: three numbers, written only on success
    /// @param maxdist   largest accepted length of that segment, inclusive; calibration's length unit
    /// @param pt0, pt1  {x, y} in rectified camera 0 and {x, y} in rectified camera 1
    /// @return          false when the rays are farther apart than maxdist, or exactly parallel
    virtual bool get3dposition(double* xyz, double maxdist, const double* pt0, const double* pt1) = 0;

protected:
    /// Hosts call destroy(); deleting through the interface does not compile.
    virtual ~iStereoCamera() = default;
};

} // namespace vexo
