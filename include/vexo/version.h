#pragma once

/// Version of the headers that a host was compiled with. The shared library's SONAME is libvexo.so.<major>.
#define VEXO_VERSION_MAJOR 0
#define VEXO_VERSION_MINOR 1
#define VEXO_VERSION_PATCH 0
#define VEXO_VERSION_STRING "0.1.0"

/// One comparable number, for example 0x000100 for 0.1.0.
#define VEXO_VERSION ((VEXO_VERSION_MAJOR << 16) | (VEXO_VERSION_MINOR << 8) | VEXO_VERSION_PATCH)
