/*
 * Timeline export of a finalized profiler, as Trace Event Format JSON (the format that Perfetto UI
 * and chrome://tracing open).
 *
 * This is an addition beside the profiler's interface: it only reads a finalized ZelProfiler
 * (plain, merged client+service, or device) and changes nothing of the profiler, its records,
 * its reports or its files.
 *
 * What the trace holds:
 *   - one complete event ("ph":"X") per stage of the tree and per iteration, in microseconds:
 *     "ts" is the stage's start, "dur" its end minus its start (the profile's own times; device
 *     stages of a merged profile already carry absolute times, a device profile on its own starts
 *     each iteration at 0);
 *   - "name": the label's name, followed by "_0x<postfix in hex>" when the postfix is not 0, as
 *     the reports print it;
 *   - "args": {"iterKey": "0x..", "iteration": i, "label": n, "postfix": "0x.."}; the iteration key
 *     is the one recorded with the stage's opening record. The two 64-bit values are hex strings
 *     so that viewers that read JSON numbers as doubles keep them exact;
 *   - "pid": the profiler's key (the model id, or the operation id of a device profile) when it is
 *     a positive 32-bit number, else its low 31 bits (viewers read pids as 32-bit); the
 *     "process_name" metadata event carries the whole key and the profiler's name;
 *   - one track ("tid") per side of the runtime, named by "thread_name" metadata events:
 *       1 "request"  measured TOTAL stages (the outermost frame of a request),
 *       2 "client"   API, CLIENT,
 *       3 "service"  SERVICE, ENGINE, the *_UD, *_OP and *_KERNEL stages, DD,
 *       4 "device"   DD_ROOT to HW_DSP,
 *       5 "other"    labels without a side (11, and numbers outside the label range).
 *     The root of the tree is a frame without times of its own and gets no event.
 *
 * Events nest exactly like the stage tree: a finalized profile's times never run backwards within
 * an iteration, so every stage lies inside its parent and siblings do not overlap, whatever track
 * each one is on. Iterations are not ordered against each other, though (raw data from elsewhere
 * may overlap them), and a viewer needs the events of one track to nest: an iteration that
 * overlaps the ones before it moves to a further set of tracks, tid 8 * lane + side, named
 * "<side> (overlap <lane>)".
 *
 * Limits: at most `max_events` stage events (kTraceEventLimit unless the caller gives another
 * bound). A profile with more keeps its first iterations that fit; a "* " line says how many
 * were left out, and so does "otherData" in the trace.
 *
 * Failures (the result 1 or an empty string, with a "* " error line): the profiler is not
 * finalized; its tree does not match its counts, its raw data or its own times (possible only
 * for a profiler altered after finalize); the file cannot be written.
 */
#pragma once

#include <cstdint>
#include <string>

#include "debug/zel_debug.h"
#include "util/zel_utils_profiler.h"

namespace zel {
namespace util {

// The most stage events one trace holds (about 150 MB of JSON).
constexpr uint64_t kTraceEventLimit = 1000000;

// The trace of a finalized profiler as JSON text; "" on failure.
std::string export_trace_json(const ZelProfiler& profiler, uint64_t max_events = kTraceEventLimit);

// Writes the same text to `path`, streamed rather than built in memory. 0, or 1 on failure (a
// partly written file is removed).
ZelReturn export_trace_to_file(const ZelProfiler& profiler, const char* path,
                               uint64_t max_events = kTraceEventLimit);

}  // namespace util
}  // namespace zel
