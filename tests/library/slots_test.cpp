// The binary contract: which operation is in which virtual slot, counted from the first, as a host calls them that was
// compiled against other headers or written in another language.

#include "vexo/pose.h"
#include "vexo/vexo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

using namespace vexo;

namespace {

/// The slot of an operation, from the Itanium C++ ABI's pointer to a virtual member: 8 * slot, and 1 more where the bit
/// that says "virtual" is not in the second word, as it is on ARM.
template <class Member> int slot(Member member)
{
    std::ptrdiff_t word = 0;
    std::memcpy(&word, &member, sizeof word);
    return static_cast<int>(word) / static_cast<int>(sizeof(void*));
}

/// @param first  slot of the first of these operations; the others follow it
template <class... Members> void expect_slots(int first, Members... members)
{
    std::vector<int> expected(sizeof...(members));
    std::iota(expected.begin(), expected.end(), first);
    EXPECT_EQ((std::vector<int> { slot(members)... }), expected);
}

using Text = std::string;
using Points = std::vector<cv::Point2f>;
using Objects = std::vector<cv::Point3f>;
using Bytes = unsigned char*;

} // namespace

TEST(Slots, OfAStereoCamera)
{
    using S = iStereoCamera;
    expect_slots(0, &S::destroy, &S::get_baseline_length, &S::get_inpimage_size, &S::get_outimage_size, &S::remap,
        static_cast<bool (S::*)(double*, int, int, double)>(&S::get3dposition),
        static_cast<bool (S::*)(double*, const double*, const double*)>(&S::get3dposition),
        static_cast<bool (S::*)(double*, double, const double*, const double*)>(&S::get3dposition));
}

TEST(Slots, OfPointCloudGenerators)
{
    using G = iPointCloudGenerator;
    expect_slots(0, &G::destroy, &G::init, static_cast<bool (G::*)(Text)>(&G::convert_coordinate),
        static_cast<bool (G::*)(std::vector<double>&)>(&G::convert_coordinate), &G::setparams, &G::requiredframes,
        &G::setpict, &G::loadpict, &G::getpict, &G::exec, &G::genPC, &G::get_pointcloud);
    expect_slots(0, &PointCloudCallback::receive);
    // Slots 12 and 13 are the destructor; the phase matchers add get_datatype() after it.
    GrayPhaseMatchingParam gray;
    MultiPhaseMatchingParam multi;
    gray.datatype = multi.datatype = 1;
    void* const records[] = { &gray, &multi };
    for (int selector = 1; selector < 3; ++selector) {
        const Owned<iPointCloudGenerator> generator(CreatePointCloudGenerator(selector));
        ASSERT_TRUE(generator && generator->setparams(records[selector - 1]));
        void** table = *reinterpret_cast<void***>(generator.get());
        EXPECT_EQ(reinterpret_cast<int (*)(void*)>(table[14])(generator.get()), 1) << selector;
    }
    EXPECT_TRUE(CreatePointCloudGenerator(3) == nullptr && CreatePointCloudGenerator(-1) == nullptr);
}

TEST(Slots, OfABoardRecognizer) // 1 and 2 are the destructor
{
    using R = iCalibBoardRecognizer;
    expect_slots(0, &R::destroy);
    expect_slots(3, &R::set_parameters, &R::recognize, &R::get_error_name, &R::image_size, &R::get_marker_range,
        &R::get_marker_index, static_cast<int (R::*)(const Points&, Points&, Objects&)>(&R::corresponding_points),
        static_cast<int (R::*)(const Points&, const Points&, Points&, Points&, Objects&)>(&R::corresponding_points),
        &R::save_result_image, &R::copy_result_image, &R::show_result_image);
}

TEST(Slots, OfTheCalibrators) // 0 and 1 are the destructor
{
    using C = iCameraCalibrator;
    expect_slots(2, &C::destroy, &C::set_parameters,
        static_cast<int (C::*)(Bytes, int, int, unsigned long, bool, Text)>(&C::put_image),
        static_cast<int (C::*)(Text, bool, Text)>(&C::put_image), &C::do_calibrate, &C::save_calibfile);
    using S = iStereoCalibrator;
    expect_slots(2, &S::destroy, &S::set_parameters,
        static_cast<int (S::*)(int, Bytes, int, int, unsigned long, bool, Text)>(&S::put_image),
        static_cast<int (S::*)(int, Text, bool, Text)>(&S::put_image),
        static_cast<int (S::*)(Text, bool, Text)>(&S::put_image), &S::do_calibrate, &S::save_calibfile,
        &S::create_stereo_camera,
        static_cast<bool (S::*)(Bytes, unsigned long, Bytes, unsigned long)>(&S::create_stereo_brdcrd),
        static_cast<bool (S::*)(Text, Text)>(&S::create_stereo_brdcrd),
        static_cast<bool (S::*)(Text)>(&S::create_stereo_brdcrd), &S::save_stereofile, &S::save_stereohmat,
        &S::save_boardRT);
}

TEST(Slots, OfAPoseSolver)
{
    using P = iCalibBoardPoseSolver;
    expect_slots(0, &P::destroy, &P::init_camera, &P::set_parameters,
        static_cast<int (P::*)(Bytes, int, int, unsigned long, double*)>(&P::solve_pose),
        static_cast<int (P::*)(Text, bool, double*)>(&P::solve_pose), &P::save_debug_image, &P::show_debug_image,
        &P::ptr_debug_image, &P::get_size);
}
