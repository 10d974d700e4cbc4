#include "decode/MultiPhaseLoader.h"

namespace vexo {

MultiPhaseLoader::MultiPhaseLoader(int camera_id, const MultiPhaseMatchingParam* params, const FringePairTable* table)
    : MultiPhaseHolder(camera_id, 0, params, table, table == nullptr ? 0 : table->count)
{
    frame_count = 2 + static_cast<int>(phases.size());
    for (cv::Mat_<float>& phase : phases)
        _add_input(phase, CV_32F);
}

int MultiPhaseLoader::set_input(void* data, int width, int height, unsigned long step, int index)
{
    return _copy_input(data, width, height, step, index);
}

void MultiPhaseLoader::preproc()
{
    if (params == nullptr || !complete())
        _drop_results();
    else
        set_valid(params->min_contrast, params->max_white, params->min_white);
}

} // namespace vexo
