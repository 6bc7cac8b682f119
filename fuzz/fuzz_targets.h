// The bodies of the fuzz targets. libFuzzer calls them through thin wrappers
// (fuzz_main.cpp); the unit tests replay the kept inputs through them.
// Each returns 0; a broken invariant ends the process with a message.
#ifndef KQ71_FUZZ_TARGETS_H
#define KQ71_FUZZ_TARGETS_H

#include <cstddef>
#include <cstdint>

// A driver with a watch list, pending writes, a condition read and a recipe
// transfer in flight; the input picks the current job and supplies the replies.
int runRepliesInput(const uint8_t *data, size_t size);

// A program of entry-point calls with arguments from the input, run against
// one driver.
int runCallsInput(const uint8_t *data, size_t size);

// The editor's address checks, multi-copy and register descriptions with
// arbitrary texts, names and numbers.
int runEditorInput(const uint8_t *data, size_t size);

#endif
