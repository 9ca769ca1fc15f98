/*
 * libzel_common_utils: every public header of the library.
 *
 *   debug/                  logging: print mask, debug zones, log emission
 *   util/                   file, system and platform utilities; k-th selection; profiler
 *   src/common/zel_memory/  buffers, allocators, importers, pool and memory manager
 */
#pragma once

#include "debug/zel_debug.h"
