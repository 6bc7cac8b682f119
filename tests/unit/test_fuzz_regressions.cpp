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
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Target {
    const char *name;
    int (*body)(const uint8_t *, size_t);
};

class FuzzInputs : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzInputs, EveryKeptInputKeepsTheInvariants)
{
    const Target target = GetParam();
    std::vector<fs::path> files;
    for (const char *kind : {"regressions", "corpus"})
        if (fs::is_directory(fs::path(KQ71_FUZZ_DIR) / kind / target.name))
            for (const fs::directory_entry &e : fs::recursive_directory_iterator(fs::path(KQ71_FUZZ_DIR) / kind / target.name))
                if (e.is_regular_file())
                    files.push_back(e.path());
    std::sort(files.begin(), files.end());
    ASSERT_FALSE(files.empty()) << "no seed corpus in fuzz/corpus/" << target.name;
    for (const fs::path &file : files) {
        const std::string name = file.string();
        kq71fuzz::inputName = name.c_str();
        std::ifstream in(file, std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        EXPECT_EQ(0, target.body(bytes.data(), bytes.size())) << name;
    }
    kq71fuzz::inputName = nullptr;
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzInputs,
                         ::testing::Values(Target{"replies", &runRepliesInput}, Target{"calls", &runCallsInput},
                                           Target{"editor", &runEditorInput}),
                         [](const ::testing::TestParamInfo<Target> &info) { return std::string(info.param.name); });

} // namespace
