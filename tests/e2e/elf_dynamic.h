// Reads what the dynamic loader sees of a shared library: its SONAME, its
// dynamic symbol table and its version definitions. Every offset taken from
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

struct ElfDynamicInfo {
    std::string soname;
    std::vector<DynamicSymbol> symbols;            // .dynsym without its null entry
    std::vector<std::string> versionDefinitions;   // .gnu.version_d names, base version excluded
};

// False with a reason in error when the file is not a readable ELF shared
// object of this machine's byte order.
bool readElfDynamicInfo(const std::string &path, ElfDynamicInfo &info, std::string &error);

#endif
