#pragma once

#include "host/cameras/stereo.h"
#include "host/captures/capture.h"
#include "host/measurement/measured.h"
#include "host/measurement/parameters.h"

namespace vexo {

/// What is to be said of a measurement and of what it was made from. Fills rows, projector and findings, in this
/// order: what the frames of each camera say (by judge(); fringes that were not decoded elsewhere), then of both
/// cameras together
///
///     rows       always; by judge_rows()
///     projector  where the rows do not settle it, fringes only: good, or spoils, by judge_projector()
///     behind     spoils: most points lie behind the cameras
///     coverage   worse or spoils: of what could be measured most was not
///
/// Where nothing was measured coverage alone, with the likeliest cause.
void judge_measured(Measured& measured, const Capture& capture, const Stereo& stereo, const MeasureRequest& request);

} // namespace vexo
