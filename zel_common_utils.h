/*
 * libzel_common_utils: every public header of the library.
 *
 *   debug/                  logging: print mask, debug zones, log emission
 *   util/                   file, system and platform utilities; k-th selection; profiler
 *   src/common/zel_memory/  buffers, allocators, importers, pool and memory manager
 */
#pragma once

#include "debug/zel_debug.h"
#include "src/common/zel_memory/allocator/device_buffer_allocator.h"
#include "src/common/zel_memory/allocator/heap_allocator.h"
#include "src/common/zel_memory/buffer.h"
#include "src/common/zel_memory/buffer_factory.h"
#include "src/common/zel_memory/buffer_pool.h"
#include "src/common/zel_memory/importer/file_descriptor_importer.h"
#include "src/common/zel_memory/memory_manager.h"
#include "src/common/zel_memory/native_handle_manager.h"
#include "src/common/zel_memory/talorn_nn_exception.h"
#include "util/zel_utils.h"
#include "util/zel_utils_algo.h"
#include "util/zel_utils_profiler.h"
#include "util/zel_utils_profiler_client.h"
#include "util/zel_utils_profiler_device.h"
#include "util/zel_utils_profiler_trace.h"
#include "util/zel_utils_profiler_wrapper.h"
#include "util/zel_utils_prop.h"
