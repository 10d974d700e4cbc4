#include "board/result_picture.h"
#include "support/folder.h"

#include <gtest/gtest.h>

#include <cstdio>

using namespace vexo;

namespace {

/// What this program says when it opens a window as if there were a display, in surroundings of its own.
std::string said_with(const std::string& surroundings)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
    const std::string command = "QT_QPA_PLATFORM=offscreen " + surroundings + " '" + self
        + "' --gtest_filter=Windows.DISABLED_One --gtest_also_run_disabled_tests 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string said;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe))
        said.push_back(static_cast<char>(c));
    pclose(pipe);
    return said;
}

} // namespace

TEST(Windows, DISABLED_One)
{
    show_picture("of a test", cv::Mat(9, 9, CV_8U, cv::Scalar(7)), 1);
}

TEST(Windows, OpenWithOpenCVsLibraryAndAreALineOfTextWithoutIt)
{
    const Folder folder;
    put(folder / "libopencv_highgui.so.406", "no library");
    const std::string line = "could not be shown", passed = "[  PASSED  ] 1 test";
    const std::string with = said_with(""), without = said_with("LD_LIBRARY_PATH=" + (folder / ""));
    EXPECT_NE(with.find(passed), std::string::npos) << with;
    EXPECT_EQ(with.find(line), std::string::npos) << with;
    EXPECT_NE(without.find(passed), std::string::npos) << without;
    EXPECT_NE(without.find(line), std::string::npos) << without;
}
