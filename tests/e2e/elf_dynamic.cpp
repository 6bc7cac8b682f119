#include "elf_dynamic.h"

#include <elf.h>

#include <algorithm>
#include <cstring>
#include <fstream>

namespace {

using Bytes = std::vector<char>;

template <typename T>
bool readAt(const Bytes &file, std::uint64_t offset, T &out)
{
    if (offset > file.size() || file.size() - offset < sizeof(T))
        return false;
    std::memcpy(&out, file.data() + offset, sizeof(T));
    return true;
}

// A NUL-terminated string at table[index], the table being [begin, begin + size).
bool readString(const Bytes &file, std::uint64_t begin, std::uint64_t size, std::uint64_t index, std::string &out)
{
    if (begin > file.size() || size > file.size() - begin || index >= size)
        return false;
    const char *first = file.data() + begin + index;
    const void *nul = std::memchr(first, '\0', size - index);
    if (!nul)
        return false;
    out.assign(first, static_cast<const char *>(nul));
    return true;
}

struct Elf32Types {
    using Ehdr = Elf32_Ehdr;
    using Phdr = Elf32_Phdr;
    using Shdr = Elf32_Shdr;
    using Sym = Elf32_Sym;
    using Dyn = Elf32_Dyn;
    static unsigned type(unsigned char info) { return ELF32_ST_TYPE(info); }
    static unsigned bind(unsigned char info) { return ELF32_ST_BIND(info); }
    static unsigned visibility(unsigned char other) { return ELF32_ST_VISIBILITY(other); }
};

struct Elf64Types {
    using Ehdr = Elf64_Ehdr;
    using Phdr = Elf64_Phdr;
    using Shdr = Elf64_Shdr;
    using Sym = Elf64_Sym;
    using Dyn = Elf64_Dyn;
    static unsigned type(unsigned char info) { return ELF64_ST_TYPE(info); }
    static unsigned bind(unsigned char info) { return ELF64_ST_BIND(info); }
    static unsigned visibility(unsigned char other) { return ELF64_ST_VISIBILITY(other); }
};

template <typename E>
class Reader {
public:
    Reader(const Bytes &file, ElfDynamicInfo &info, std::string &error) : file_(file), info_(info), error_(error) {}

    bool run()
    {
        typename E::Ehdr header;
        if (!readAt(file_, 0, header))
            return fail("truncated ELF header");
        if (header.e_type != ET_DYN)
            return fail("not a shared object");
        if (header.e_phnum > 0 && header.e_phentsize < sizeof(typename E::Phdr))
            return fail("bad program header size");
        for (unsigned i = 0; i < header.e_phnum; ++i) {
            typename E::Phdr segment;
            if (!readAt(file_, header.e_phoff + std::uint64_t(i) * header.e_phentsize, segment))
                return fail("program header outside the file");
            ProgramHeader out;
            out.type = segment.p_type;
            out.flags = segment.p_flags;
            info_.programHeaders.push_back(out);
        }
        if (header.e_shentsize < sizeof(typename E::Shdr))
            return fail("bad section header size");
        for (unsigned i = 0; i < header.e_shnum; ++i) {
            typename E::Shdr section;
            if (!readAt(file_, header.e_shoff + std::uint64_t(i) * header.e_shentsize, section))
                return fail("section header outside the file");
            sections_.push_back(section);
        }
        for (const auto &section : sections_) {
            bool ok = true;
            if (section.sh_type == SHT_DYNSYM)
                ok = readSymbols(section);
            else if (section.sh_type == SHT_DYNAMIC)
                ok = readDynamic(section);
            else if (section.sh_type == SHT_GNU_verdef)
                ok = readVersionDefinitions(section);
            if (!ok)
                return false;
        }
        return true;
    }

private:
    bool fail(const std::string &why)
    {
        error_ = why;
        return false;
    }

    bool linkedStrings(const typename E::Shdr &section, std::uint64_t &begin, std::uint64_t &size)
    {
        if (section.sh_link >= sections_.size() || sections_[section.sh_link].sh_type != SHT_STRTAB)
            return fail("section without a string table");
        begin = sections_[section.sh_link].sh_offset;
        size = sections_[section.sh_link].sh_size;
        return true;
    }

    bool readSymbols(const typename E::Shdr &section)
    {
        std::uint64_t strBegin, strSize;
        if (!linkedStrings(section, strBegin, strSize))
            return false;
        if (section.sh_entsize < sizeof(typename E::Sym))
            return fail("bad symbol entry size");
        const std::uint64_t count = section.sh_size / section.sh_entsize;
        for (std::uint64_t i = 1; i < count; ++i) { // entry 0 is the null symbol
            typename E::Sym sym;
            if (!readAt(file_, section.sh_offset + i * section.sh_entsize, sym))
                return fail("symbol outside the file");
            DynamicSymbol out;
            if (!readString(file_, strBegin, strSize, sym.st_name, out.name))
                return fail("symbol name outside its string table");
            out.type = E::type(sym.st_info);
            out.binding = E::bind(sym.st_info);
            out.visibility = E::visibility(sym.st_other);
            out.defined = sym.st_shndx != SHN_UNDEF;
            out.absolute = sym.st_shndx == SHN_ABS;
            out.size = sym.st_size;
            info_.symbols.push_back(out);
        }
        return true;
    }

    bool readDynamic(const typename E::Shdr &section)
    {
        std::uint64_t strBegin, strSize;
        if (!linkedStrings(section, strBegin, strSize))
            return false;
        const std::uint64_t count = section.sh_size / sizeof(typename E::Dyn);
        for (std::uint64_t i = 0; i < count; ++i) {
            typename E::Dyn entry;
            if (!readAt(file_, section.sh_offset + i * sizeof(entry), entry))
                return fail("dynamic entry outside the file");
            if (entry.d_tag == DT_NULL)
                break;
            DynamicEntry out;
            out.tag = entry.d_tag;
            out.value = entry.d_un.d_val;
            info_.dynamicEntries.push_back(out);
            if (entry.d_tag == DT_SONAME && !readString(file_, strBegin, strSize, entry.d_un.d_val, info_.soname))
                return fail("SONAME outside its string table");
        }
        return true;
    }

    // Verdef records are chained by relative offsets; sh_info says how many.
    bool readVersionDefinitions(const typename E::Shdr &section)
    {
        std::uint64_t strBegin, strSize;
        if (!linkedStrings(section, strBegin, strSize))
            return false;
        std::uint64_t at = section.sh_offset;
        for (unsigned i = 0; i < section.sh_info; ++i) {
            Elf64_Verdef def; // same layout in both classes
            Elf64_Verdaux aux;
            if (!readAt(file_, at, def) || !readAt(file_, at + def.vd_aux, aux))
                return fail("version definition outside the file");
            std::string name;
            if (!readString(file_, strBegin, strSize, aux.vda_name, name))
                return fail("version name outside its string table");
            if (!(def.vd_flags & VER_FLG_BASE))
                info_.versionDefinitions.push_back(name);
            if (def.vd_next == 0)
                break;
            at += def.vd_next;
        }
        return true;
    }

    const Bytes &file_;
    ElfDynamicInfo &info_;
    std::string &error_;
    std::vector<typename E::Shdr> sections_;
};

bool hostIsLittleEndian()
{
    const std::uint16_t probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

} // namespace

bool readElfDynamicInfo(const std::string &path, ElfDynamicInfo &info, std::string &error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    in.seekg(0, std::ios::end);
    Bytes file(static_cast<std::size_t>(std::max<std::streamoff>(in.tellg(), 0)));
    in.seekg(0, std::ios::beg);
    if (!in.read(file.data(), static_cast<std::streamsize>(file.size()))) {
        error = "cannot read " + path;
        return false;
    }
    unsigned char ident[EI_NIDENT];
    if (!readAt(file, 0, ident) || std::memcmp(ident, ELFMAG, SELFMAG) != 0) {
        error = path + " is not an ELF file";
        return false;
    }
    if (ident[EI_DATA] != (hostIsLittleEndian() ? ELFDATA2LSB : ELFDATA2MSB)) {
        error = path + " is of the other byte order";
        return false;
    }
    info = ElfDynamicInfo();
    if (ident[EI_CLASS] == ELFCLASS64)
        return Reader<Elf64Types>(file, info, error).run();
    if (ident[EI_CLASS] == ELFCLASS32)
        return Reader<Elf32Types>(file, info, error).run();
    error = path + " has an unknown ELF class";
    return false;
}
