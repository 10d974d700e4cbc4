#include "host/captures/capture.h"

#include "host/captures/decoded_maps.h"

namespace vexo {

Capture read_capture(const CaptureFiles& files, const Choice& choice)
{
    Capture capture { files, choice, periods_said_in(files.folder), {}, read_manifest(files.folder), {} };
    if (files.decoded) {
        capture.frames = read_decoded(files.cam0, files.cam1, choice.method);
        return capture;
    }
    const FrameFiles which = find_frame_files(files, choice.method);
    check_count(files, which, frame_count(choice.method));
    capture.frames = read_frames(which, choice.method);
    return capture;
}

} // namespace vexo
