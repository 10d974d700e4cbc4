#include "host/captures/capture.h"

#include "host/captures/decoded_maps.h"

namespace vexo {

Capture read_capture(const CaptureFiles& files, const Choice& choice)
{
    Capture capture { files, choice, periods_said_in(files.folder), {} };
    capture.frames = files.decoded ? read_decoded(files.cam0, files.cam1, choice.method)
                                   : read_frames(files.cam0, files.cam1, frame_count(choice.method));
    return capture;
}

} // namespace vexo
