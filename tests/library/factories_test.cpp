#include "vexo/vexo.h"

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <sstream>

using namespace vexo;

namespace {

std::string output_of(const std::string& command)
{
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 256> part {};
    while (pipe != nullptr && fgets(part.data(), static_cast<int>(part.size()), pipe) != nullptr)
        out += part.data();
    if (pipe != nullptr) pclose(pipe);
    return out;
}

} // namespace

TEST(Library, ExportsTheSixFactoriesAndNothingElse)
{
    std::istringstream names(output_of("nm -D --defined-only " VEXO_LIBRARY " | awk '{print $3}'"));
    const std::set<std::string> symbols { std::istream_iterator<std::string>(names), {} };
    const std::set<std::string> expected { "CreateCalibBoardRecognizer", "CreateStereoCamera",
        "CreateStereoCameraFromRaw", "CreatePointCloudGenerator", "CreateCameraCalibrator", "CreateStereoCalibrator" };
    EXPECT_EQ(symbols, expected);
}

TEST(Library, HasASonameWithTheMajorVersion)
{
    const std::string dynamic = output_of("readelf -d " VEXO_LIBRARY);
    EXPECT_NE(dynamic.find("[libvexo.so." + std::to_string(VEXO_VERSION_MAJOR) + "]"), std::string::npos) << dynamic;
}

TEST(Library, StereoFactoriesAnswerNullToWhatMakesNoCamera)
{
    StereoCameraParam param;
    param.inp_width = 320;
    param.inp_height = 240;
    const std::vector<std::string> none, one { "/nowhere/a.yaml" }, three { "/a", "/b", "/c" };
    for (const int selector : { -1, 0, 1, 2, 3 }) {
        EXPECT_EQ(CreateStereoCamera(selector, nullptr, &param), nullptr);
        EXPECT_EQ(CreateStereoCamera(selector, &one, nullptr), nullptr);
        for (const auto* files : { &none, &one, &three })
            EXPECT_EQ(CreateStereoCamera(selector, files, &param), nullptr);
    }

    const std::array<double, 9> numbers {};
    const double* n = numbers.data();
    EXPECT_EQ(CreateStereoCameraFromRaw(n, n, n, n, n, n, &param), nullptr);
    EXPECT_EQ(CreateStereoCameraFromRaw(n, n, n, n, n, n, nullptr), nullptr);
}
