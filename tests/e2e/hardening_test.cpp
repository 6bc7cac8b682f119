// The built library carries the hardening a panel vendor asks for: a stack
// that cannot execute, relocations made read-only and bound at load, stack
// canaries, and checked memory calls. Each is read from the file itself, so
// a changed toolchain or a dropped flag fails here, not in the field.
#include "elf_dynamic.h"
#include "entry_points.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <string>

namespace {

// Sanitizer builds instrument memory calls themselves and are built without
// _FORTIFY_SOURCE; the checks of the compiler's own hardening skip there.
#ifdef KQ71_SANITIZED
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif

class Hardening : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(readElfDynamicInfo(libraryPath("libvorn_kq71_ap.so.2.0.0"), info_, error)) << error;
    }

    const ProgramHeader *segment(unsigned type) const
    {
        for (const ProgramHeader &p : info_.programHeaders)
            if (p.type == type)
                return &p;
        return nullptr;
    }

    bool dynamicFlag(std::int64_t tag, std::uint64_t bit) const
    {
        for (const DynamicEntry &d : info_.dynamicEntries)
            if (d.tag == tag && (d.value & bit))
                return true;
        return false;
    }

    bool imports(const std::string &name) const
    {
        for (const DynamicSymbol &s : info_.symbols)
            if (!s.defined && s.name == name)
                return true;
        return false;
    }

    ElfDynamicInfo info_;
};

TEST_F(Hardening, StackIsNotExecutable)
{
    // Without the header the loader of many systems makes the stack executable.
    const ProgramHeader *stack = segment(PT_GNU_STACK);
    ASSERT_NE(stack, nullptr) << "no PT_GNU_STACK header";
    EXPECT_EQ(stack->flags & PF_X, 0u);
}

TEST_F(Hardening, RelocationsAreReadOnlyAfterLoad)
{
    EXPECT_NE(segment(PT_GNU_RELRO), nullptr) << "no PT_GNU_RELRO header (link with -z relro)";
}

TEST_F(Hardening, SymbolsAreBoundAtLoad)
{
    // Full RELRO needs immediate binding, or the GOT stays writable for lazy calls.
    EXPECT_TRUE(dynamicFlag(DT_FLAGS, DF_BIND_NOW) || dynamicFlag(DT_FLAGS_1, DF_1_NOW))
        << "neither DF_BIND_NOW nor DF_1_NOW (link with -z now)";
}

TEST_F(Hardening, CodeNeedsNoTextRelocations)
{
    for (const DynamicEntry &d : info_.dynamicEntries)
        EXPECT_NE(d.tag, DT_TEXTREL) << "DT_TEXTREL: code pages would be made writable at load";
    EXPECT_FALSE(dynamicFlag(DT_FLAGS, DF_TEXTREL));
}

TEST_F(Hardening, FunctionsCarryStackCanaries)
{
    if (kSanitized)
        GTEST_SKIP() << "sanitizer build";
    EXPECT_TRUE(imports("__stack_chk_fail")) << "built without -fstack-protector-strong";
}

TEST_F(Hardening, MemoryCallsAreChecked)
{
    if (kSanitized)
        GTEST_SKIP() << "sanitizer build";
    // _FORTIFY_SOURCE turns calls whose buffer size the compiler knows into
    // their checked variants, all named __*_chk.
    std::string checked;
    for (const DynamicSymbol &s : info_.symbols) {
        const std::string &n = s.name;
        if (!s.defined && n != "__stack_chk_fail" && n.size() > 4 && n.compare(0, 2, "__") == 0 &&
            n.compare(n.size() - 4, 4, "_chk") == 0)
            checked += n + " ";
    }
    EXPECT_FALSE(checked.empty()) << "no __*_chk import: built without -D_FORTIFY_SOURCE=2 and optimisation";
}

} // namespace
