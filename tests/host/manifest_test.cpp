#include "base/failure.h"
#include "base/whole_file.h"
#include "host/captures/capture.h"
#include "sim/capture.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using namespace vexo;
using Frames = std::array<std::vector<cv::Mat>, 2>;

/// Captures whose files are not those that this program writes.
class ForeignCaptures : public testing::Test {
protected:
    static Frames simulate()
    {
        sim::RigOptions rig;
        rig.image_size = { 160, 128 };
        Frames frames;
        for (const auto& [name, bytes] : sim::make_capture("plane", rig).files)
            for (std::size_t c = 0; c < 2; ++c)
                if (name.rfind("cam" + std::to_string(c) + "/", 0) == 0)
                    frames[c].push_back(cv::imdecode(bytes, cv::IMREAD_UNCHANGED));
        return frames;
    }

    /// As a capture of its own, with the frames `order` from 0 on: left_0.png, ..., right_0.png, ...
    CaptureFiles write(const std::string& name, const Frames& frames, const std::vector<std::size_t>& order,
        const std::string& manifest, const std::string& ending = ".png") const
    {
        const std::string scan = folder / name;
        for (std::size_t c = 0; c < 2; ++c) {
            const std::string camera = scan + "/cam" + std::to_string(c);
            fs::create_directories(camera);
            for (std::size_t i = 0; i < order.size(); ++i)
                EXPECT_TRUE(cv::imwrite(camera + "/shot" + std::to_string(i) + ending, frames[c][order[i]]));
        }
        if (!manifest.empty()) put(scan + "/capture.json", manifest);
        CaptureFiles files;
        files.folder = scan;
        files.cam0 = scan + "/cam0";
        files.cam1 = scan + "/cam1";
        return files;
    }

    static Capture read(const CaptureFiles& files) { return read_capture(files, choose_method(files)); }

    static std::string fault(const CaptureFiles& files)
    {
        try {
            read(files);
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "";
    }

    /// Largest difference of the frames from `first` on.
    static double apart(const Frames& a, const Frames& b, std::size_t first = 0)
    {
        double most = 0;
        for (std::size_t c = 0; c < 2; ++c)
            for (std::size_t k = first; k < a[c].size(); ++k)
                most = std::max(most, cv::norm(a[c][k], b[c].at(k), cv::NORM_INF));
        return most;
    }

    const std::vector<std::size_t> as_projected { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 };
    const Frames frames = simulate();
    Folder folder;
};

TEST_F(ForeignCaptures, AreBroughtIntoOrderByAManifestOrByHand)
{
    std::string lists;
    for (const std::string c : { "0", "1" }) {
        lists += (c == "0" ? "" : ", ") + ("\"cam" + c + "\": [");
        for (const int i : { -1, -1, -1, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3 })
            lists += i < 0 ? "null, " : "\"cam" + c + "/shot" + std::to_string(i) + (i == 3 ? ".png\"]" : ".png\", ");
    }
    const std::vector<std::size_t> fringes_first { 9, 10, 11, 12, 3, 4, 5, 6, 7, 8 };
    CaptureFiles files = write("renamed", frames, fringes_first, "{ \"frames\": {" + lists + "} }");
    const Capture by_manifest = read(files);
    EXPECT_EQ(by_manifest.method(), Method::gray_phase);
    EXPECT_EQ(apart(frames, by_manifest.frames.frames, 3), 0);
    EXPECT_EQ(by_manifest.frames.notes.size(), 3U) << "the order, and what was made for each camera";
    const double no_fringes = 20; // of what the projector lights, where the code alone says what is dark and bright
    for (std::size_t c = 0; c < 2; ++c)
        for (std::size_t k = 0; k < 2; ++k)
            EXPECT_LT(cv::norm(frames[c][k], by_manifest.frames.frames[c][k], cv::NORM_L1), no_fringes * 160 * 128);
    fs::remove(files.folder + "/capture.json");
    files.order = { -1, -1, -1, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3 };
    EXPECT_EQ(apart(by_manifest.frames.frames, read(files).frames.frames), 0);
}

TEST_F(ForeignCaptures, MayHaveAnInvertedCode)
{
    Frames inverted = frames;
    for (std::size_t c = 0; c < 2; ++c)
        for (std::size_t k = 2; k < 9; ++k)
            inverted[c][k] = cv::Mat(frames[c][0] + frames[c][1] - frames[c][k]);
    const Frames found = read(write("inverted", inverted, as_projected, R"({"inverted_code": true})")).frames.frames;
    EXPECT_LE(apart(frames, found), 12) << "but for clipping in single noisy pixels";
}

TEST_F(ForeignCaptures, OfMoreBitsAreScaledByTheLargestValueOrAsSaid)
{
    for (const int bits : { 10, 12, 14, 16 }) {
        Frames deep = frames;
        for (std::vector<cv::Mat>& of_camera : deep)
            for (cv::Mat& frame : of_camera)
                frame.convertTo(frame, CV_16U, ((1 << bits) - 1) / 255.0);
        CaptureFiles files = write(std::to_string(bits), deep, as_projected, "");
        const Capture found = read(files);
        EXPECT_EQ(found.frames.bits, bits);
        EXPECT_EQ(apart(frames, found.frames.frames), 0) << bits;
        files.bits = 16;
        EXPECT_EQ(cv::norm(read(files).frames.frames[0][1], frames[0][1], cv::NORM_INF) < 1, bits == 16);
        files.bits = 9;
        EXPECT_NE(fault(files).find("--bits"), std::string::npos);
    }
    Frames real = frames;
    real[1][4].convertTo(real[1][4], CV_32F);
    EXPECT_NE(fault(write("float", real, as_projected, "", ".tiff")).find("shot4.tiff: holds floating-point"),
        std::string::npos);
}

TEST_F(ForeignCaptures, AreRefusedWithTheKeyThatIsWrong)
{
    const std::string frame = R"("cam0/shot0.png")", other = R"("cam1/shot0.png")";
    const auto both = [&](const std::string& a, const std::string& b) {
        return R"({"frames": {"cam0": [)" + a + R"(], "cam1": [)" + b + "]}}";
    };
    std::string many = frame;
    for (int i = 0; i < 20; ++i)
        many += ", null";
    const std::vector<std::pair<std::string, std::string>> cases {
        { R"({"ordre": 1})", "unknown key \"ordre\"; there are bits, exposure_ms, exposures, frames" },
        { R"({"method": "phase"})", "method must be" },
        { R"({"method": 1})", "method must be" },
        { R"({"bits": 12.5})", "bits must be a whole number" },
        { R"({"bits": 40})", "bits must be" },
        { R"({"periods": []})", "periods must be" },
        { R"({"unit": "furlong"})", "unit must be" },
        { R"({"inverted_code": 1})", "inverted_code must be" },
        { R"({"exposure_ms": -1})", "exposure_ms must be" },
        { R"({"schema": 2})", "schema is not 1" },
        { R"({"frames": []})", "frames must hold two lists" },
        { both(frame + ", " + frame, other), "cam0/shot0.png is named twice" },
        { both(frame + ", \"cam0/../cam0/shot0.png\"", other), "is named twice" },
        { both(R"("../x.png")", other), "../x.png leaves the folder" },
        { both(R"("/etc/passwd")", other), "/etc/passwd leaves the folder" },
        { both(R"("cam0/none.png")", other), "cam0/none.png does not exist" },
        { both("\"" + std::string(300, 'x') + "\"", other), "more than 255" },
        { both("1", other), "file names" },
        { both(frame + ", null", other), "as many files" },
        { both(many, other), "as many file names as" },
        { both(frame + ", null", other + ", null"), "fit no method" },
        { R"({"exposures": ["cam0"]})", "exposures must be a list of 2 to 8 folders" },
        { R"({"exposures": ["cam0", 1]})", "exposures must hold folders" },
        { R"({"exposures": ["cam0", "../wrong/cam1"]})", "../wrong/cam1 leaves the folder" },
        { R"({"exposures": ["cam0", "cam1/../cam0"]})", "is named twice" },
        { R"({"exposures": ["cam0", "cam2"]})", "exposures: cam2 is no folder" },
        { R"({"exposures": ["cam0", "cam1"], "bits": 12})", "exposures stands alone; write bits into" },
        { R"({"exposures": ["cam0", "cam1"]})", "lists exposures, which vexo measure merges" },
        { "[1]", "capture.json" },
    };
    const CaptureFiles files = write("wrong", frames, as_projected, "");
    for (const auto& [text, said] : cases) {
        put(files.folder + "/capture.json", text);
        EXPECT_NE(fault(files).find(said), std::string::npos) << text << ": " << fault(files);
    }
}

} // namespace
