#include "decode/GrayPhaseLoader.h"

namespace vexo {

// The count is that of the 8-bit frames, 3; the float frame with index 3 is accepted, too.
GrayPhaseLoader::GrayPhaseLoader(int camera_id, const GrayPhaseMatchingParam* params)
    : GrayPhaseHolder(camera_id, 3, params)
{
    _add_input(gray, CV_8U);
    _add_input(phase, CV_32F);
}

int GrayPhaseLoader::set_input(void* data, int width, int height, unsigned long step, int index)
{
    return _copy_input(data, width, height, step, index);
}

void GrayPhaseLoader::preproc()
{
    if (params == nullptr || !complete())
        _drop_results();
    else
        set_valid(params->min_contrast, params->max_white, params->min_white);
}

} // namespace vexo
