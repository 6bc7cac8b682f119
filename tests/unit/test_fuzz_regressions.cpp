// Every input kept for the fuzz targets (fuzz/regressions/<target>/ and the
// seed corpora fuzz/corpus/<target>/) runs through its target's body in the
// normal build, with the targets' own invariants: a fault found once stays
// found. A broken invariant ends the process with the input's file name.
#include "fuzz_support.h"
#include "fuzz_targets.h"

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

std::vector<fs::path> keptInputs(const std::string &target)
{
    std::vector<fs::path> files;
    for (const char *kind : {"regressions", "corpus"}) {
        const fs::path dir = fs::path(KQ71_FUZZ_DIR) / kind / target;
        if (!fs::is_directory(dir))
            continue;
        for (const fs::directory_entry &e : fs::recursive_directory_iterator(dir))
            if (e.is_regular_file())
                files.push_back(e.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<uint8_t> contents(const fs::path &file)
{
    std::ifstream in(file, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class FuzzInputs : public ::testing::TestWithParam<Target> {};

TEST_P(FuzzInputs, EveryKeptInputKeepsTheInvariants)
{
    const Target target = GetParam();
    const std::vector<fs::path> files = keptInputs(target.name);
    ASSERT_FALSE(files.empty()) << "no seed corpus in fuzz/corpus/" << target.name;
    for (const fs::path &file : files) {
        const std::string name = file.string();
        SCOPED_TRACE(name);
        kq71fuzz::setInputName(name.c_str());
        const std::vector<uint8_t> bytes = contents(file);
        EXPECT_EQ(0, target.body(bytes.data(), bytes.size()));
    }
    kq71fuzz::setInputName(nullptr);
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzInputs,
                         ::testing::Values(Target{"replies", &runRepliesInput}, Target{"calls", &runCallsInput},
                                           Target{"editor", &runEditorInput}),
                         [](const ::testing::TestParamInfo<Target> &info) { return std::string(info.param.name); });

} // namespace
