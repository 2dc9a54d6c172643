#include "tests/support/allocation_faults.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <utility>

namespace vu::test {

namespace {

bool fails()
{
    const int64_t number = AllocationFaults::made++;
    return number >= AllocationFaults::first && number <= AllocationFaults::last;
}

struct Patch {
    Patch(const char *function, auto lambda) : name(function), replacement(reinterpret_cast<void *>(+lambda))
    {
    }
    const char *name;
    void *replacement;
};
const Patch patches[] = {
    {"malloc", [](size_t size) { return fails() ? nullptr : std::malloc(size); }},
    {"calloc", [](size_t count, size_t size) { return fails() ? nullptr : std::calloc(count, size); }},
    {"realloc", [](void *memory, size_t size) { return fails() ? nullptr : std::realloc(memory, size); }},
    {"aligned_alloc",
     [](size_t alignment, size_t size) { return fails() ? nullptr : std::aligned_alloc(alignment, size); }},
    {"strdup", [](const char *text) { return fails() ? nullptr : strdup(text); }},
    {"vasprintf", [](char **out, const char *format, va_list arguments) {
         return fails() ? -1 : vasprintf(out, format, arguments);
     }}};

void patchSlot(ElfW(Addr) slot, void *replacement)
{
    constexpr ElfW(Addr) kPage = 4096;
    mprotect(reinterpret_cast<void *>(slot & ~(kPage - 1)), kPage, PROT_READ | PROT_WRITE);
    *reinterpret_cast<void **>(slot) = replacement;
}

bool patchLibrary()
{
    const auto *library = static_cast<const link_map *>(dlopen("libvu.so.1", RTLD_LAZY | RTLD_NOLOAD));
    if (!library)
        return false;
    ElfW(Addr) dynamic[DT_NUM] = {};
    for (const ElfW(Dyn) *entry = library->l_ld; entry->d_tag != DT_NULL; entry++)
        if (entry->d_tag < DT_NUM)
            dynamic[entry->d_tag] = entry->d_un.d_ptr;
    const auto *names = reinterpret_cast<const char *>(dynamic[DT_STRTAB]);
    const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(dynamic[DT_SYMTAB]);
    for (const auto &[table, bytes] : {std::pair(DT_JMPREL, DT_PLTRELSZ), std::pair(DT_RELA, DT_RELASZ)}) {
        const auto *row = reinterpret_cast<const ElfW(Rela) *>(dynamic[table]);
        for (const auto *end = row + dynamic[bytes] / sizeof *row; row < end; row++)
            for (const Patch &patch : patches)
                if (std::strcmp(names + symbols[ELF64_R_SYM(row->r_info)].st_name, patch.name) == 0)
                    patchSlot(library->l_addr + row->r_offset, patch.replacement);
    }
    return true;
}

} // namespace

AllocationFaults::AllocationFaults()
{
    static const bool patched = patchLibrary();
    if (!patched)
        std::abort();
    failNone();
    reset();
}

} // namespace vu::test
