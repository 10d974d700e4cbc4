#include "host/captures/check.h"
#include "host/captures/judge.h"
#include "support/rendered.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

using namespace vexo;
using Frames = std::vector<cv::Mat>;

/// Camera 0 of a simulated capture; fringes of 16 projector px are about 7 camera px long.
Frames simulate(const std::function<void(sim::RigOptions&)>& change = {}, Method method = Method::gray_phase)
{
    sim::RigOptions rig;
    rig.image_size = { 480, 384 };
    rig.method = method;
    rig.fringe_period = 16;
    rig.periods = { 27, 29, 31 };
    if (change) change(rig);
    return Rendered::frames("bust", rig, 0);
}

std::vector<Finding> judged(const Frames& frames, Method method)
{
    const FringeMethod fringes { method,
        method == Method::multi_phase ? std::vector<int> { 27, 29, 31 } : std::vector<int> {} };
    std::vector<std::string> names;
    for (std::size_t k = 0; k < frames.size(); ++k)
        names.push_back("f" + std::to_string(k) + ".png");
    return judge(measure_capture(frames, fringes), fringes, 0, find_exchange(frames, fringes), names);
}

void exchange(Frames& f, std::size_t a, std::size_t b)
{
    std::swap(f[a], f[b]);
}

void scale(cv::Mat& frame, double by)
{
    frame.convertTo(frame, CV_8U, by);
}

void expose(Frames& frames, double by, double room = 0)
{
    for (cv::Mat& frame : frames)
        frame.convertTo(frame, CV_8U, by, room);
}

void blacken(Frames& f, std::size_t k)
{
    f[k] = cv::Mat::zeros(f[k].size(), CV_8U);
}

/// The frames from `first` on of another capture.
void follow(Frames& f, std::size_t first, const std::function<void(sim::RigOptions&)>& change)
{
    const Frames other = simulate(change);
    std::copy(other.begin() + static_cast<std::ptrdiff_t>(first), other.end(),
        f.begin() + static_cast<std::ptrdiff_t>(first));
}

/// One way to spoil a capture, or not to, and what must be said of it.
struct Case {
    const char* what;
    std::function<void(Frames&)> change;
    Weight weight;         ///< the heaviest
    const char* name;      ///< of a finding with that weight; null: any
    const char* text = ""; ///< is said in that finding
};

void expect(const Frames& given, Method method, const std::vector<Case>& cases)
{
    for (const Case& c : cases) {
        Frames frames;
        for (const cv::Mat& frame : given)
            frames.push_back(frame.clone());
        c.change(frames);
        const std::vector<Finding> found = judged(frames, method);
        std::string all;
        bool named = c.name == nullptr;
        for (const Finding& f : found) {
            all += f.name + " [" + word_of(f.weight) + "] " + sentence(f) + "\n";
            named
                = named || (f.name == c.name && f.weight == c.weight && sentence(f).find(c.text) != std::string::npos);
        }
        EXPECT_EQ(word_of(heaviest(found)), std::string(word_of(c.weight))) << c.what << "\n" << all;
        EXPECT_TRUE(named) << c.what << "\n" << all;
    }
}

TEST(Captures, AreJudgedByWhatTheyLeaveToMeasure)
{
    using Rig = sim::RigOptions;
    const auto rig
        = [](const std::function<void(Rig&)>& change) { return [change](Frames& f) { f = simulate(change); }; };
    const std::vector<Case> cases {
        { "as it is", [](Frames&) {}, Weight::good, nullptr },
        { "3x over-exposed", [](Frames& f) { expose(f, 3); }, Weight::worse, "over-exposed" },
        { "7x over-exposed", [](Frames& f) { expose(f, 7); }, Weight::spoils, "over-exposed", "three of four" },
        { "exposure 0.03", [](Frames& f) { expose(f, 0.03); }, Weight::spoils, "under-exposed", "expose more" },
        { "exposure 0.2", [](Frames& f) { expose(f, 0.2); }, Weight::worse, nullptr },
        { "room light", [](Frames& f) { expose(f, 1, 50); }, Weight::good, nullptr },
        { "gamma", rig([](Rig& r) { r.gamma = 2.2; }), Weight::worse, "non-linear" },
        { "projector out of focus", rig([](Rig& r) { r.defocus = 12; }), Weight::spoils, "out-of-focus" },
        { "motion of 0.2 mm", [](Frames& f) { follow(f, 11, [](Rig& r) { r.distance_mm += 0.2; }); }, Weight::good,
            nullptr },
        { "motion of 10 mm in the code", [](Frames& f) { follow(f, 4, [](Rig& r) { r.distance_mm += 10; }); },
            Weight::worse, "moving-scene" },
        { "motion of 10 mm before the fringes", [](Frames& f) { follow(f, 9, [](Rig& r) { r.distance_mm += 10; }); },
            Weight::worse, "moving-scene" },
        { "motion of 10 mm in the fringes", [](Frames& f) { follow(f, 11, [](Rig& r) { r.distance_mm += 10; }); },
            Weight::spoils, "moving-scene" },
        { "long fringes", rig([](Rig& r) { r.fringe_period = 128; }), Weight::note, "scatter" },
        { "a fringe frame 15 % darker", [](Frames& f) { scale(f[10], 0.85); }, Weight::worse, "unsteady-light" },
        { "a fringe frame 60 % darker", [](Frames& f) { scale(f[10], 0.4); }, Weight::spoils, "unsteady-light" },
        { "fringes a quarter later", [](Frames& f) { std::rotate(f.begin() + 9, f.begin() + 10, f.end()); },
            Weight::note, "fringe-start" },
        { "fringes half a period later", [](Frames& f) { std::rotate(f.begin() + 9, f.begin() + 11, f.end()); },
            Weight::spoils, "out-of-order", "reorder f9 to f12 as f11, f12, f9, f10" },
        { "planes of the code in reverse", [](Frames& f) { std::reverse(f.begin() + 2, f.begin() + 9); },
            Weight::spoils, "out-of-order", "reorder f2 to f8 as f8, f7, f6, f5, f4, f3, f2" },
        { "dark and a plane exchanged", [](Frames& f) { exchange(f, 0, 6); }, Weight::spoils, "out-of-order",
            "f6.png" },
        { "coarse planes exchanged", [](Frames& f) { exchange(f, 3, 4); }, Weight::spoils, "out-of-order",
            "f3.png and f4.png are exchanged" },
        { "fringe frames exchanged", [](Frames& f) { exchange(f, 9, 11); }, Weight::spoils, "out-of-order",
            "f9.png and f11.png are exchanged" },
        { "dark and lit exchanged", [](Frames& f) { exchange(f, 0, 1); }, Weight::spoils, "out-of-order", "f0.png" },
        { "lit and a plane exchanged", [](Frames& f) { exchange(f, 1, 6); }, Weight::spoils, "out-of-order", "f6.png" },
        { "a fringe frame doubled", [](Frames& f) { f[10] = f[9].clone(); }, Weight::spoils, "equal-frames",
            "f9.png and f10.png" },
        { "a code frame doubled", [](Frames& f) { f[6] = f[5].clone(); }, Weight::spoils, "equal-frames",
            "f5.png and f6.png" },
        { "a coarse code frame black", [](Frames& f) { blacken(f, 4); }, Weight::spoils, "blank-frame", "f4.png" },
        { "a fine code frame black", [](Frames& f) { blacken(f, 8); }, Weight::spoils, "blank-frame", "f8.png" },
        { "a fringe frame black", [](Frames& f) { blacken(f, 10); }, Weight::spoils, "blank-frame", "f10.png" },
        { "a fringe frame of one grey", [](Frames& f) { f[9].setTo(8); }, Weight::spoils, "blank-frame", "f9.png" },
        { "planes without use black", [](Frames& f) { blacken(f, 2); }, Weight::note, "blank-frame", "f2.png" },
        { "one frame late",
            [](Frames& f) {
                f.pop_back();
                f.insert(f.begin(), f[0].clone());
            },
            Weight::spoils, "shifted-frames", "late" },
        { "one frame early",
            [](Frames& f) {
                f.erase(f.begin());
                f.push_back(f.back().clone());
            },
            Weight::spoils, "shifted-frames", "early" },
        { "no light", [](Frames& f) { f.assign(13, f[0]); }, Weight::spoils, "pattern-unseen" },
    };
    expect(simulate(), Method::gray_phase, cases);
}

TEST(Captures, OfPicturesThatAreMirroredAreNamedAsSuch)
{
    Frames frames = simulate();
    for (cv::Mat& frame : frames)
        cv::flip(cv::Mat(frame.clone()), frame, 1);
    const std::vector<Finding> found = judge_frames_of(frames, {}, 0, std::vector<std::string>(13, "f.png"));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].name, "turned-frames");
}

TEST(Captures, OfSeveralPeriodsAreJudgedByWhatTheyLeaveToMeasure)
{
    expect(simulate({}, Method::multi_phase), Method::multi_phase,
        {
            { "fringe frames exchanged", [](Frames& f) { exchange(f, 4, 9); }, Weight::spoils, "out-of-order" },
            { "a fringe frame doubled", [](Frames& f) { f[12] = f[3].clone(); }, Weight::spoils, "equal-frames" },
            { "a fringe frame black", [](Frames& f) { blacken(f, 5); }, Weight::spoils, "blank-frame", "f5.png" },
        });
}

} // namespace
