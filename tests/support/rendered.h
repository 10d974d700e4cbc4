#pragma once

#include "base/whole_file.h"
#include "sim/capture.h"
#include "sim/scenes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <tuple>

namespace vexo {

/// Frames as sim::make_capture() has them. Casting rays is most of the time that a small capture takes: here it is done
/// once for all captures of a program that differ in pattern, noise and the projector's blur alone; patterns are
/// blurred once.
class Rendered {
public:
    /// Frames of one camera.
    static std::vector<cv::Mat> frames(const std::string& scene, const sim::RigOptions& options, int camera)
    {
        const std::shared_ptr<Seen>& seen = _seen(scene, options, camera);
        seen->rig = make_rig(options); // which the view asks for the noise
        const std::vector<sim::ProjectedRow>& rows = _rows(options);
        std::vector<std::size_t> order(rows.size());
        std::iota(order.begin(), order.end(), std::size_t { 0 });
        std::swap(
            order[static_cast<std::size_t>(options.swapped[0])], order[static_cast<std::size_t>(options.swapped[1])]);
        std::vector<cv::Mat> frames;
        for (const std::size_t row : order)
            frames.push_back(seen->view.picture(rows[row], static_cast<int>(frames.size())));
        return frames;
    }

    /// What a host would have recorded: the frames of both cameras, cameras.yaml and capture.json.
    static void write(const std::string& folder, const std::string& scene, const sim::RigOptions& options)
    {
        sim::Files files;
        for (int camera = 0; camera < 2; ++camera) {
            int number = 0;
            for (const cv::Mat& frame : frames(scene, options, camera))
                sim::add_images({ { sim::picture_name(camera, "frame", number++), frame } }, files);
        }
        sim::add_text("cameras.yaml", cameras_yaml(make_rig(options)), files);
        sim::add_text("capture.json", manifest_text(pattern_of(options), options.exposure_ms), files);
        for (const auto& [name, bytes] : files) {
            std::filesystem::create_directories(std::filesystem::path(folder + "/" + name).parent_path());
            EXPECT_TRUE(write_file(folder + "/" + name, bytes));
        }
    }

private:
    struct Seen {
        sim::Rig rig;
        sim::View view;

        Seen(const std::string& scene, const sim::RigOptions& options, int camera)
            : rig(make_rig(options))
            , view(sim::make_scene(scene, options), rig, camera)
        {
        }
    };

    static const std::shared_ptr<Seen>& _seen(const std::string& scene, const sim::RigOptions& o, int camera)
    {
        const auto all = std::make_tuple(scene, camera, o.image_size.width, o.image_size.height, o.projector_size.width,
            o.projector_size.height, o.method == Method::sgbm, o.distance_mm, o.baseline_mm, o.toe_in_deg, o.exposure,
            o.ambient, o.tilt_deg, o.turned_deg);
        static std::map<std::remove_const_t<decltype(all)>, std::shared_ptr<Seen>> known;
        std::shared_ptr<Seen>& seen = known[all];
        if (seen == nullptr) seen = std::make_shared<Seen>(scene, o, camera);
        return seen;
    }

    static const std::vector<sim::ProjectedRow>& _rows(const sim::RigOptions& o)
    {
        const auto all = std::make_tuple(
            o.method, o.fringe_period, o.periods, o.projector_size.width, o.projector_size.height, o.gamma, o.defocus);
        static std::map<std::remove_const_t<decltype(all)>, std::vector<sim::ProjectedRow>> known;
        std::vector<sim::ProjectedRow>& rows = known[all];
        if (rows.empty()) rows = project(pattern_of(o), o);
        return rows;
    }
};

} // namespace vexo
