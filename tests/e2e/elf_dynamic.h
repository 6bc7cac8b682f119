// Reads what the dynamic loader sees of a shared library: its SONAME, its
// dynamic symbol table, its version definitions, its program headers and
// its dynamic section. Every offset taken from
// the file is checked against the file's size, so a damaged file gives an
// error, not a crash.
#ifndef E2E_ELF_DYNAMIC_H
#define E2E_ELF_DYNAMIC_H

#include <cstdint>
#include <string>
#include <vector>

struct DynamicSymbol {
    std::string name;
    unsigned type = 0;       // STT_*
    unsigned binding = 0;    // STB_*
    unsigned visibility = 0; // STV_*
    bool defined = false;    // not SHN_UNDEF
    bool absolute = false;   // SHN_ABS: no section, as the symbol of a version node
    std::uint64_t size = 0;
};

struct ProgramHeader {
    unsigned type = 0;   // PT_*
    unsigned flags = 0;  // PF_R | PF_W | PF_X
};

struct DynamicEntry {
    std::int64_t tag = 0;  // DT_*
    std::uint64_t value = 0;
};

struct ElfDynamicInfo {
    std::string soname;
    std::vector<DynamicSymbol> symbols;            // .dynsym without its null entry
    std::vector<std::string> versionDefinitions;   // .gnu.version_d names, base version excluded
    std::vector<ProgramHeader> programHeaders;     // the segments the loader maps
    std::vector<DynamicEntry> dynamicEntries;      // .dynamic up to DT_NULL
};

// False with a reason in error when the file is not a readable ELF shared
// object of this machine's byte order.
bool readElfDynamicInfo(const std::string &path, ElfDynamicInfo &info, std::string &error);

#endif
