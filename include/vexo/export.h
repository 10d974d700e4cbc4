#pragma once

/// Marks the exported factories; everything else of libvexo.so is hidden.
#define VEXO_API __attribute__((visibility("default")))
