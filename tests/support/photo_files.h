#pragma once

#include "host/calibration/board_views.h"
#include "support/calibration_views.h"
#include "support/folder.h"

#include <opencv2/imgcodecs.hpp>

#include <functional>

namespace board_photos {

/// Four views of the coarse board by two cameras, 400 x 320 px, as files and recognised.
struct PhotoFiles {
    /// @param spoil  draws into the photo of a camera and a view before it is written
    explicit PhotoFiles(const std::function<void(int, int, cv::Mat&)>& spoil = {})
    {
        board.layout = coarse_board().layout;
        for (int i = 0; i < 8; ++i) {
            std::filesystem::create_directories(folder / ("cam" + std::to_string(i / 4)));
            cv::Mat photo = board_photo(i / 4, i % 4).clone();
            if (spoil) spoil(i / 4, i % 4, photo);
            cv::imwrite(path(i / 4, i % 4), photo);
        }
        views = vexo::find_views(folder / "cam0", folder / "cam1", {});
        recognise(views, board);
    }

    std::string path(int camera, int view) const
    {
        return folder / ("cam" + std::to_string(camera) + "/" + std::to_string(view) + ".png");
    }

    Folder folder;
    vexo::BoardFile board;
    vexo::BoardViews views;
};

} // namespace board_photos
