// The library's face to the loader: exactly the runtime's names, unmangled,
// under the SONAME of major version 2.
#include "elf_dynamic.h"
#include "entry_points.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

namespace {

const char kLinkerName[] = "libvorn_kq71_ap.so";
const char kSoname[] = "libvorn_kq71_ap.so.2";
const char kRealName[] = "libvorn_kq71_ap.so.2.0.0";

// Names a linker may export on its own although the version script hides
// everything else: the DT_INIT / DT_FINI functions (older ARM binutils do).
// The linker-made _edata, _end and __bss_start are not allowed: they only
// appear when the version script was not applied.
const std::set<std::string> kToolchainNames = {"_init", "_fini"};

class ExportedSymbols : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(readElfDynamicInfo(libraryPath(kRealName), info_, error)) << error;
    }

    // A named version node gets an absolute symbol of its own name.
    bool isVersionNode(const DynamicSymbol &s) const
    {
        for (const std::string &v : info_.versionDefinitions) {
            if (s.absolute && s.name == v)
                return true;
        }
        return false;
    }

    const DynamicSymbol *find(const std::string &name) const
    {
        for (const DynamicSymbol &s : info_.symbols) {
            if (s.defined && s.name == name)
                return &s;
        }
        return nullptr;
    }

    ElfDynamicInfo info_;
};

TEST_F(ExportedSymbols, AreExactlyTheEntryPointsAndTheDriverObject)
{
    std::set<std::string> expected;
    for (const std::string &name : entryPointNames())
        expected.insert(name);
    expected.insert(driverObjectName());
    ASSERT_EQ(expected.size(), 20u);

    // ARM toolchains keep local section symbols (.init, .data) in the dynamic
    // table; the loader binds nothing to them.
    std::set<std::string> ours;
    for (const DynamicSymbol &s : info_.symbols) {
        if (s.defined && s.binding != STB_LOCAL && !kToolchainNames.count(s.name) && !isVersionNode(s))
            ours.insert(s.name);
    }
    for (const std::string &name : expected)
        EXPECT_TRUE(ours.count(name)) << "missing: " << name;
    for (const std::string &name : ours)
        EXPECT_TRUE(expected.count(name)) << "exported but not part of the interface: " << name;
}

TEST_F(ExportedSymbols, EntryPointsAreGlobalFunctionsSeenByTheLoader)
{
    for (const std::string &name : entryPointNames()) {
        const DynamicSymbol *s = find(name);
        if (!s)
            continue; // reported by the test above
        EXPECT_EQ(s->type, unsigned(STT_FUNC)) << name;
        EXPECT_EQ(s->binding, unsigned(STB_GLOBAL)) << name;
        EXPECT_EQ(s->visibility, unsigned(STV_DEFAULT)) << name;
    }
}

TEST_F(ExportedSymbols, DriverIsAGlobalDataObject)
{
    const DynamicSymbol *s = find(driverObjectName());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->type, unsigned(STT_OBJECT));
    EXPECT_EQ(s->binding, unsigned(STB_GLOBAL));
    EXPECT_GT(s->size, 0u);
}

TEST_F(ExportedSymbols, SonameNamesMajorVersionTwo)
{
    EXPECT_EQ(info_.soname, kSoname);
}

// The runtime opens the linker name, the loader resolves the SONAME: both must
// lead to the file of version 2.0.0.
TEST(LibraryFiles, LinkerNameAndSonameLeadToVersion200)
{
    namespace fs = std::filesystem;
    for (const char *name : {kLinkerName, kSoname}) {
        std::error_code ec;
        const fs::path target = fs::canonical(libraryPath(name), ec);
        ASSERT_FALSE(ec) << name << ": " << ec.message();
        EXPECT_EQ(target.filename().string(), kRealName) << name;
    }
}

} // namespace
