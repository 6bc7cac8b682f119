// Every input kept for the fuzz targets (fuzz/regressions/<target>/ and the
// seed corpora fuzz/corpus/<target>/) runs through its target's body in the
// normal build, with the targets' own invariants: a fault found once stays
// found. A broken invariant ends the process with the input's file name.
#include "fuzz_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

namespace fs = std::filesystem;

void replayKeptInputs(const char *target, int (*body)(const uint8_t *, size_t))
{
    std::vector<fs::path> files;
    for (const char *kind : {"regressions", "corpus"})
        if (fs::is_directory(fs::path(KQ71_FUZZ_DIR) / kind / target))
            for (const fs::directory_entry &e : fs::directory_iterator(fs::path(KQ71_FUZZ_DIR) / kind / target))
                files.push_back(e.path());
    std::sort(files.begin(), files.end());
    ASSERT_FALSE(files.empty()) << "no seed corpus in fuzz/corpus/" << target;
    for (const fs::path &file : files) {
        const std::string name = file.string();
        std::ifstream in(file, std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        kq71fuzz::inputName = name.c_str();
        EXPECT_EQ(0, body(bytes.data(), bytes.size())) << name;
    }
    kq71fuzz::inputName = nullptr;
}

TEST(FuzzInputs, Replies) { replayKeptInputs("replies", &runRepliesInput); }
TEST(FuzzInputs, Calls) { replayKeptInputs("calls", &runCallsInput); }
TEST(FuzzInputs, Editor) { replayKeptInputs("editor", &runEditorInput); }

} // namespace
