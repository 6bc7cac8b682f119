// The built file as the loader sees it, read with binutils' readelf (which
// reads an armhf file as well as the host's): exactly the runtime's names,
// unmangled, under the SONAME of major version 2, and the hardening a panel
// vendor asks for, so that a changed toolchain or a dropped flag fails here.
#include "entry_points.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

const char kSoname[] = "libvorn_kq71_ap.so.2";
const char kRealName[] = "libvorn_kq71_ap.so.2.0.0";

// Program headers, dynamic section and dynamic symbols, one line each.
const std::vector<std::string> &listing()
{
    static const std::vector<std::string> lines = [] {
        std::vector<std::string> out;
        FILE *p = popen(("readelf -W -l -d --dyn-syms " + libraryPath(kRealName) + " 2>&1").c_str(), "r");
        char line[4096];
        while (p && fgets(line, sizeof line, p))
            out.emplace_back(line);
        if (!p || pclose(p) != 0)
            out.insert(out.begin(), "readelf failed");
        return out;
    }();
    return lines;
}

bool listed(const std::string &pattern)
{
    const std::regex re(pattern);
    for (const std::string &line : listing())
        if (std::regex_search(line, re))
            return true;
    return false;
}

TEST(ExportedSymbols, AreExactlyTheEntryPointsAndTheDriverObject)
{
    std::map<std::string, std::string> expected = {{"driver", "OBJECT GLOBAL DEFAULT sized"}};
#define KQ71_EXPECTED(name) expected[#name] = "FUNC GLOBAL DEFAULT";
    KQ71_ENTRY_POINTS(KQ71_EXPECTED)
#undef KQ71_EXPECTED
    ASSERT_EQ(expected.size(), 20u);

    // Num: Value Size Type Bind Vis Ndx Name[@version]. ARM toolchains keep
    // local section symbols in the table and may export _init and _fini; the
    // loader binds nothing else of theirs.
    const std::regex row(R"(^\s*\d+: [0-9a-f]+\s+(\S+) (\w+)\s+(\w+)\s+(\w+)\s+(\w+) ([^@\s]+))");
    std::map<std::string, std::string> exported;
    std::smatch m;
    for (const std::string &line : listing())
        if (std::regex_search(line, m, row) && m[3] != "LOCAL" && m[5] != "UND" && m[5] != "ABS" &&
            m[6] != "_init" && m[6] != "_fini")
            exported[m[6]] = m[2].str() + " " + m[3].str() + " " + m[4].str() +
                             (m[2] == "OBJECT" && m[1] != "0" ? " sized" : "");
    EXPECT_EQ(exported, expected);
}

// The runtime opens the linker name, the loader resolves the SONAME: both
// must lead to the file of version 2.0.0.
TEST(ExportedSymbols, SonameAndLinkerNameLeadToVersion200)
{
    EXPECT_TRUE(listed(std::string(R"(\(SONAME\).*\[)") + kSoname + R"(\])"));
    for (const char *name : {"libvorn_kq71_ap.so", kSoname}) {
        std::error_code ec;
        EXPECT_EQ(std::filesystem::canonical(libraryPath(name), ec).filename().string(), kRealName) << name;
    }
}

TEST(Hardening, PropertiesOfTheBuiltFile)
{
    // Sanitizer builds leave out _FORTIFY_SOURCE and instrument memory calls
    // themselves: the compiler's own hardening is not theirs to show.
    const struct {
        const char *what, *pattern;
        bool wanted, byCompiler;
    } properties[] = {
        // Without the header the loader of many systems makes the stack executable.
        {"stack not executable (-z noexecstack)", R"(^\s*GNU_STACK\s.*\sRW\s)", true, false},
        {"relocations read-only after load (-z relro)", R"(^\s*GNU_RELRO\s)", true, false},
        // Full RELRO needs immediate binding, or the GOT stays writable for lazy calls.
        {"bound at load (-z now)", R"(\(FLAGS\).*\bBIND_NOW\b|\(FLAGS_1\).*\bNOW\b)", true, false},
        {"text relocations, which make code writable", R"(\(TEXTREL\)|\(FLAGS\).*\bTEXTREL\b)", false, false},
        {"stack canaries (-fstack-protector-strong)", R"(\sUND __stack_chk_fail\b)", true, true},
        // _FORTIFY_SOURCE turns calls of known buffer size into their __*_chk variants.
        {"checked memory calls (-D_FORTIFY_SOURCE=2 -O2)", R"(\sUND __(?!stack_chk_fail)\w+_chk\b)", true, true},
    };
    for (const auto &p : properties)
#ifdef KQ71_SANITIZED
        if (!p.byCompiler)
#endif
            EXPECT_EQ(listed(p.pattern), p.wanted) << p.what;
}

} // namespace
